// Message search at a long-time user's size: 1,000,000 messages whose words follow the
// frequencies of real writing, so that "the" is in most messages and rare words in a handful.
// Measures each query of a fixed set on a reading connection, as the search pane runs it, and
// then types into the search pane of the real window, measuring how long each keystroke takes
// to show its hits and the longest stretch without an event-loop turn.
//
// Usage: bench_search [data directory]   (default: bench-data beside the program)
// The database file is generated once and kept there; later runs reuse it.
#include "bench_support.h"
#include "app/app_model.h"
#include "app/search.h"
#include "qml_types.h"
#include "storage/database.h"

#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QGuiApplication>
#include <QQmlApplicationEngine>
#include <QQmlExtensionPlugin>
#include <QQuickWindow>
#include <QTemporaryDir>
#include <QTimer>

#include <sqlite3.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <random>
#include <stdexcept>

Q_IMPORT_QML_PLUGIN(CorvanePlugin)

namespace {

constexpr int messageCount = 1'000'000;
constexpr int chatCount = 5'000;
constexpr int folderCount = 100;
constexpr int vocabularySize = 50'000;
/// Occurs in exactly one message: the needle of the acceptance check.
constexpr const char *needle = "zephyrine";
constexpr int needleMessage = 123'457;

// The most frequent English words, most frequent first; the rest of the vocabulary is made up.
const char *const commonWords[] = {
    "the", "of", "and", "to", "a", "in", "is", "you", "that", "it", "he", "was", "for", "on", "are",
    "as", "with", "his", "they", "i", "at", "be", "this", "have", "from", "or", "one", "had", "by",
    "word", "but", "not", "what", "all", "were", "we", "when", "your", "can", "said", "there", "use",
    "an", "each", "which", "she", "do", "how", "their", "if", "will", "up", "other", "about", "out",
    "many", "then", "them", "these", "so", "some", "her", "would", "make", "like", "him", "into",
    "time", "has", "look", "two", "more", "write", "go", "see", "number", "no", "way", "could",
    "people", "my", "than", "first", "water", "been", "call", "who", "oil", "its", "now", "find",
    "long", "down", "day", "did", "get", "come", "made", "may", "part", "compaction", "summary"};

void check(sqlite3 *db, int result)
{
    if (result != SQLITE_OK && result != SQLITE_DONE && result != SQLITE_ROW)
        throw std::runtime_error(sqlite3_errmsg(db));
}

QList<std::string> vocabulary()
{
    static const char *const syllables[] = {"ka", "lo", "mi", "ne", "ra", "to", "su", "vi", "den", "mar",
                                            "sol", "tri", "ven", "qua", "ber", "lin", "gor", "pex"};
    std::mt19937_64 random(20261123);
    QList<std::string> words(std::begin(commonWords), std::end(commonWords));
    QSet<QByteArray> seen;
    for (const auto &word : words)
        seen.insert(QByteArray::fromStdString(word));
    while (words.size() < vocabularySize) {
        std::string word;
        const int length = 2 + int(random() % 3);
        for (int i = 0; i < length; ++i)
            word += syllables[random() % std::size(syllables)];
        if (!seen.contains(QByteArray::fromStdString(word))) {
            seen.insert(QByteArray::fromStdString(word));
            words.push_back(word);
        }
    }
    return words;
}

// Builds the file with SQLite directly, in one transaction; the schema, triggers and index come
// from Database itself. Word ranks follow Zipf's law (exponent 1), as in real text.
void generate(const QString &path)
{
    { Database schema(path); }
    sqlite3 *db = nullptr;
    check(db, sqlite3_open(path.toUtf8().constData(), &db));
    const auto exec = [db](const char *sql) { check(db, sqlite3_exec(db, sql, nullptr, nullptr, nullptr)); };
    exec("PRAGMA cache_size = -524288");
    exec("BEGIN");
    const QList<std::string> words = vocabulary();
    std::vector<double> cumulative(words.size());
    double sum = 0;
    for (qsizetype rank = 0; rank < words.size(); ++rank)
        cumulative[rank] = sum += 1.0 / double(rank + 1);
    std::mt19937_64 random(20261124);
    std::uniform_real_distribution<double> uniform(0, sum);
    const auto word = [&]() -> const std::string & {
        const auto at = std::ranges::lower_bound(cumulative, uniform(random));
        return words[std::min<qsizetype>(at - cumulative.begin(), words.size() - 1)];
    };

    sqlite3_stmt *statement = nullptr;
    check(db, sqlite3_prepare_v2(db, "INSERT INTO nodes(id, parent_id, kind, name) VALUES(?, NULL, 'folder', ?)", -1, &statement, nullptr));
    for (int id = 2; id <= folderCount; ++id) {
        sqlite3_bind_int64(statement, 1, id);
        const QByteArray name = "Folder " + QByteArray::number(id);
        sqlite3_bind_text(statement, 2, name.constData(), -1, SQLITE_TRANSIENT);
        check(db, sqlite3_step(statement));
        sqlite3_reset(statement);
    }
    sqlite3_finalize(statement);

    check(db, sqlite3_prepare_v2(db, "INSERT INTO chats(id, node_id, title) VALUES(?, ?, ?)", -1, &statement, nullptr));
    for (int id = 1; id <= chatCount; ++id) {
        sqlite3_bind_int64(statement, 1, id);
        sqlite3_bind_int64(statement, 2, 1 + (id - 1) % folderCount);
        const std::string title = word() + ' ' + word() + ' ' + word();
        sqlite3_bind_text(statement, 3, title.c_str(), -1, SQLITE_TRANSIENT);
        check(db, sqlite3_step(statement));
        sqlite3_reset(statement);
    }
    sqlite3_finalize(statement);

    check(db, sqlite3_prepare_v2(db, "INSERT INTO messages(chat_id, role, body, created_at) VALUES(?, ?, ?, '2026-01-01T00:00:00Z')", -1, &statement, nullptr));
    std::string body;
    for (int i = 0; i < messageCount; ++i) {
        body.clear();
        const int length = 5 + int(random() % 36);
        for (int w = 0; w < length; ++w) {
            if (w)
                body += ' ';
            body += i == needleMessage && w == length / 2 ? std::string(needle) : word();
        }
        sqlite3_bind_int64(statement, 1, 1 + int(random() % chatCount));
        sqlite3_bind_text(statement, 2, i % 2 ? "assistant" : "user", -1, SQLITE_STATIC);
        sqlite3_bind_text(statement, 3, body.c_str(), int(body.size()), SQLITE_STATIC);
        check(db, sqlite3_step(statement));
        sqlite3_reset(statement);
    }
    sqlite3_finalize(statement);
    exec("COMMIT");
    sqlite3_close(db);
}

double percentile(QList<double> values, double p)
{
    std::ranges::sort(values);
    return values.isEmpty() ? -1 : values[qsizetype(std::ceil(p * double(values.size())) - 1)];
}

struct Query
{
    const char *kind;
    QString term;
};

/// Runs every query `rounds` times on a reading connection and prints a table.
void measureQueries(const QString &path, const QList<Query> &queries, int rounds)
{
    Database reader(path, Database::Options{.foreignKeyIndexes = true, .readOnly = true});
    QList<double> all;
    std::printf("\n| Query | kind | hits | median ms | p95 ms |\n|---|---|---:|---:|---:|\n");
    for (const Query &query : queries) {
        QList<double> runs;
        qsizetype hits = 0;
        for (int round = 0; round < rounds; ++round) {
            QElapsedTimer timer;
            timer.start();
            hits = reader.search(query.term).size();
            runs << double(timer.nsecsElapsed()) / 1e6;
        }
        all << runs;
        std::printf("| \"%s\" | %s | %lld | %.1f | %.1f |\n", qPrintable(query.term), query.kind,
                    static_cast<long long>(hits), median(runs), percentile(runs, 0.95));
    }
    std::printf("| **all queries** | | | **%.1f** | **%.1f** |\n", median(all), percentile(all, 0.95));
}

/// The single statement that ranks every match with FTS5's bm25, for comparison: what the plan
/// above avoids.
void measureBm25OverEveryMatch(const QString &path, const QStringList &matches)
{
    sqlite3 *db = nullptr;
    check(db, sqlite3_open_v2(path.toUtf8().constData(), &db, SQLITE_OPEN_READONLY, nullptr));
    std::printf("\n| For comparison: bm25 over every match, one statement | median ms |\n|---|---:|\n");
    for (const QString &match : matches) {
        QList<double> runs;
        for (int round = 0; round < 5; ++round) {
            sqlite3_stmt *statement = nullptr;
            check(db, sqlite3_prepare_v2(db,
                "SELECT m.id, m.chat_id, c.title, snippet(message_search, -1, char(2), char(3), '…', 12) "
                "FROM message_search JOIN messages m ON m.id=message_search.rowid JOIN chats c ON c.id=m.chat_id "
                "WHERE message_search MATCH ? ORDER BY rank LIMIT 100", -1, &statement, nullptr));
            const QByteArray text = match.toUtf8();
            sqlite3_bind_text(statement, 1, text.constData(), -1, SQLITE_TRANSIENT);
            QElapsedTimer timer;
            timer.start();
            while (sqlite3_step(statement) == SQLITE_ROW) {
            }
            runs << double(timer.nsecsElapsed()) / 1e6;
            sqlite3_finalize(statement);
        }
        std::printf("| `%s` | %.1f |\n", qPrintable(match), median(runs));
    }
    sqlite3_close(db);
}

/// Types each term into the search pane of the real window, one key every 150 ms, and answers
/// the longest main-thread gap; prints when each term's hits showed after its last key.
void measureTyping(const QString &path, const QStringList &terms)
{
    QTemporaryDir dir;
    qputenv("CORVANE_DATA_DIR", dir.path().toUtf8());
    if (!QFile::link(path, dir.filePath(QStringLiteral("chats.sqlite"))))
        throw std::runtime_error("could not link the database");
    AppModel appModel;
    AppModelSingleton::instance = &appModel;
    QQmlApplicationEngine engine;
    engine.load(QUrl(QStringLiteral("qrc:/qt/qml/Corvane/Main.qml")));
    auto *window = engine.rootObjects().isEmpty() ? nullptr : qobject_cast<QQuickWindow *>(engine.rootObjects().first());
    if (!window)
        throw std::runtime_error("the window did not load");
    QObject *field = nullptr;
    const auto wait = [](int ms) {
        QEventLoop loop;
        QTimer::singleShot(ms, &loop, &QEventLoop::quit);
        loop.exec();
    };
    // No chat model is installed: the chats are shown all the same.
    window->setProperty("skippedSetup", true);
    wait(500);
    QMetaObject::invokeMethod(window->findChild<QObject *>(QStringLiteral("main")), "openSearch");
    wait(200);
    field = window->findChild<QObject *>(QStringLiteral("searchField"));
    if (!field)
        throw std::runtime_error("the search field is missing");

    qint64 longestGap = 0;
    QElapsedTimer sinceTurn;
    sinceTurn.start();
    QTimer ticker;
    ticker.setInterval(2);
    QObject::connect(&ticker, &QTimer::timeout, [&] {
        longestGap = std::max(longestGap, sinceTurn.elapsed());
        sinceTurn.restart();
    });
    ticker.start();

    Search &search = *appModel.search();
    std::printf("\n| Typed, one key every 150 ms | hits | last key to hits shown, ms |\n|---|---:|---:|\n");
    for (const QString &term : terms) {
        field->setProperty("text", QString());
        wait(300);
        QElapsedTimer sinceLastKey;
        for (qsizetype i = 1; i <= term.size(); ++i) {
            field->setProperty("text", term.left(i));
            sinceLastKey.start();
            if (i < term.size())
                wait(150);
        }
        QEventLoop loop;
        const auto done = [&] { return search.term() == term && !search.isSearching(); };
        QObject::connect(&search, &Search::searchingChanged, &loop, [&] { if (done()) loop.quit(); });
        QTimer::singleShot(5000, &loop, &QEventLoop::quit);
        if (!done())
            loop.exec();
        const double shown = double(sinceLastKey.nsecsElapsed()) / 1e6;
        std::printf("| \"%s\" | %lld | %.0f |\n", qPrintable(term), static_cast<long long>(search.hits().size()), shown);
        wait(200);
    }
    std::printf("| **longest main-thread gap while typing** | | **%lld** |\n", static_cast<long long>(longestGap));
}

} // namespace

