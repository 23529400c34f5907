#include "storage/search_text.h"

#include <QList>

#include <algorithm>

namespace {

/// The characters FTS5's default tokenizer keeps in words: letters, digits and private-use
/// characters. Everything else separates words.
bool isWordCharacter(QChar c)
{
    return c.isLetterOrNumber() || c.category() == QChar::Other_PrivateUse || c.isHighSurrogate()
           || c.isLowSurrogate();
}

struct Word
{
    qsizetype begin; ///< index of the first character in the text
    qsizetype end; ///< one past the last
    QString key; ///< folded, for comparing
};

QList<Word> words(const QString &text)
{
    QList<Word> result;
    qsizetype i = 0;
    while (i < text.size()) {
        while (i < text.size() && !isWordCharacter(text[i]))
            ++i;
        const qsizetype begin = i;
        while (i < text.size() && isWordCharacter(text[i]))
            ++i;
        if (i > begin)
            result.append({begin, i, SearchText::folded(text.sliced(begin, i - begin))});
    }
    return result;
}

} // namespace

namespace SearchText {

QString lastWord(const QString &term)
{
    qsizetype length = 0;
    while (length < term.size() && isWordCharacter(term[term.size() - 1 - length]))
        ++length;
    return term.right(length);
}

bool matchesAsPrefix(const QString &term)
{
    return lastWord(term).size() >= prefixLength;
}

QString indexQuery(const QString &term, bool prefix)
{
    QString phrase = term;
    phrase.replace(QLatin1Char('"'), QStringLiteral("\"\""));
    phrase = QLatin1Char('"') + phrase + QLatin1Char('"');
    // FTS5 marks the last word of a phrase followed by "*" as a prefix.
    if (prefix)
        phrase += QLatin1Char('*');
    return phrase;
}

QString folded(const QString &text)
{
    // Decomposed, an accented letter is its base letter and combining marks, which are dropped.
    const QString decomposed = text.normalized(QString::NormalizationForm_D);
    QString result;
    result.reserve(decomposed.size());
    for (QChar c : decomposed) {
        if (c.category() != QChar::Mark_NonSpacing)
            result.append(c);
    }
    return result.toCaseFolded();
}

std::optional<QString> snippet(const QString &text, const QString &term, std::optional<bool> asPrefix)
{
    const QList<Word> wanted = words(term);
    if (wanted.isEmpty())
        return std::nullopt;
    const bool prefix = asPrefix.value_or(matchesAsPrefix(term));
    const QList<Word> all = words(text);
    const qsizetype count = wanted.size();
    const auto matchesAt = [&](qsizetype at) {
        for (qsizetype j = 0; j < count; ++j) {
            const QString &key = all[at + j].key;
            const bool last = j == count - 1;
            if (last && prefix ? !key.startsWith(wanted[j].key) : key != wanted[j].key)
                return false;
        }
        return true;
    };
    qsizetype found = -1;
    for (qsizetype at = 0; at + count <= all.size() && found < 0; ++at) {
        if (matchesAt(at))
            found = at;
    }
    if (found < 0)
        return std::nullopt;

    // The match in the middle of the window, the window kept inside the text.
    const qsizetype shown = std::max<qsizetype>(snippetWords, count);
    qsizetype first = std::max<qsizetype>(0, found - (shown - count) / 2);
    first = std::max<qsizetype>(0, std::min(first, all.size() - shown));
    const qsizetype last = std::min(all.size(), first + shown); // one past

    QString result;
    qsizetype position = first == 0 ? 0 : all[first].begin;
    if (first > 0)
        result += QStringLiteral("…");
    for (qsizetype i = first; i < last; ++i) {
        // The matched words are one marked stretch, as FTS5 marks a phrase.
        if (i == found + count)
            result += matchEnd;
        result += text.sliced(position, all[i].begin - position);
        if (i == found)
            result += matchStart;
        result += text.sliced(all[i].begin, all[i].end - all[i].begin);
        position = all[i].end;
    }
    if (last == found + count)
        result += matchEnd;
    if (last == all.size())
        result += text.sliced(position);
    else
        result += QStringLiteral("…");
    return result;
}

QString opening(const QString &text)
{
    const QList<Word> all = words(text);
    if (all.size() <= snippetWords)
        return text;
    return text.first(all[snippetWords - 1].end) + QStringLiteral("…");
}

} // namespace SearchText
