#pragma once

#include <QString>

#include <optional>

/// How a search term is matched, in the full-text index and in texts held in memory (sealed
/// chats, which the index never sees). Both follow the same rules, so that a chat is found the
/// same way whether its folder is locked or not:
/// - the term is one phrase: its words must follow each other in this order;
/// - words are runs of letters and digits, compared without case and diacritics;
/// - while the user is still typing the last word (the term ends in a letter or digit) and it
///   has at least `prefixLength` characters, that word matches every word it begins, so
///   "compac" finds "compaction".
namespace SearchText {

/// The start and end markers of a matched word inside a snippet.
inline constexpr QChar matchStart = QChar(0x0002);
inline constexpr QChar matchEnd = QChar(0x0003);
/// The most words a snippet shows.
inline constexpr int snippetWords = 12;
/// The shortest last word matched as a prefix: shorter ones begin too many words to help.
inline constexpr int prefixLength = 3;

/// The FTS5 query for `term`: one quoted phrase, every double quote doubled, so that no user
/// text can form an operator, a column filter or a malformed query; its last word marked as a
/// prefix when `prefix` is set.
QString indexQuery(const QString &term, bool prefix);

/// Whether the last word of `term` is being typed and is long enough to match as a prefix.
bool matchesAsPrefix(const QString &term);

/// The last word of `term`, empty when it ends in no word.
QString lastWord(const QString &term);

/// `text` without case and diacritics, for comparing titles.
QString folded(const QString &text);

/// Up to `snippetWords` words of `text` around the first match of `term`, the matched words
/// between the markers and "…" where text was cut; absent when `term` does not occur. The last
/// word matches as a prefix when `prefix` is set (by default, as `matchesAsPrefix` says).
std::optional<QString> snippet(const QString &text, const QString &term, std::optional<bool> prefix = std::nullopt);

/// The first `snippetWords` words of `text`, with "…" when there are more: what a hit shows
/// when the index matched words that this matcher reads differently.
QString opening(const QString &text);

} // namespace SearchText
