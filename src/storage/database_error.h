#pragma once

#include "platform/error.h"

struct sqlite3;

/// A failure reported by SQLite: its result code and its own message, which is what the
/// user sees.
class DatabaseError : public CorvaneError
{
public:
    DatabaseError(int code, QString message)
        : CorvaneError(std::move(message))
        , m_code(code)
    {
    }

    /// The connection's latest error (`sqlite3_errcode`, `sqlite3_errmsg`). Call it before
    /// anything else touches the connection, or the error is overwritten.
    static DatabaseError fromConnection(sqlite3 *connection);

    /// The file was written by a later version of Corvane, whose layout this one could misread
    /// or undo; it is left untouched.
    static DatabaseError newerFile();

    /// The error domain shared by every SQLite failure.
    static QString domain() { return QStringLiteral("Corvane.SQLite"); }

    /// SQLite's primary result code, for example 14 (SQLITE_CANTOPEN).
    int code() const noexcept { return m_code; }

private:
    int m_code;
};
