#include "code_highlighter.h"

#include <QRegularExpression>
#include <QSyntaxHighlighter>
#include <QTextDocument>

namespace {

/// What sets a language apart for colouring. Strings are "…" and '…' everywhere; the rest
/// varies.
struct Language
{
    QStringList names;
    QString keywords; ///< alternatives for a regular expression, words only
    QString lineComment; ///< "//", "#", "--" or empty
    bool blockComments = false; ///< /* … */
    bool backtickStrings = false;
};

const QList<Language> &languages()
{
    static const QString cFamily = QStringLiteral(
        "auto|break|case|char|const|continue|default|do|double|else|enum|extern|float|for|goto|if|inline|int|long|"
        "register|return|short|signed|sizeof|static|struct|switch|typedef|union|unsigned|void|volatile|while|bool|"
        "true|false|NULL");
    static const QList<Language> list{
        {{QStringLiteral("c"), QStringLiteral("h")}, cFamily, QStringLiteral("//"), true, false},
        {{QStringLiteral("cpp"), QStringLiteral("c++"), QStringLiteral("cc"), QStringLiteral("cxx"),
          QStringLiteral("hpp")},
         cFamily + QStringLiteral("|class|constexpr|co_await|co_return|delete|explicit|final|friend|mutable|"
                                  "namespace|new|noexcept|nullptr|operator|override|private|protected|public|"
                                  "template|this|throw|try|catch|typename|using|virtual"),
         QStringLiteral("//"), true, false},
        {{QStringLiteral("javascript"), QStringLiteral("js"), QStringLiteral("jsx"), QStringLiteral("typescript"),
          QStringLiteral("ts"), QStringLiteral("tsx"), QStringLiteral("mjs"), QStringLiteral("json5")},
         QStringLiteral("async|await|break|case|catch|class|const|continue|default|delete|do|else|export|extends|false|"
                        "finally|for|from|function|if|import|in|instanceof|interface|let|module|new|null|of|return|"
                        "switch|this|throw|true|try|type|typeof|undefined|var|void|while|yield"),
         QStringLiteral("//"), true, true},
        {{QStringLiteral("python"), QStringLiteral("py"), QStringLiteral("python3")},
         QStringLiteral("and|as|assert|async|await|break|class|continue|def|del|elif|else|except|False|finally|for|"
                        "from|global|if|import|in|is|lambda|None|nonlocal|not|or|pass|raise|return|self|True|try|"
                        "while|with|yield"),
         QStringLiteral("#"), false, false},
        {{QStringLiteral("rust"), QStringLiteral("rs")},
         QStringLiteral("as|async|await|break|const|continue|crate|dyn|else|enum|extern|false|fn|for|if|impl|in|let|"
                        "loop|match|mod|move|mut|pub|ref|return|self|Self|static|struct|super|trait|true|type|"
                        "unsafe|use|where|while"),
         QStringLiteral("//"), true, false},
        {{QStringLiteral("go"), QStringLiteral("golang")},
         QStringLiteral("break|case|chan|const|continue|default|defer|else|fallthrough|false|for|func|go|goto|if|"
                        "import|interface|map|nil|package|range|return|select|struct|switch|true|type|var"),
         QStringLiteral("//"), true, true},
        {{QStringLiteral("java"), QStringLiteral("kotlin"), QStringLiteral("kt"), QStringLiteral("csharp"),
          QStringLiteral("cs"), QStringLiteral("c#"), QStringLiteral("swift")},
         QStringLiteral("abstract|break|case|catch|class|const|continue|default|do|else|enum|extends|false|final|"
                        "finally|for|fun|func|if|implements|import|interface|let|namespace|new|null|override|package|"
                        "private|protected|public|return|static|struct|super|switch|this|throw|true|try|using|val|"
                        "var|void|while"),
         QStringLiteral("//"), true, false},
        {{QStringLiteral("bash"), QStringLiteral("sh"), QStringLiteral("shell"), QStringLiteral("zsh"),
          QStringLiteral("console")},
         QStringLiteral("case|do|done|elif|else|esac|export|fi|for|function|if|in|local|return|then|until|while"),
         QStringLiteral("#"), false, false},
        {{QStringLiteral("sql"), QStringLiteral("sqlite")},
         QStringLiteral("(?i:add|all|alter|and|as|asc|begin|between|by|case|commit|create|delete|desc|distinct|drop|"
                        "else|end|exists|from|group|having|in|index|insert|into|is|join|key|left|like|limit|not|null|"
                        "on|or|order|primary|references|select|set|table|then|trigger|union|update|values|when|"
                        "where|with)"),
         QStringLiteral("--"), true, false},
        {{QStringLiteral("json")}, QStringLiteral("true|false|null"), QString(), false, false},
        {{QStringLiteral("yaml"), QStringLiteral("yml"), QStringLiteral("toml"), QStringLiteral("ini")},
         QStringLiteral("true|false|null|yes|no"), QStringLiteral("#"), false, false},
    };
    return list;
}

const Language *find(const QString &name)
{
    const QString lower = name.toLower();
    for (const Language &language : languages())
        if (language.names.contains(lower))
            return &language;
    return nullptr;
}

class Highlighter : public QSyntaxHighlighter
{
public:
    Highlighter(QTextDocument *document, const Language *language, bool dark)
        : QSyntaxHighlighter(document)
    {
        m_keyword.setFontWeight(QFont::DemiBold);
        m_comment.setFontItalic(true);
        colour(dark);
        // The base class colours the document once control returns to the event loop.
        configure(language);
    }