int main(int argc, char *argv[])
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    qputenv("QT_QUICK_BACKEND", "software");
    QGuiApplication app(argc, argv);
    const QString dataDir = argc > 1 ? QString::fromLocal8Bit(argv[1])
                                     : QCoreApplication::applicationDirPath() + "/bench-data";
    QDir().mkpath(dataDir);
    const QString path = dataDir + "/search-1m.sqlite";
    try {
        if (!QFile::exists(path)) {
            const QString partial = path + ".partial";
            QFile::remove(partial);
            std::printf("Generating %d messages...\n", messageCount);
            std::fflush(stdout);
            QElapsedTimer timer;
            timer.start();
            generate(partial);
            std::printf("Generated in %.0f s (%.0f MB)\n", double(timer.elapsed()) / 1000, double(QFileInfo(partial).size()) / 1e6);
            QFile::rename(partial, path);
        }
        const QList<Query> queries = {
            {"rare, 1 message", QString::fromLatin1(needle)},
            {"rare, ~70 messages", QString::fromStdString(vocabulary()[30'000])},
            {"common", QStringLiteral("the")},
            {"common", QStringLiteral("and")},
            {"phrase", QStringLiteral("of the")},
            {"phrase", QStringLiteral("the water")},
            {"prefix", QStringLiteral("wat")},
            {"prefix", QStringLiteral("peop")},
            {"prefix", QStringLiteral("comp")},
            {"prefix", QStringLiteral("thi")},
            {"prefix", QStringLiteral("abou")},
            {"no hit", QStringLiteral("xylograph")},
            {"no hit, phrase", QStringLiteral("zephyrine water")},
        };
        measureQueries(path, queries, 21);
        measureBm25OverEveryMatch(path, {QStringLiteral("\"the\""), QStringLiteral("\"of the\""), QStringLiteral("\"the water\""),
                                         QStringLiteral("\"the\"*"), QStringLiteral("\"thi\"*")});
        measureTyping(path, {QString::fromLatin1(needle), QStringLiteral("the water"), QStringLiteral("compaction")});
    } catch (const std::exception &error) {
        std::fprintf(stderr, "bench_search: %s\n", error.what());
        return 1;
    }
    return 0;
}
