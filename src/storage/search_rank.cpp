#include "storage/search_rank.h"

#include "storage/database_error.h"

#include <sqlite3.h>

namespace {

fts5_api *fts5Api(sqlite3 *connection)
{
    fts5_api *api = nullptr;
    sqlite3_stmt *statement = nullptr;
    // The first statement on a connection reads the file: a file that is no database fails here.
    if (sqlite3_prepare_v2(connection, "SELECT fts5(?1)", -1, &statement, nullptr) != SQLITE_OK)
        throw DatabaseError::fromConnection(connection);
    sqlite3_bind_pointer(statement, 1, static_cast<void *>(&api), "fts5_api_ptr", nullptr);
    sqlite3_step(statement);
    sqlite3_finalize(statement);
    return api;
}

/// The index's average row length, worked out once per query.
double averageLength(const Fts5ExtensionApi *api, Fts5Context *context)
{
    if (auto *cached = static_cast<double *>(api->xGetAuxdata(context, 0)))
        return *cached;
    sqlite3_int64 rows = 0;
    sqlite3_int64 tokens = 0;
    api->xRowCount(context, &rows);
    api->xColumnTotalSize(context, -1, &tokens);
    auto *average = static_cast<double *>(sqlite3_malloc(sizeof(double)));
    if (!average)
        return 1;
    *average = rows > 0 && tokens > 0 ? double(tokens) / double(rows) : 1;
    if (api->xSetAuxdata(context, average, sqlite3_free) != SQLITE_OK)
        return 1;
    return *average;
}

void matchRank(const Fts5ExtensionApi *api, Fts5Context *context, sqlite3_context *result, int, sqlite3_value **)
{
    constexpr double k1 = 1.2;
    constexpr double b = 0.75;
    int length = 0;
    int occurrences = 0;
    if (api->xColumnSize(context, -1, &length) != SQLITE_OK || api->xInstCount(context, &occurrences) != SQLITE_OK) {
        sqlite3_result_error(result, "match_rank could not read the row", -1);
        return;
    }
    const double f = occurrences;
    const double score = f * (k1 + 1) / (f + k1 * (1 - b + b * double(length) / averageLength(api, context)));
    sqlite3_result_double(result, -score);
}

} // namespace

void registerMatchRank(sqlite3 *connection)
{
    fts5_api *api = fts5Api(connection);
    if (!api)
        throw DatabaseError(SQLITE_ERROR, QStringLiteral("The full-text search module is missing"));
    if (const int code = api->xCreateFunction(api, "match_rank", nullptr, &matchRank, nullptr); code != SQLITE_OK)
        throw DatabaseError(code, QString::fromUtf8(sqlite3_errstr(code)));
}
