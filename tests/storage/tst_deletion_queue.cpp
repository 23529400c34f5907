// The queue of deleted folders and chats on a real database: what a stored list reads back
// as, which messages an entry's removal takes, and that finishing an entry is all or nothing.
#include "sql_probe.h"

#include "storage/database_error.h"
#include "storage/deletion_queue.h"

#include <QTest>


using namespace SqlProbe;
using Entry = DeletionQueue::Entry;
using Kind = DeletionQueue::Kind;

Q_DECLARE_METATYPE(QList<DeletionQueue::Entry>)

class TestDeletionQueue : public QObject
{
    Q_OBJECT

private:
    FreshDatabase m_file;
    Database *m_db = nullptr;

    QStringList query(const QString &sql) const { return rows(m_db->handle(), sql); }

private Q_SLOTS:
    void init() { m_db = &m_file.open(); }
    void cleanup() { m_file.close(); }

    void storedListsReadBack_data()
    {
        QTest::addColumn<QString>("stored"); // "-" for no row at all
        QTest::addColumn<QList<Entry>>("expected");
        QTest::newRow("no row") << "-" << QList<Entry>();
        QTest::newRow("empty text") << "" << QList<Entry>();
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
};

QTEST_GUILESS_MAIN(TestDeletionQueue)
#include "tst_deletion_queue.moc"
