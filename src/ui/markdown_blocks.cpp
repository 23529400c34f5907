#include "markdown_blocks.h"

#include <QRegularExpression>

namespace {

/// An opening fence: up to three spaces, three or more backticks or tildes, an optional info
/// string whose first word is the language.
const QRegularExpression &openingFence()
{
    static const QRegularExpression fence(QStringLiteral("^ {0,3}(`{3,}|~{3,})\\s*([^`\\s]*)[^`]*$"));
    return fence;
}

bool closes(const QString &line, const QString &fence)
{
    const QString trimmed = line.trimmed();
    return !line.startsWith(QStringLiteral("    ")) && trimmed.size() >= fence.size()
           && trimmed == QString(trimmed.size(), fence.front());
}

} // namespace

QList<MarkdownBlocks::Block> MarkdownBlocks::blocks(const QString &markdown)
{
    QList<Block> result;
    QStringList prose;
    const auto endProse = [&] {
        // Blank lines around a code box are the box's margins, not the prose's.
        while (!prose.isEmpty() && prose.last().trimmed().isEmpty())
            prose.removeLast();
        while (!prose.isEmpty() && prose.first().trimmed().isEmpty())
            prose.removeFirst();
        if (!prose.isEmpty())
            result.append({false, prose.join(QLatin1Char('\n')), {}});
        prose.clear();
    };
    const QStringList lines = markdown.split(QLatin1Char('\n'));
    for (qsizetype i = 0; i < lines.size(); ++i) {
        const QRegularExpressionMatch open = openingFence().match(lines[i]);
        if (!open.hasMatch()) {
            prose.append(lines[i]);
            continue;
        }
        endProse();
        const QString fence = open.captured(1);
        QStringList code;
        for (++i; i < lines.size() && !closes(lines[i], fence); ++i)
            code.append(lines[i]);
        result.append({true, code.join(QLatin1Char('\n')), open.captured(2).toLower()});
    }
    endProse();
    return result;
}

QVariantList MarkdownBlocks::split(const QString &markdown) const
{
    QVariantList list;
    for (const Block &block : blocks(markdown))
        list.append(QVariantMap{{QStringLiteral("code"), block.isCode},
                                {QStringLiteral("text"), block.text},
                                {QStringLiteral("language"), block.language}});
    return list;
}