    void setLanguage(const Language *language)
    {
        configure(language);
        rehighlight();
    }

    void setDark(bool dark)
    {
        colour(dark);
        rehighlight();
    }

private:
    /// Colours that keep to the code box's contrast in either scheme.
    void colour(bool dark)
    {
        const QList<QColor> colours = CodeHighlighter::colours(dark);
        m_keyword.setForeground(colours[0]);
        m_string.setForeground(colours[1]);
        m_number.setForeground(colours[2]);
        m_comment.setForeground(colours[3]);
    }

    void configure(const Language *language)
    {
        m_blockComments = language && language->blockComments;
        m_keywords = language && !language->keywords.isEmpty()
                         ? QRegularExpression(QStringLiteral("\\b(?:") + language->keywords + QStringLiteral(")\\b"))
                         : QRegularExpression();
        // Strings and comments in one pass, so that quotes in comments and comment marks in
        // strings are taken for what they are.
        QStringList parts{QStringLiteral("\"(?:[^\"\\\\]|\\\\.)*\"?"), QStringLiteral("'(?:[^'\\\\]|\\\\.)*'?")};
        if (language && language->backtickStrings)
            parts << QStringLiteral("`(?:[^`\\\\]|\\\\.)*`?");
        if (language && !language->lineComment.isEmpty())
            parts << QRegularExpression::escape(language->lineComment) + QStringLiteral(".*$");
        if (m_blockComments)
            parts << QStringLiteral("/\\*");
        m_lineComment = language ? language->lineComment : QString();
        m_stringsAndComments = QRegularExpression(parts.join(QLatin1Char('|')));
    }

protected:
    void highlightBlock(const QString &text) override
    {
        static const QRegularExpression numbers(QStringLiteral("\\b\\d+(?:\\.\\d+)?\\b"));
        if (m_keywords.isValid() && !m_keywords.pattern().isEmpty())
            apply(text, m_keywords, m_keyword);
        apply(text, numbers, m_number);

        int from = 0;
        setCurrentBlockState(0);
        if (previousBlockState() == 1) {
            from = closeComment(text, 0, true);
            if (from < 0)
                return;
        }
        QRegularExpressionMatchIterator it = m_stringsAndComments.globalMatch(text, from);
        while (it.hasNext()) {
            const QRegularExpressionMatch match = it.next();
            const QString found = match.captured();
            if (m_blockComments && found == QStringLiteral("/*")) {
                from = closeComment(text, int(match.capturedStart()), false);
                if (from < 0)
                    return;
                it = m_stringsAndComments.globalMatch(text, from);
            } else {
                const bool comment = !m_lineComment.isEmpty() && found.startsWith(m_lineComment);
                setFormat(int(match.capturedStart()), int(match.capturedLength()), comment ? m_comment : m_string);
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

    /// Colours a block comment from `start` (carried over from the line before when
    /// `continued`); answers where it ends, or -1 when it goes on.
    int closeComment(const QString &text, int start, bool continued)
    {
        const int end = int(text.indexOf(QStringLiteral("*/"), continued ? 0 : start + 2));
        if (end < 0) {
            setFormat(start, int(text.size()) - start, m_comment);
            setCurrentBlockState(1);
            return -1;
        }
        setFormat(start, end + 2 - start, m_comment);
        return end + 2;
    }

    QRegularExpression m_keywords;
    QRegularExpression m_stringsAndComments;
    QString m_lineComment;
    bool m_blockComments = false;
    QTextCharFormat m_keyword;
    QTextCharFormat m_string;
    QTextCharFormat m_number;
    QTextCharFormat m_comment;
};

} // namespace

void CodeHighlighter::attach(QQuickTextDocument *document, const QString &language)
{
    if (!document || !document->textDocument())
        return;
    QTextDocument *text = document->textDocument();
    // One highlighter per document, owned by it; a fence whose language word was still being
    // written when the box appeared gets its language now.
    if (auto *existing = text->findChild<Highlighter *>()) {
        existing->setLanguage(find(language));
        return;
    }
    auto *highlighter = new Highlighter(text, find(language), m_dark);
    connect(this, &CodeHighlighter::darkChanged, highlighter, [this, highlighter] { highlighter->setDark(m_dark); });
}

void CodeHighlighter::setDark(bool dark)
{
    if (dark == m_dark)
        return;
    m_dark = dark;
    Q_EMIT darkChanged();
}

QList<QColor> CodeHighlighter::colours(bool dark)
{
    if (dark)
        return {QColor(0xc7, 0x92, 0xea), QColor(0x95, 0xd5, 0x8f), QColor(0x82, 0xaa, 0xff), QColor(0xa0, 0xa0, 0xa0)};
    return {QColor(0x8b, 0x2f, 0xc9), QColor(0x16, 0x70, 0x30), QColor(0x0b, 0x5c, 0xad), QColor(0x66, 0x66, 0x66)};
}

bool CodeHighlighter::knows(const QString &language)
{
    return find(language) != nullptr;
}
