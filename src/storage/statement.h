#pragma once

#include "storage/records.h"

#include <QList>
#include <QString>

struct sqlite3;
struct sqlite3_stmt;

/// One prepared statement of a connection, finalized when it goes out of scope, so that no
/// error path leaks it. Every failure throws DatabaseError with the connection's code and
/// message.
class Statement
{
public:
    /// Prepares the first statement of `sql`.
    Statement(sqlite3 *connection, const QString &sql);
    ~Statement();

    Statement(const Statement &) = delete;
    Statement &operator=(const Statement &) = delete;

    /// Binds `values` to the parameters 1, 2, 3 ... in order. Texts are copied by SQLite.
    void bind(const QList<DBValue> &values);

    /// Steps once: true when a row is ready, false when the statement is done; any other
    /// result throws.
    bool next();

    qint64 integer(int column) const;
    double real(int column) const;
    bool flag(int column) const { return integer(column) != 0; }
    /// The column as text; SQL NULL reads as the empty string.
    QString text(int column) const;
    bool isNull(int column) const;

private:
    sqlite3 *m_connection;
    sqlite3_stmt *m_statement = nullptr;
};
