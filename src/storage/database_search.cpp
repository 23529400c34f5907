// Message search: plain chats through the full-text index, sealed chats in memory, and chat
// titles.
#include "storage/database.h"

#include "storage/database_error.h"
#include "storage/search_text.h"
#include "storage/statement.h"

#include <QHash>
#include <QStringList>

#include <sqlite3.h>

#include <algorithm>

namespace {

constexpr int s_messageLimit = 100;
/// Ranking looks at every match, which for a common word is most of the index. Only the newest
/// this many matches are ranked: with more than that, what is recent counts first.
constexpr int s_rankedMatches = 2000;

const QString s_titleSnippet = QStringLiteral("Chat title");

/// " AND <column> IN (…)" for a folder scope, empty for none. Ids are numbers, so they can be
/// written into the statement.
QString folderCondition(const QString &column, const std::optional<QSet<qint64>> &folderIDs)
{
    if (!folderIDs)
        return QString();
    QStringList ids;
    for (qint64 id : *folderIDs)
        ids.append(QString::number(id));
    return QStringLiteral(" AND ") + column + QStringLiteral(" IN (") + ids.join(QLatin1Char(',')) + QLatin1Char(')');
}

} // namespace

QList<SearchHit> Database::search(const QString &term, const SearchScope &scope)
{
    m_interrupted = false;
    QList<SearchHit> messageHits = searchIndex(term, scope.folderIDs);

    // "%" and "_" typed by the user act as LIKE wildcards; that is accepted.
    QList<SearchHit> hits;
    {
        Statement titles(handle(), QStringLiteral("SELECT id, title FROM chats WHERE sealed=0 AND title LIKE ?")
                                       + folderCondition(QStringLiteral("node_id"), scope.folderIDs)
                                       + QStringLiteral(" LIMIT 30"));
        titles.bind({DBValue::text(QLatin1Char('%') + term + QLatin1Char('%'))});
        while (titles.next()) {
            const qint64 chatID = titles.integer(0);
            hits.append({-chatID, chatID, titles.text(1), s_titleSnippet});
        }
    }
    if (hasVaultKey()) {
        auto [sealedTitles, sealedMessages] = searchSealed(term, scope);
        hits.append(sealedTitles);
        messageHits.append(sealedMessages);
    }
    hits.append(messageHits);
    return hits;
}

