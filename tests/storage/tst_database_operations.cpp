// Reads, writes and deletes on plain (unlocked) data; the queue of deleted folders
// and chats; record hashes.
#include "sql_probe.h"

#include "storage/database_error.h"
#include "storage/deletion_queue.h"
#include "vault/fingerprint.h"

#include <QFile>
#include <QTest>

using namespace SqlProbe;
using Entry = DeletionQueue::Entry;
using Kind = DeletionQueue::Kind;

Q_DECLARE_METATYPE(QList<DeletionQueue::Entry>)

class TestDatabaseOperations : public QObject
{
    Q_OBJECT

private:
    FreshDatabase m_file;
    Database *m_db = nullptr;

    QStringList query(const QString &sql) const { return rows(m_db->handle(), sql); }

private Q_SLOTS:
    void init() { m_db = &m_file.open(); }
    void cleanup() { m_file.close(); }

    void deletingAFolderRemovesEverythingBelowIt()
    {
        const qint64 doomed = m_db->addNode(std::nullopt, "folder", "Doomed");
        const qint64 sub = m_db->addNode(doomed, "folder", "Sub");
        for (qint64 folder : {doomed, sub, m_db->addNode(sub, "folder", "Deeper")})
            addMessage(*m_db, m_db->addChat(folder, "Gone"), "needle gone");
        addMessage(*m_db, m_db->addChat(1, "Kept"), "needle kept");

        m_db->execute("DELETE FROM nodes WHERE id=?", {DBValue::integer(doomed)});

        QCOMPARE(query("SELECT name FROM nodes"), QStringList({"Inbox"}));
        QCOMPARE(query("SELECT title FROM chats"), QStringList({"Kept"}));
        QCOMPARE(query("SELECT body FROM messages"), QStringList({"needle kept"}));
        QCOMPARE(query("SELECT text FROM message_search"), QStringList({"needle kept"}));
    }

    void deletingMessagesAfterMergingTheIndex()
    {
        const qint64 chat = m_db->addChat(1, QStringLiteral("Notes"));
        QList<qint64> ids;
        // Separate transactions leave the index in many segments.
        for (int i = 0; i < 40; ++i)
            ids << addMessage(*m_db, chat, QStringLiteral("heron %1 by the weir").arg(i));
        QVERIFY(m_db->mergeSearchIndex(200));
        int rounds = 0;
        while (m_db->mergeSearchIndex(200))
            QVERIFY(++rounds < 100);
        QVERIFY(!m_db->mergeSearchIndex(200));
        QCOMPARE(m_db->search(QStringLiteral("heron")).size(), 40);

        m_db->deleteMessages(ids.mid(0, 30));
        QCOMPARE(m_db->messageIDs(chat), ids.mid(30));
        QCOMPARE(m_db->search(QStringLiteral("heron")).size(), 10);
        QCOMPARE(query(QStringLiteral("SELECT count(*) FROM message_search")), QStringList{"10"});
    }

    void cartridgeStateBelongsToItsScript_data()
    {
        QTest::addColumn<QString>("owner"); // stored in cartridge_state_for
        QTest::addColumn<QString>("asking");
        QTest::addColumn<QString>("expected");
        QTest::newRow("same script") << fingerprint("script A") << "script A" << "state";
        QTest::newRow("other script") << fingerprint("script A") << "script B" << "";
        QTest::newRow("saved before owners") << "" << "script B" << "state";
    }

    void cartridgeStateBelongsToItsScript()
    {
        QFETCH(QString, owner);
        QFETCH(QString, asking);
        QFETCH(QString, expected);
        const qint64 chat = m_db->addChat(1, "c");
        m_db->execute("UPDATE chats SET cartridge_state='state', cartridge_state_for=? WHERE id=?",
                      {DBValue::text(owner), DBValue::integer(chat)});
        QCOMPARE(m_db->cartridgeState(asking, chat), expected);
        m_db->setCartridgeState("new", "script B", chat);
        QCOMPARE(m_db->cartridgeState("script B", chat), "new");
    }

    void erasingLeavesOnlyTheInboxAndNoWordInTheFile()
    {
        for (int i = 0; i < 300; ++i)
            addMessage(*m_db, m_db->addChat(m_db->addNode(1, "folder", "Work"), "c"), QString("zanzibar%1 words").arg(i));
        m_db->setSetting("theme", "dark");
        const QString file = m_file.path();

        // Through a second connection, as the application erases from a worker thread while
        // its own connection waits.
        Database::eraseFile(file);

        QCOMPARE(query("SELECT parent_id, kind, name FROM nodes"), QStringList({"NULL|folder|Inbox"}));
        QCOMPARE(query("SELECT (SELECT count(*) FROM chats) + (SELECT count(*) FROM messages)"
                       " + (SELECT count(*) FROM settings) + (SELECT count(*) FROM message_search)"),
                 QStringList({"0"}));
        QFile bytes(file);
        QVERIFY(bytes.open(QIODevice::ReadOnly));
        QVERIFY(!bytes.readAll().contains("zanzibar"));
        // The emptied index goes on working.
        addMessage(*m_db, m_db->addChat(1, "New"), "fresh words");
        QCOMPARE(m_db->search("fresh").size(), 1);
        QCOMPARE(m_db->search("words").size(), 1);
        m_db->execute("DELETE FROM chats");
        QCOMPARE(query("SELECT count(*) FROM message_search"), QStringList({"0"}));
    }

