#include "markdown_style.h"

#include <QScopedValueRollback>
#include <QTextBlock>
#include <QTextCursor>
#include <QTextDocument>
#include <QTextList>

namespace {

constexpr qreal s_paragraphGap = 8;
constexpr qreal s_codePadding = 10;
// A grey wash, so that the box shows on the light and on the dark background alike.
const QColor s_codeBackground(128, 128, 128, 36);

bool isCode(const QTextBlock &block)
{
    return block.isValid() && block.blockFormat().nonBreakableLines();
}

} // namespace

void MarkdownStyle::apply(QQuickTextDocument *document)
{
    if (m_applying || !document || !document->textDocument())
        return;
    const QScopedValueRollback guard(m_applying, true);
    QTextDocument *doc = document->textDocument();
    QTextCursor cursor(doc);
    cursor.beginEditBlock();
    for (QTextBlock block = doc->begin(); block.isValid(); block = block.next()) {
        QTextBlockFormat format = block.blockFormat();
        const bool last = !block.next().isValid();
        if (isCode(block)) {
            // A code block arrives as one block per line: shade them as one box.
            format.setBackground(s_codeBackground);
            format.setLeftMargin(s_codePadding);
            format.setRightMargin(s_codePadding);
            format.setTopMargin(isCode(block.previous()) ? 0 : s_paragraphGap / 2);
            format.setBottomMargin(isCode(block.next()) || last ? 0 : s_paragraphGap);
        } else if (block.textList()) {
            const bool nextInList = block.next().isValid() && block.next().textList();
            format.setBottomMargin(nextInList || last ? 2 : s_paragraphGap);
        } else {
            format.setBottomMargin(last ? 0 : s_paragraphGap);
        }
        cursor.setPosition(block.position());
        cursor.setBlockFormat(format);
        if (isCode(block)) {
            // The text view draws no block backgrounds, so the characters carry the shade.
            QTextCharFormat shade;
            shade.setBackground(s_codeBackground);
            cursor.setPosition(block.position() + block.length() - 1, QTextCursor::KeepAnchor);
            cursor.mergeCharFormat(shade);
        }
    }
    cursor.endEditBlock();
}