QList<SearchHit> Database::searchIndex(const QString &term, const std::optional<QSet<qint64>> &folderIDs)
{
    // FTS5 reads every match of every word that a prefix begins before it returns the first,
    // which for the start of a common word is much of the index. A last word that is common
    // as it stands ("the", "water") is therefore matched only as it stands.
    bool prefix = SearchText::matchesAsPrefix(term);
    if (prefix) {
        Statement common(handle(), QStringLiteral(
            "SELECT rowid FROM message_search WHERE message_search MATCH ? ORDER BY rowid DESC LIMIT 1 OFFSET ?"));
        common.bind({DBValue::text(SearchText::indexQuery(SearchText::lastWord(term), false)),
                     DBValue::integer(s_rankedMatches - 1)});
        prefix = !common.next();
    }

    // The newest matches, at most s_rankedMatches of them: in rowid order FTS5 reads no more
    // of the index than that. Each is ranked as it comes (search_rank.h).
    QString sql = QStringLiteral("SELECT message_search.rowid, match_rank(message_search) FROM message_search\n");
    if (folderIDs)
        sql += QStringLiteral("JOIN messages m ON m.id=message_search.rowid JOIN chats c ON c.id=m.chat_id\n");
    sql += QStringLiteral("WHERE message_search MATCH ?") + folderCondition(QStringLiteral("c.node_id"), folderIDs)
           + QStringLiteral(" ORDER BY message_search.rowid DESC LIMIT ?");
    QList<std::pair<double, qint64>> ranked;
    {
        Statement matches(handle(), sql);
        matches.bind({DBValue::text(SearchText::indexQuery(term, prefix)), DBValue::integer(s_rankedMatches)});
        while (matches.next())
            ranked.append({matches.real(1), matches.integer(0)});
    }
    // Best first; among equals, newest first.
    std::ranges::stable_sort(ranked, {}, &std::pair<double, qint64>::first);
    ranked.resize(std::min<qsizetype>(ranked.size(), s_messageLimit));
    if (ranked.isEmpty())
        return {};

    // The hundred best, read from their rows; their snippets are cut here as for sealed chats.
    QStringList ids;
    for (const auto &[rank, id] : ranked)
        ids.append(QString::number(id));
    QHash<qint64, SearchHit> found;
    Statement rows(handle(), QStringLiteral(
        "SELECT m.id, m.chat_id, c.title, CASE m.display WHEN '' THEN m.body ELSE m.display END, m.image_description\n"
        "FROM messages m JOIN chats c ON c.id=m.chat_id WHERE m.id IN (") + ids.join(QLatin1Char(',')) + QLatin1Char(')'));
    while (rows.next()) {
        const QString shown = rows.text(3);
        // Marked as the index matched it: a common last word only as it stands.
        const auto snippet = SearchText::snippet(shown, term, prefix);
        found.insert(rows.integer(0), {rows.integer(0), rows.integer(1), rows.text(2),
                                       snippet ? *snippet : SearchText::snippet(rows.text(4), term, prefix).value_or(SearchText::opening(shown))});
    }
    QList<SearchHit> hits;
    for (const auto &[rank, id] : ranked) {
        if (const auto hit = found.find(id); hit != found.end())
            hits.append(*hit);
    }
    return hits;
}

std::pair<QList<SearchHit>, QList<SearchHit>> Database::searchSealed(const QString &term, const SearchScope &scope)
{
    const QString foldedTerm = SearchText::folded(term);
    QList<SearchHit> titles;
    QList<SearchHit> messageHits;
    for (const Chat &chat : chats()) {
        if (!chat.isSealed || (scope.sealedChatIDs && !scope.sealedChatIDs->contains(chat.id))
            || (scope.folderIDs && !scope.folderIDs->contains(chat.nodeID)))
            continue;
        if (SearchText::folded(chat.title).contains(foldedTerm))
            titles.append({-chat.id, chat.id, chat.title, s_titleSnippet});
        if (messageHits.size() >= s_messageLimit)
            continue;
        Statement query(handle(), QStringLiteral(
            "SELECT id, body, display, image_description FROM messages WHERE chat_id=? AND hidden=0 ORDER BY id"));
        query.bind({DBValue::integer(chat.id)});
        while (messageHits.size() < s_messageLimit && query.next()) {
            // Decrypting takes longer than SQLite's own steps: a stale search stops here too.
            if (m_interrupted)
                throw DatabaseError(SQLITE_INTERRUPT, QString::fromUtf8(sqlite3_errstr(SQLITE_INTERRUPT)));
            const QString display = revealOrEmpty(query.text(2), true);
            auto found = SearchText::snippet(display.isEmpty() ? revealOrEmpty(query.text(1), true) : display, term);
            if (!found)
                found = SearchText::snippet(revealOrEmpty(query.text(3), true), term);
            if (found)
                messageHits.append({query.integer(0), chat.id, chat.title, *found});
        }
    }
    return {titles, messageHits};
}

void Database::interrupt()
{
    m_interrupted = true;
    sqlite3_interrupt(handle());
}

bool Database::mergeSearchIndex(int pages)
{
    const int before = sqlite3_total_changes(handle());
    // A negative page count also merges segments of different levels, toward one segment.
    execute(QStringLiteral("INSERT INTO message_search(message_search, rank) VALUES('merge', ?)"),
            {DBValue::integer(-pages)});
    // FTS5 reports finished merging as fewer than two changed rows.
    return sqlite3_total_changes(handle()) - before >= 2;
}
