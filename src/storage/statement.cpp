#include "storage/statement.h"

#include "storage/database_error.h"

#include <sqlite3.h>

Statement::Statement(sqlite3 *connection, const QString &sql)
    : m_connection(connection)
{
    const QByteArray utf8 = sql.toUtf8();
    if (sqlite3_prepare_v2(connection, utf8.constData(), -1, &m_statement, nullptr) != SQLITE_OK)
        throw DatabaseError::fromConnection(connection);
}

Statement::~Statement()
{
    sqlite3_finalize(m_statement);
}

void Statement::bind(const QList<DBValue> &values)
{
    // Bind results are not checked: a wrong parameter count shows up as a failing step.
    for (int i = 0; i < values.size(); ++i) {
        const DBValue &value = values.at(i);
        switch (value.kind()) {
        case DBValue::Kind::Int:
            sqlite3_bind_int64(m_statement, i + 1, value.intValue());
            break;
        case DBValue::Kind::Text: {
            const QByteArray utf8 = value.textValue().toUtf8();
            // The byte length keeps a text with an embedded NUL whole.
            sqlite3_bind_text(m_statement, i + 1, utf8.constData(), int(utf8.size()), SQLITE_TRANSIENT);
            break;
        }
        case DBValue::Kind::Null:
            sqlite3_bind_null(m_statement, i + 1);
            break;
        }
    }
}

bool Statement::next()
{
    if (!m_statement) // the text held only white space or comments: nothing to run
        return false;
    switch (sqlite3_step(m_statement)) {
    case SQLITE_ROW:
        return true;
    case SQLITE_DONE:
        return false;
    default:
        throw DatabaseError::fromConnection(m_connection);
    }
}

double Statement::real(int column) const
{
    return sqlite3_column_double(m_statement, column);
}

qint64 Statement::integer(int column) const
{
    return sqlite3_column_int64(m_statement, column);
}

QString Statement::text(int column) const
{
    const auto *data = reinterpret_cast<const char *>(sqlite3_column_text(m_statement, column));
    return QString::fromUtf8(data, sqlite3_column_bytes(m_statement, column));
}

bool Statement::isNull(int column) const
{
    return sqlite3_column_type(m_statement, column) == SQLITE_NULL;
}
