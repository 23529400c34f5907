#include "javascript_highlighter.h"

#include <QRegularExpression>
#include <QSyntaxHighlighter>
#include <QTextDocument>

namespace {

class Highlighter : public QSyntaxHighlighter
{
public:
    explicit Highlighter(QTextDocument *document)
        : QSyntaxHighlighter(document)
    {
        m_keyword.setForeground(QColor(0x8b, 0x2f, 0xc9));
        m_keyword.setFontWeight(QFont::DemiBold);
        m_string.setForeground(QColor(0x1a, 0x7f, 0x37));
        m_number.setForeground(QColor(0x0b, 0x5c, 0xad));
        m_comment.setForeground(QColor(0x6e, 0x6e, 0x6e));
        m_comment.setFontItalic(true);
    }

protected:
    void highlightBlock(const QString &text) override
    {
        static const QRegularExpression keywords(QStringLiteral(
            "\\b(?:async|await|break|case|catch|class|const|continue|default|delete|do|else|export|false|"
            "finally|for|function|if|in|instanceof|let|module|new|null|of|return|switch|this|throw|true|try|"
            "typeof|undefined|var|void|while|yield)\\b"));
        static const QRegularExpression numbers(QStringLiteral("\\b\\d+(?:\\.\\d+)?\\b"));
        // Strings and line comments in one pass, so that quotes in comments and slashes in
        // strings are taken for what they are.
        static const QRegularExpression stringsAndComments(QStringLiteral(
            "\"(?:[^\"\\\\]|\\\\.)*\"?|'(?:[^'\\\\]|\\\\.)*'?|`(?:[^`\\\\]|\\\\.)*`?|//.*$|/\\*"));

        apply(text, keywords, m_keyword);
        apply(text, numbers, m_number);

        int from = 0;
        if (previousBlockState() == 1) {
            from = closeComment(text, 0);
            if (from < 0)
                return;
        }
        setCurrentBlockState(0);
        QRegularExpressionMatchIterator it = stringsAndComments.globalMatch(text, from);
        while (it.hasNext()) {
            const QRegularExpressionMatch match = it.next();
            if (match.capturedStart() < from)
                continue;
            const QString found = match.captured();
            if (found == QStringLiteral("/*")) {
                from = closeComment(text, int(match.capturedStart()));
                if (from < 0)
                    return;
                it = stringsAndComments.globalMatch(text, from);
            } else {
                setFormat(int(match.capturedStart()), int(match.capturedLength()),
                          found.startsWith(QStringLiteral("//")) ? m_comment : m_string);
            }
        }
    }

private:
    void apply(const QString &text, const QRegularExpression &pattern, const QTextCharFormat &format)
    {
        QRegularExpressionMatchIterator it = pattern.globalMatch(text);
        while (it.hasNext()) {
            const QRegularExpressionMatch match = it.next();
            setFormat(int(match.capturedStart()), int(match.capturedLength()), format);
        }
    }

    /// Colours a block comment from `start`; answers where it ends, or -1 when it goes on.
    int closeComment(const QString &text, int start)
    {
        const int end = int(text.indexOf(QStringLiteral("*/"), start == 0 && previousBlockState() == 1 ? 0 : start + 2));
        if (end < 0) {
            setFormat(start, int(text.size()) - start, m_comment);
            setCurrentBlockState(1);
            return -1;
        }
        setFormat(start, end + 2 - start, m_comment);
        return end + 2;
    }

    QTextCharFormat m_keyword;
    QTextCharFormat m_string;
    QTextCharFormat m_number;
    QTextCharFormat m_comment;
};

} // namespace

void JavaScriptHighlighter::attach(QQuickTextDocument *document)
{
    if (!document || !document->textDocument())
        return;
    QTextDocument *text = document->textDocument();
    // One highlighter per document, owned by it.
    if (!text->findChild<Highlighter *>())
        new Highlighter(text);
}
