#include "storage/database_error.h"

#include <sqlite3.h>

DatabaseError DatabaseError::fromConnection(sqlite3 *connection)
{
    return DatabaseError(sqlite3_errcode(connection), QString::fromUtf8(sqlite3_errmsg(connection)));
}

DatabaseError DatabaseError::newerFile()
{
    return DatabaseError(SQLITE_CANTOPEN, QStringLiteral("the chats were saved by a newer version of Corvane; "
                                                         "install that version to open them"));
}
