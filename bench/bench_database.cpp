// How the database behaves at a size that a long-time user reaches: 1,000,000 messages in
// 5,000 chats in 100 folders. Measures opening, loading the largest chat, and deleting a chat
// and a folder of 100 chats, with and without the indexes on the foreign-key columns.
//
// Usage: bench_database [data directory]   (default: bench-data beside the program)
// The two database files are generated once and kept there; later runs reuse them.
#include "bench_support.h"
#include "storage/database.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>

#include <sqlite3.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <functional>
#include <random>
#include <stdexcept>

namespace {

constexpr int messageCount = 1'000'000;
constexpr int chatCount = 5'000;
constexpr int folderCount = 100; // the "Inbox" that Database makes, and 99 more
constexpr qint64 bigChat = 1; // exactly 2,000 messages
constexpr int bigChatMessages = 2'000;
constexpr qint64 typicalChat = 2; // about 200 messages, the average
constexpr qint64 bigFolder = 100; // holds exactly 100 chats
constexpr int bigFolderChats = 100;

void check(sqlite3 *db, int result)
{
    if (result != SQLITE_OK && result != SQLITE_DONE && result != SQLITE_ROW)
        throw std::runtime_error(sqlite3_errmsg(db));
}

std::string makeWord(std::mt19937_64 &random)
{
    static const char *const syllables[] = {"ka", "lo", "mi", "ne", "ra", "to", "su", "vi", "den",
                                            "mar", "sol", "tri", "ven", "qua", "ber", "lin"};
    std::string word;
    const int length = 1 + int(random() % 4);
    for (int i = 0; i < length; ++i)
        word += syllables[random() % std::size(syllables)];
    return word;
}

// Builds the file with SQLite directly, in one transaction, far faster than going through
// Database one message at a time. The schema and triggers come from Database itself.
void generate(const QString &path)
{
    { Database schema(path, Database::Options{.foreignKeyIndexes = false, .readOnly = false}); }

    sqlite3 *db = nullptr;
    check(db, sqlite3_open(path.toUtf8().constData(), &db));
    const auto exec = [db](const char *sql) { check(db, sqlite3_exec(db, sql, nullptr, nullptr, nullptr)); };
    exec("PRAGMA cache_size = -262144");
    exec("BEGIN");

    sqlite3_stmt *statement = nullptr;
    check(db, sqlite3_prepare_v2(db, "INSERT INTO nodes(id, parent_id, kind, name) VALUES(?, ?, 'folder', ?)", -1, &statement, nullptr));
    for (int id = 2; id <= folderCount; ++id) {
        sqlite3_bind_int64(statement, 1, id);
        // Folders 81 to 99 sit inside folders 2 to 20, so that deletes also cascade down.
        if (id >= 81 && id < folderCount)
            sqlite3_bind_int64(statement, 2, id - 79);
        else
            sqlite3_bind_null(statement, 2);
        const QByteArray name = "Folder " + QByteArray::number(id);
        sqlite3_bind_text(statement, 3, name.constData(), -1, SQLITE_TRANSIENT);
        check(db, sqlite3_step(statement));
        sqlite3_reset(statement);
    }
    sqlite3_finalize(statement);

    check(db, sqlite3_prepare_v2(db, "INSERT INTO chats(id, node_id, title) VALUES(?, ?, ?)", -1, &statement, nullptr));
    for (int id = 1; id <= chatCount; ++id) {
        const int folder = id > chatCount - bigFolderChats ? int(bigFolder) : 1 + (id - 1) % (folderCount - 1);
        sqlite3_bind_int64(statement, 1, id);
        sqlite3_bind_int64(statement, 2, folder);
        const QByteArray title = "Chat " + QByteArray::number(id);
        sqlite3_bind_text(statement, 3, title.constData(), -1, SQLITE_TRANSIENT);
        check(db, sqlite3_step(statement));
        sqlite3_reset(statement);
    }
    sqlite3_finalize(statement);

    // Which chat each message belongs to, shuffled: a user's chats grow side by side, so a
    // chat's messages are spread over the whole table.
    std::vector<int> owners;
    owners.reserve(messageCount);
    owners.insert(owners.end(), bigChatMessages, int(bigChat));
    const int rest = messageCount - bigChatMessages;
    for (int i = 0; i < rest; ++i)
        owners.push_back(2 + i % (chatCount - 1));
    std::mt19937_64 random(20261115);
    std::shuffle(owners.begin(), owners.end(), random);

    std::vector<std::string> words;
    for (int i = 0; i < 3000; ++i)
        words.push_back(makeWord(random));

    check(db, sqlite3_prepare_v2(db, "INSERT INTO messages(chat_id, role, body, created_at) VALUES(?, ?, ?, ?)", -1, &statement, nullptr));
    std::string body;
    char createdAt[32];
    const std::time_t start = 1'700'000'000;
    for (int i = 0; i < messageCount; ++i) {
        body.clear();
        const int length = 5 + int(random() % 36);
        for (int w = 0; w < length; ++w) {
            if (w)
                body += ' ';
            body += words[random() % words.size()];
        }
        const std::time_t when = start + std::time_t(i) * 30;
        std::tm utc{};
        gmtime_r(&when, &utc);
        std::strftime(createdAt, sizeof createdAt, "%Y-%m-%dT%H:%M:%SZ", &utc);
        sqlite3_bind_int64(statement, 1, owners[i]);
        sqlite3_bind_text(statement, 2, i % 2 ? "assistant" : "user", -1, SQLITE_STATIC);
        sqlite3_bind_text(statement, 3, body.c_str(), int(body.size()), SQLITE_STATIC);
        sqlite3_bind_text(statement, 4, createdAt, -1, SQLITE_STATIC);
        check(db, sqlite3_step(statement));
        sqlite3_reset(statement);
    }
    sqlite3_finalize(statement);
    exec("COMMIT");
    sqlite3_close(db);
}

double elapsedMs(const std::function<void()> &work)
{
    QElapsedTimer timer;
    timer.start();
    work();
    return double(timer.nsecsElapsed()) / 1e6;
}

struct Variant
{
    QString path;
    Database::Options options;
};

struct Figures
{
    double open = 0;
    double loadChat = 0;
    double deleteChat = 0;
    double deleteFolder = 0;
    double deleteFolderWithoutIndexSecureDelete = 0;
};

Figures measure(const Variant &variant, const QString &scratch)
{
    Figures figures;
    QList<double> runs;
    for (int i = 0; i < 5; ++i) {
        std::unique_ptr<Database> db;
        runs << elapsedMs([&] { db = std::make_unique<Database>(variant.path, variant.options); });
    }
    figures.open = median(runs);

    runs.clear();
    {
        Database db(variant.path, variant.options);
        for (int i = 0; i < 9; ++i) {
            runs << elapsedMs([&] {
                if (db.messages(bigChat).size() != bigChatMessages)
                    throw std::runtime_error("wrong number of messages");
            });
        }
    }
    figures.loadChat = median(runs);

    // Deleting changes the file, so every run starts from a fresh copy. A folder delete takes
    // tens of seconds at this size, so it runs once; the second copy measures it again with
    // the full-text index's secure delete turned off, to show where the time goes.
    QList<double> chatRuns;
    for (int i = 0; i < 3; ++i) {
        QFile::remove(scratch);
        if (!QFile::copy(variant.path, scratch))
            throw std::runtime_error("could not copy the database");
        Database db(scratch, variant.options);
        chatRuns << elapsedMs([&] { db.execute("DELETE FROM chats WHERE id=?", {DBValue::integer(typicalChat)}); });
        if (i == 1)
            db.execute("INSERT INTO message_search(message_search, rank) VALUES('secure-delete', 0)");
        const auto deleteFolder = [&] { db.execute("DELETE FROM nodes WHERE id=?", {DBValue::integer(bigFolder)}); };
        if (i == 0)
            figures.deleteFolder = elapsedMs(deleteFolder);
        else if (i == 1)
            figures.deleteFolderWithoutIndexSecureDelete = elapsedMs(deleteFolder);
    }
    QFile::remove(scratch);
    figures.deleteChat = median(chatRuns);
    return figures;
}

void printRow(const char *operation, double without, double with)
{
    std::printf("| %s | %.1f | %.1f | %.0f× |\n", operation, without, with, without / with);
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const QString dataDir = argc > 1 ? QString::fromLocal8Bit(argv[1])
                                     : QCoreApplication::applicationDirPath() + "/bench-data";
    QDir().mkpath(dataDir);
    const QString plain = dataDir + "/messages-1m-no-fk-indexes.sqlite";
    const QString indexed = dataDir + "/messages-1m-fk-indexes.sqlite";

    try {
        if (!QFile::exists(plain) || !QFile::exists(indexed)) {
            QFile::remove(plain);
            QFile::remove(indexed);
            // Written under a temporary name, so that an interrupted run is not reused.
            const QString partial = plain + ".partial";
            QFile::remove(partial);
            std::printf("Generating %d messages in %d chats in %d folders...\n", messageCount, chatCount, folderCount);
            std::fflush(stdout);
            const double generation = elapsedMs([&] { generate(partial); });
            std::printf("Generated in %.1f s (%.0f MB)\n", generation / 1000, QFileInfo(partial).size() / 1e6);
            if (!QFile::copy(partial, indexed + ".partial"))
                throw std::runtime_error("could not copy the database");
            const double firstOpen = elapsedMs([&] { Database db(indexed + ".partial"); });
            std::printf("First open of a file without the foreign-key indexes, which builds them: %.0f ms\n", firstOpen);
            QFile::rename(partial, plain);
            QFile::rename(indexed + ".partial", indexed);
        } else {
            std::printf("Reusing the databases in %s\n", qPrintable(dataDir));
        }
        std::fflush(stdout);

        const QString scratch = dataDir + "/scratch.sqlite";
        const Figures without = measure({plain, Database::Options{.foreignKeyIndexes = false, .readOnly = false}}, scratch);
        const Figures with = measure({indexed, Database::Options()}, scratch);

        std::printf("\n| Operation (median, ms) | without foreign-key indexes | with | speed-up |\n");
        std::printf("|---|---:|---:|---:|\n");
        printRow("open the database (5 runs)", without.open, with.open);
        printRow("load the 2,000-message chat (9 runs)", without.loadChat, with.loadChat);
        printRow("delete a chat of ~200 messages (3 runs)", without.deleteChat, with.deleteChat);
        printRow("delete a folder of 100 chats, ~20,000 messages (1 run)", without.deleteFolder, with.deleteFolder);
        printRow("the same with FTS5 'secure-delete' off, for comparison only (1 run)",
                 without.deleteFolderWithoutIndexSecureDelete, with.deleteFolderWithoutIndexSecureDelete);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "bench_database: %s\n", error.what());
        return 1;
    }
    return 0;
}