    void movingBetweenPlainFoldersDoesNotCompact()
    {
        const qint64 target = m_db->addNode(std::nullopt, "folder", "Target");
        const qint64 chat = m_db->addChat(1, "c");
        addMessage(*m_db, chat, "words");
        StatementLog log(m_db->handle());
        m_db->moveChat(chat, target);
        QCOMPARE(log.statements().filter(QRegularExpression("VACUUM|optimize")), QStringList());
        QCOMPARE(m_db->chats().first().nodeID, target);
        QCOMPARE(m_db->search("words").size(), 1);
    }

    void storedListsReadBack_data()
    {
        QTest::addColumn<QString>("stored"); // "-" for no row at all
        QTest::addColumn<QList<Entry>>("expected");
        QTest::newRow("no row") << "-" << QList<Entry>();
        QTest::newRow("not JSON") << "folder 3" << QList<Entry>();
        QTest::newRow("an object, not a list") << R"({"kind":"folder","id":3})" << QList<Entry>();
        QTest::newRow("good and bad entries")
            << R"([{"kind":"folder","id":3},{"kind":"chat","id":"7"},{"kind":"node","id":4},{"kind":"chat","id":0},)"
               R"({"kind":"chat","id":5},{"kind":"chat","id":5},{"id":6}])"
            << QList<Entry>{{Kind::folder, 3}, {Kind::chat, 5}};
    }

    void storedListsReadBack()
    {
        QFETCH(QString, stored);
        QFETCH(QList<Entry>, expected);
        if (stored != QLatin1String("-"))
            m_db->setSetting(DeletionQueue::settingKey, stored);
        DeletionQueue queue;
        queue.load(*m_db);
        QCOMPARE(queue.entries(), expected);
    }

    void anEntryTakesTheMessagesBelowIt()
    {
        const qint64 top = m_db->addNode(std::nullopt, "folder", "Top");
        const qint64 sub = m_db->addNode(top, "folder", "Sub");
        const qint64 inTop = m_db->addChat(top, "In top");
        const qint64 kept = m_db->addChat(1, "Kept");
        const qint64 inSub = m_db->addChat(sub, "In sub");
        QList<qint64> below;
        for (qint64 chat : {inSub, kept, inTop, inSub, kept}) {
            const qint64 id = addMessage(*m_db, chat, "words");
            if (chat != kept)
                below.append(id);
        }
        QCOMPARE(DeletionQueue::messageIDs(*m_db, {Kind::folder, top}), below);
        QCOMPARE(DeletionQueue::messageIDs(*m_db, {Kind::chat, inSub}), QList<qint64>({below[0], below[2]}));
        // Parent links that form a cycle still end the walk.
        m_db->execute("UPDATE nodes SET parent_id=? WHERE id=?", {DBValue::integer(sub), DBValue::integer(top)});
        QCOMPARE(DeletionQueue::messageIDs(*m_db, {Kind::folder, top}), below);
    }

    void finishingIsAllOrNothing()
    {
        const qint64 folder = m_db->addNode(std::nullopt, "folder", "Old");
        const qint64 chat = m_db->addChat(1, "Old chat");
        DeletionQueue queue;
        queue.add(*m_db, {Kind::folder, folder});
        queue.add(*m_db, {Kind::chat, chat});
        queue.add(*m_db, {Kind::chat, chat});
        QCOMPARE(m_db->setting(DeletionQueue::settingKey),
                 QString(R"([{"id":%1,"kind":"folder"},{"id":%2,"kind":"chat"}])").arg(folder).arg(chat));

        m_db->execute("CREATE TRIGGER refuse BEFORE DELETE ON nodes BEGIN SELECT RAISE(ABORT, 'refused'); END");
        QVERIFY_THROWS_EXCEPTION(DatabaseError, queue.finish(*m_db, {Kind::folder, folder}));
        QCOMPARE(queue.entries().size(), 2);
        DeletionQueue reread;
        reread.load(*m_db);
        QCOMPARE(reread.entries(), queue.entries());
        QCOMPARE(query(QString("SELECT name FROM nodes WHERE id=%1").arg(folder)), QStringList({"Old"}));

        m_db->execute("DROP TRIGGER refuse");
        queue.finish(*m_db, {Kind::folder, folder});
        queue.finish(*m_db, {Kind::chat, chat});
        QVERIFY(queue.isEmpty());
        QCOMPARE(query("SELECT name FROM nodes"), QStringList({"Inbox"}));
        QCOMPARE(query("SELECT count(*) FROM chats"), QStringList({"0"}));
        // An empty queue leaves no row behind.
        QCOMPARE(m_db->setting(DeletionQueue::settingKey), std::nullopt);
    }

    void hashesNoticeAChangeInOneField()
    {
        // A hash that skipped a field would let a view keep showing the old record.
        Chat chat;
        chat.id = 7;
        chat.title = "Trip";
        chat.summaryThroughID = 40;
        Chat moved = chat, inherited = chat, shifted = chat;
        moved.summaryThroughID = 41;
        inherited.cartridgeFolderID = 0; // 0 is not absent
        shifted.prompt = std::exchange(shifted.title, QString()); // the same text in a neighbouring field
        for (const Chat &changed : {moved, inherited, shifted})
            QVERIFY(qHash(changed, 5) != qHash(chat, 5));

        Node top, child;
        top.name = child.name = "Inbox";
        child.parentID = 0;
        QVERIFY(qHash(child) != qHash(top));
        Message shown, hidden;
        shown.body = hidden.body = "hi";
        hidden.hidden = true;
        QVERIFY(qHash(hidden) != qHash(shown));
    }
};

QTEST_GUILESS_MAIN(TestDatabaseOperations)
#include "tst_database_operations.moc"
