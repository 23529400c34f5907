#include "storage/database_error.h"

#include <sqlite3.h>

DatabaseError DatabaseError::fromConnection(sqlite3 *connection)
{
    return DatabaseError(sqlite3_errcode(connection), QString::fromUtf8(sqlite3_errmsg(connection)));
}
