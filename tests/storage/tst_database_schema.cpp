// The SQLite built into the application, opening files of every earlier layout, and what
// opening leaves behind.
#include "sql_probe.h"

#include "storage/database_error.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>

using namespace SqlProbe;

namespace {

QStringList columns(sqlite3 *db)
{
    QStringList result;
    for (QString table : {"nodes", "chats", "messages"})
        for (const QString &row : rows(db, "PRAGMA table_info(" + table + ")"))
            result << table + '.' + row.section('|', 1, 1);
    return result;
}

// Everything opening creates by name: tables, triggers and indexes (not SQLite's own).
QStringList schema(sqlite3 *db)
{
    return rows(db, "SELECT type, name FROM sqlite_master WHERE sql IS NOT NULL AND name NOT LIKE 'message_search_%' ORDER BY type, name")
        + rows(db, "SELECT name FROM sqlite_master WHERE type='trigger' ORDER BY name");
}

const QStringList currentSchema = {
    "index|chats_node_id", "index|messages_chat_id", "index|nodes_parent_id",
    "table|chats", "table|message_search", "table|messages", "table|nodes", "table|settings",
    "message_search_ad", "message_search_ai", "message_search_au"};

QStringList indexed(sqlite3 *db) { return rows(db, "SELECT rowid FROM message_search ORDER BY rowid"); }

// FTS5 keeps a change counter in the first bytes of its structure record (row 10 of
// message_search_data); the 'secure-delete' setting written on every open bumps it.
QStringList withoutIndexCookie(QStringList dump)
{
    for (qsizetype i = dump.indexOf("== message_search_data") + 1; i > 0 && i < dump.size() && !dump[i].startsWith("=="); ++i)
        if (dump[i].startsWith("10|"))
            dump[i].replace(3, 8, "cookie");
    return dump;
}

} // namespace

