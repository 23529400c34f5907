// Message search over the full-text index, and chat title search.
#include "storage/database.h"

#include <sqlite3.h>

#include "storage/statement.h"

QList<SearchHit> Database::search(const QString &term)
{
    // The whole term is one FTS5 phrase: no operators, column filters or prefixes are
    // interpreted, so no user text can make the query malformed.
    QString phrase = term;
    phrase.replace(QLatin1Char('"'), QStringLiteral("\"\""));
    phrase = QLatin1Char('"') + phrase + QLatin1Char('"');

    QList<SearchHit> messageHits;
    {
        Statement query(handle(), QStringLiteral(
            "SELECT m.id, m.chat_id, c.title, snippet(message_search, -1, char(2), char(3), '…', 12)\n"
            "FROM message_search JOIN messages m ON m.id=message_search.rowid\n"
            "JOIN chats c ON c.id=m.chat_id\n"
            "WHERE message_search MATCH ? ORDER BY rank LIMIT 100"));
        query.bind({DBValue::text(phrase)});
        while (query.next())
            messageHits.append({query.integer(0), query.integer(1), query.text(2), query.text(3)});
    }

    // "%" and "_" typed by the user act as LIKE wildcards; that is accepted.
    QList<SearchHit> hits;
    Statement titles(handle(), QStringLiteral("SELECT id, title FROM chats WHERE sealed=0 AND title LIKE ? LIMIT 30"));
    titles.bind({DBValue::text(QLatin1Char('%') + term + QLatin1Char('%'))});
    while (titles.next()) {
        const qint64 chatID = titles.integer(0);
        hits.append({-chatID, chatID, titles.text(1), QStringLiteral("Chat title")});
    }
    hits.append(messageHits);
    return hits;
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
