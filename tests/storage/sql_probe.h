#pragma once

// Looks beneath Database with SQLite's own API, so that tests check what is really stored.
#include "support/database_rows.h"
#include "storage/database.h"

#include <QStringList>
#include <QTemporaryDir>

#include <memory>

#include <sqlite3.h>

namespace SqlProbe {

/// Every row of `sql`, its columns joined by "|"; NULL reads "NULL", blobs as hex.
inline QStringList rows(sqlite3 *db, const QString &sql)
{
    QStringList result;
    sqlite3_stmt *statement = nullptr;
    if (sqlite3_prepare_v2(db, sql.toUtf8().constData(), -1, &statement, nullptr) != SQLITE_OK)
        return {QStringLiteral("error: ") + QString::fromUtf8(sqlite3_errmsg(db))};
    while (sqlite3_step(statement) == SQLITE_ROW) {
        QStringList columns;
        for (int i = 0; i < sqlite3_column_count(statement); ++i) {
            const QByteArray bytes(static_cast<const char *>(sqlite3_column_blob(statement, i)),
                                   sqlite3_column_bytes(statement, i));
            const int type = sqlite3_column_type(statement, i);
            columns << (type == SQLITE_NULL ? QStringLiteral("NULL")
                        : type == SQLITE_BLOB ? QString::fromLatin1(bytes.toHex())
                                              : QString::fromUtf8(bytes));
        }
        result << columns.join(QLatin1Char('|'));
    }
    sqlite3_finalize(statement);
    return result;
}

/// A new database file for each test function, all in one temporary folder.
class FreshDatabase
{
public:
    /// Closes the file before and opens the next one.
    Database &open()
    {
        m_db.reset();
        m_path = m_dir.filePath(QStringLiteral("chats-%1.sqlite").arg(++m_count));
        m_db = std::make_unique<Database>(m_path);
        return *m_db;
    }
    void close() { m_db.reset(); }
    const QString &path() const { return m_path; }

private:
    QTemporaryDir m_dir;
    std::unique_ptr<Database> m_db;
    QString m_path;
    int m_count = 0;
};

/// Every schema entry and every row of every table, the search index's own tables included.
inline QStringList dump(sqlite3 *db)
{
    QStringList result = rows(db, QStringLiteral("SELECT type, name, sql FROM sqlite_master ORDER BY name"));
    for (const QString &table : rows(db, QStringLiteral("SELECT name FROM sqlite_master WHERE type='table' ORDER BY name")))
        result << QStringLiteral("== ") + table << rows(db, QStringLiteral("SELECT * FROM \"%1\"").arg(table));
    return result;
}

/// Records the text of every statement a connection runs while it lives (not those that
/// triggers run).
class StatementLog
{
public:
    explicit StatementLog(sqlite3 *db) : m_db(db) { sqlite3_trace_v2(db, SQLITE_TRACE_STMT, &record, this); }
    ~StatementLog() { sqlite3_trace_v2(m_db, 0, nullptr, nullptr); }
    StatementLog(const StatementLog &) = delete;
    StatementLog &operator=(const StatementLog &) = delete;

    const QStringList &statements() const { return m_statements; }

private:
    static int record(unsigned, void *context, void *, void *text)
    {
        const QString sql = QString::fromUtf8(static_cast<const char *>(text));
        if (!sql.startsWith(QStringLiteral("--")))
            static_cast<StatementLog *>(context)->m_statements << sql;
        return 0;
    }

    sqlite3 *m_db;
    QStringList m_statements;
};

} // namespace SqlProbe