class TestDatabaseSchema : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { m_path = m_dir.filePath(QStringLiteral("chats-%1.sqlite").arg(++m_count)); }

    void linksThePinnedSqlite()
    {
        // The system's older SQLite lacks the secure delete of FTS5 that locked folders and
        // erasing rely on.
        QCOMPARE(QString::fromLatin1(sqlite3_libversion()), QStringLiteral("3.53.2"));
        QCOMPARE(sqlite3_libversion_number(), SQLITE_VERSION_NUMBER);
        for (const char *option : {"ENABLE_FTS5", "THREADSAFE=1", "OMIT_LOAD_EXTENSION", "DEFAULT_MEMSTATUS=0"})
            QVERIFY2(sqlite3_compileoption_used(option), option);
    }

    void aFileOfTheFirstLayoutIsMigrated()
    {
        sqlite3 *old = nullptr;
        sqlite3_open(m_path.toUtf8().constData(), &old);
        QCOMPARE(sqlite3_exec(old,
            "CREATE TABLE settings(key TEXT PRIMARY KEY, value TEXT NOT NULL);"
            "CREATE TABLE nodes(id INTEGER PRIMARY KEY, parent_id INTEGER REFERENCES nodes(id) ON DELETE CASCADE,"
            " kind TEXT NOT NULL, name TEXT NOT NULL, prompt TEXT NOT NULL DEFAULT '', agent_name TEXT NOT NULL DEFAULT '');"
            "CREATE TABLE chats(id INTEGER PRIMARY KEY, node_id INTEGER NOT NULL REFERENCES nodes(id) ON DELETE CASCADE,"
            " title TEXT NOT NULL, prompt TEXT NOT NULL DEFAULT '', auto_speak_replies INTEGER NOT NULL DEFAULT 0,"
            " cartridge_source TEXT NOT NULL DEFAULT '', cartridge_name TEXT NOT NULL DEFAULT '',"
            " cartridge_agent_name TEXT NOT NULL DEFAULT '');"
            "CREATE TABLE messages(id INTEGER PRIMARY KEY, chat_id INTEGER NOT NULL REFERENCES chats(id) ON DELETE CASCADE,"
            " role TEXT NOT NULL, body TEXT NOT NULL, created_at TEXT NOT NULL, metadata TEXT NOT NULL DEFAULT '');"
            "INSERT INTO nodes VALUES(1, NULL, 'folder', 'Work', 'Be brief', 'Max');"
            "INSERT INTO chats VALUES(5, 1, 'Plans', '', 1, '', '', '');"
            "INSERT INTO messages VALUES(8, 5, 'user', 'remember the lighthouse', 't', '{}'), (9, 5, 'assistant', 'noted', 't', '');",
            nullptr, nullptr, nullptr), SQLITE_OK);
        sqlite3_close(old);

        Database db(m_path);
        QStringList migrated = columns(db.handle());
        QStringList created = columns(Database(m_dir.filePath("new.sqlite")).handle());
        migrated.sort();
        created.sort();
        QCOMPARE(migrated, created);
        QCOMPARE(rows(db.handle(), "SELECT locked, sealed, cartridge_source FROM nodes"), QStringList{"0|0|"});
        QCOMPARE(rows(db.handle(), "SELECT cartridge_state, summary, summary_through_id, sealed FROM chats"), QStringList{"||0|0"});
        QCOMPARE(rows(db.handle(), "SELECT image, display, hidden, data FROM messages"), QStringList({"||0|", "||0|"}));
        QCOMPARE(db.nodes().size(), 1); // no "Inbox" beside existing folders
        QCOMPARE(indexed(db.handle()), QStringList({"8", "9"}));
        QCOMPARE(db.search("lighthouse").first().chatID, 5);
        QCOMPARE(schema(db.handle()), currentSchema);
    }

    void theEarlierIndexIsReplaced()
    {
        Database(m_path).execute(
            "DROP TABLE message_search; DROP TRIGGER message_search_ad;"
            "DROP TRIGGER message_search_ai; DROP TRIGGER message_search_au;"
            "CREATE VIRTUAL TABLE message_fts USING fts5(body);"
            "CREATE TRIGGER messages_ai AFTER INSERT ON messages BEGIN INSERT INTO message_fts(rowid, body) VALUES(new.id, new.body); END;"
            "CREATE TRIGGER messages_ad AFTER DELETE ON messages BEGIN DELETE FROM message_fts WHERE rowid=old.id; END;"
            "CREATE TRIGGER messages_au AFTER UPDATE ON messages BEGIN UPDATE message_fts SET body=new.body WHERE rowid=old.id; END;"
            "INSERT INTO chats(id, node_id, title, sealed) VALUES(10, 1, 'plain', 0), (11, 1, 'sealed', 1);"
            "INSERT INTO messages(id, chat_id, role, body, created_at, hidden, display) VALUES"
            " (1, 10, 'user', 'seen', 't', 0, ''), (2, 10, 'system', 'hidden', 't', 1, ''),"
            " (3, 11, 'user', 'c2VhbGVk', 't', 0, ''), (4, 10, 'assistant', 'raw', 't', 0, 'shown');");

        Database db(m_path);
        QCOMPARE(schema(db.handle()), currentSchema);
        QCOMPARE(rows(db.handle(), "SELECT rowid, text FROM message_search"), QStringList({"1|seen", "4|shown"}));
    }

    void openingAgainChangesNothing()
    {
        {
            Database db(m_path, {.foreignKeyIndexes = false});
            QCOMPARE(schema(db.handle()).filter("index|"), QStringList());
            db.setVaultKey(VaultKey::random());
            addMessage(db, db.addChat(1, "Open"), "words");
            db.execute("UPDATE nodes SET locked=1, sealed=1");
            addMessage(db, db.addChat(1, "Secret"), "words");
            db.setSetting("theme", "dark");
            // An index that exists is never refilled, even when rows are missing from it.
            db.execute("DELETE FROM message_search");
        }
        QStringList first;
        {
            Database db(m_path);
            QCOMPARE(schema(db.handle()), currentSchema); // the indexes come to an older file
            first = dump(db.handle());
        }
        Database db(m_path);
        QCOMPARE(indexed(db.handle()), QStringList());
        QCOMPARE(withoutIndexCookie(dump(db.handle())), withoutIndexCookie(first));
    }

    void openingFailuresCarrySqliteCodes_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("message");
        QTest::newRow("missing folder") << "missing/chats.sqlite" << SQLITE_CANTOPEN << "unable to open database file";
        QTest::newRow("not a database") << "junk.sqlite" << SQLITE_NOTADB << "file is not a database";
        QTest::newRow("cut short") << "truncated.sqlite" << SQLITE_CORRUPT << "database disk image is malformed";
        QTest::newRow("from a newer version") << "newer.sqlite" << SQLITE_CANTOPEN
                                              << "the chats were saved by a newer version of Corvane; "
                                                 "install that version to open them";
    }

    // What cannot be opened is left exactly as it was, for a later version or a rescue.
    void openingFailuresCarrySqliteCodes()
    {
        QFETCH(QString, name);
        QFETCH(int, code);
        QFETCH(QString, message);
        const auto write = [this](const QString &file, const QByteArray &bytes) {
            QFile out(m_dir.filePath(file));
            return out.open(QIODevice::WriteOnly) && out.write(bytes) == bytes.size();
        };
        QVERIFY(write("junk.sqlite", QByteArray(4096, 'x')));
        for (const QString &file : {QStringLiteral("truncated.sqlite"), QStringLiteral("newer.sqlite")}) {
            QFile::remove(m_dir.filePath(file));
            Database db(m_dir.filePath(file));
            for (int i = 0; i < 200; ++i)
                addMessage(db, db.addChat(1, QStringLiteral("Chat %1").arg(i)), QString(300, QLatin1Char('w')));
            if (file == QLatin1String("newer.sqlite"))
                db.execute(QStringLiteral("PRAGMA user_version = 2"));
        }
        QFile truncated(m_dir.filePath("truncated.sqlite"));
        QVERIFY(truncated.resize(truncated.size() / 2));
        const auto bytes = [this](const QString &file) {
            QFile in(m_dir.filePath(file));
            return in.open(QIODevice::ReadOnly) ? in.readAll() : QByteArray();
        };
        const QByteArray before = bytes(name);

        try {
            Database db(m_dir.filePath(name));
            QFAIL("opened");
        } catch (const DatabaseError &error) {
            QCOMPARE(error.code(), code);
            QCOMPARE(error.description(), message);
        }
        QCOMPARE(bytes(name), before);
    }

private:
    QTemporaryDir m_dir;
    QString m_path;
    int m_count = 0;
};

QTEST_GUILESS_MAIN(TestDatabaseSchema)
#include "tst_database_schema.moc"
