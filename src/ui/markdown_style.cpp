#include "markdown_style.h"

#include <QScopedValueRollback>
#include <QTextBlock>
#include <QTextCursor>
#include <QTextDocument>
#include <QTextList>

namespace {

constexpr qreal s_paragraphGap = 8;
constexpr qreal s_codePadding = 10;
constexpr const char *s_followsTheme = "corvaneFollowsTheme";

// The Markdown import marks every line of a code block, fenced or indented, with its language
// (empty when none); only fenced ones are also kept from wrapping.
bool isCode(const QTextBlock &block)
{
    return block.isValid() && block.blockFormat().hasProperty(QTextFormat::BlockCodeLanguage);
}

} // namespace

void MarkdownStyle::setCodeBackground(const QColor &colour)
{
    if (colour == m_codeBackground)
        return;
    m_codeBackground = colour;
    Q_EMIT coloursChanged();
}

void MarkdownStyle::setLinkColor(const QColor &colour)
{
    if (colour == m_linkColor)
        return;
    m_linkColor = colour;
    Q_EMIT coloursChanged();
}

void MarkdownStyle::apply(QQuickTextDocument *document)
{
    if (m_applying || !document || !document->textDocument())
        return;
    const QScopedValueRollback guard(m_applying, true);
    // A document styled once is restyled when the scheme changes, like the code colours.
    if (!document->property(s_followsTheme).toBool()) {
        document->setProperty(s_followsTheme, true);
        connect(this, &MarkdownStyle::coloursChanged, document, [this, document] { apply(document); });
    }
    QTextDocument *doc = document->textDocument();
    QTextCursor cursor(doc);
    cursor.beginEditBlock();
    for (QTextBlock block = doc->begin(); block.isValid(); block = block.next()) {
        QTextBlockFormat format = block.blockFormat();
        const bool last = !block.next().isValid();
        if (isCode(block)) {
            // A code block arrives as one block per line: shade them as one box.
            format.setBackground(m_codeBackground);
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
            shade.setBackground(m_codeBackground);
            cursor.setPosition(block.position() + block.length() - 1, QTextCursor::KeepAnchor);
            cursor.mergeCharFormat(shade);
        }
        // Found first, recoloured after: a change of format may join or split fragments.
        QList<std::pair<int, int>> links;
        for (auto it = block.begin(); !it.atEnd(); ++it)
            if (it.fragment().charFormat().isAnchor())
                links.append({it.fragment().position(), it.fragment().length()});
        QTextCharFormat link;
        link.setForeground(m_linkColor);
        for (const auto &[position, length] : links) {
            cursor.setPosition(position);
            cursor.setPosition(position + length, QTextCursor::KeepAnchor);
            cursor.mergeCharFormat(link);
        }
    }
    cursor.endEditBlock();
}
