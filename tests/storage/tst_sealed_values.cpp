// Texts of chats in locked folders: stored encrypted, read back through the vault key, kept
// out of the search index, and never half re-encrypted.
#include "sql_probe.h"

#include "storage/database_error.h"
#include "vault/sealed_box.h"
#include "vault/vault_error.h"

#include <QTest>


using namespace SqlProbe;

class TestSealedValues : public QObject
{
    Q_OBJECT

private:
    FreshDatabase m_file;
    Database *m_db = nullptr;
    qint64 m_locked = 0; // a locked folder
    qint64 m_inner = 0; // a folder inside it

    QStringList query(const QString &sql) const { return rows(m_db->handle(), sql); }

private Q_SLOTS:
    void init()
    {
        m_db = &m_file.open();
        m_db->setVaultKey(VaultKey::random());
        m_locked = m_db->addNode(std::nullopt, "folder", "Diary");
        m_db->execute("UPDATE nodes SET locked=1, sealed=1 WHERE id=?", {DBValue::integer(m_locked)});
        m_inner = m_db->addNode(m_locked, "folder", "Dreams");
    }

    void cleanup() { m_file.close(); }

    void sealedColumnsAreStoredEncrypted()
    {
        m_db->setNodePrompt(m_inner, "Be gentle");
        const qint64 chat = m_db->addChat(m_inner, "Flying");
        m_db->setChatSummary("So far", 3, chat);
        addMessage(*m_db, chat, "I could fly");

        QCOMPARE(query("SELECT name FROM nodes WHERE locked=1"), QStringList({"Diary"})); // shown while locked
        const QStringList stored = query("SELECT name || prompt FROM nodes WHERE id=" + QString::number(m_inner))
            + query("SELECT title || summary FROM chats") + query("SELECT body || metadata FROM messages");
        QVERIFY2(stored.filter(QRegularExpression("[^A-Za-z0-9+/=]|Dreams|gentle|Flying|far|fly|^$")).isEmpty(),
                 qPrintable(stored.join('\n')));
        QCOMPARE(query("SELECT count(*) FROM message_search"), QStringList({"0"}));

        QCOMPARE(m_db->nodes().last().name, "Dreams");
        QCOMPARE(m_db->nodes().last().prompt, "Be gentle");
        QCOMPARE(m_db->chats().first().title, "Flying");
        QCOMPARE(m_db->chatSummary(chat).first, "So far");
        QCOMPARE(m_db->messages(chat).first().body, "I could fly");
    }

    void withoutTheKey()
    {
        const qint64 chat = m_db->addChat(m_inner, "Flying");
        addMessage(*m_db, chat, "I could fly");
        m_db->setVaultKey(std::nullopt);

        // Lists still load: the locked folder's own name is plain, sealed texts are empty.
        QCOMPARE(m_db->nodes().at(1).name, "Diary");
        QCOMPARE(m_db->nodes().at(2).name, "");
        QCOMPARE(m_db->chats().first().title, "");
        for (const auto &operation : QList<std::function<void()>>{
                 [&] { m_db->field("chats", "title", chat, true); },
                 [&] { m_db->messages(chat); },
                 [&] { m_db->addChat(m_inner, "New"); }}) {
            try {
                operation();
                QFAIL("no error");
            } catch (const VaultError &error) {
                QCOMPARE(error.kind(), VaultError::Case::Locked);
                QCOMPARE(error.description(), "Unlock your locked folders first");
            }
        }
        // An empty text is never encrypted, so it needs no key.
        const qint64 untitled = m_db->addChat(m_inner, "");
        QCOMPARE(m_db->field("chats", "title", untitled, true), "");
        QCOMPARE(query("SELECT title FROM chats WHERE id=" + QString::number(untitled)), QStringList({""}));
    }

    void reveal_data()
    {
        QTest::addColumn<QByteArray>("stored"); // "box:" + plaintext is sealed first
        QTest::addColumn<QString>("expected");
        QTest::addColumn<int>("error"); // -1: none, else SealedBoxError::Case
        QTest::newRow("plain words, not base64") << QByteArray("plain words") << "" << -1;
        QTest::newRow("base64 with a line break") << QByteArray("aGVs\nbG8=") << "" << -1;
        QTest::newRow("too short for a box") << QByteArray("aGVsbG8=") << "" << int(SealedBoxError::Case::Malformed);
        QTest::newRow("tampered") << QByteArray("box:hello!") << "" << int(SealedBoxError::Case::AuthenticationFailed);
        QTest::newRow("invalid UTF-8") << QByteArray("box:caf\xe9") << QString("caf") + QChar(0xFFFD) << -1;
    }

    void reveal()
    {
        QFETCH(QByteArray, stored);
        QFETCH(QString, expected);
        QFETCH(int, error);
        if (stored.startsWith("box:")) {
            QByteArray box = SealedBox::seal(stored.mid(4), *m_db->vaultKey());
            if (stored.endsWith('!'))
                box[14] = char(box[14] ^ 1);
            stored = box.toBase64();
        }
        const qint64 chat = m_db->addChat(m_inner, "t");
        m_db->execute("UPDATE chats SET title=? WHERE id=?", {DBValue::text(stored), DBValue::integer(chat)});
        QCOMPARE(m_db->chats().first().title, expected); // lists never fail
        try {
            QCOMPARE(m_db->field("chats", "title", chat, true), expected);
            QCOMPARE(error, -1);
        } catch (const SealedBoxError &e) {
            QCOMPARE(int(e.kind()), error);
        }
    }

    void movingAChatReseals()
    {
        const qint64 chat = m_db->addChat(1, "Travel");
        addMessage(*m_db, chat, "visible words");
        addMessage(*m_db, chat, "hidden words", true);
        const QStringList plain = query("SELECT title FROM chats") + query("SELECT body FROM messages");

        StatementLog log(m_db->handle());
        m_db->moveChat(chat, m_inner);
        QVERIFY(m_db->isChatSealed(chat) && m_db->isMessageSealed(1));
        QCOMPARE(query("SELECT count(*) FROM message_search"), QStringList({"0"}));
        QVERIFY(query("SELECT body FROM messages").first() != "visible words");
        QCOMPARE(m_db->messages(chat).last().body, "hidden words");
        QCOMPARE(log.statements().filter(QRegularExpression("^VACUUM$|'optimize'")).size(), 2);

        m_db->moveChat(chat, 1);
        QCOMPARE(query("SELECT title FROM chats") + query("SELECT body FROM messages"), plain);
        QCOMPARE(query("SELECT text FROM message_search"), QStringList({"visible words"}));
    }

    void aFailedMoveChangesNothing_data()
    {
        QTest::addColumn<QString>("sabotage");
        QTest::addColumn<bool>("withKey");
        QTest::addColumn<qint64>("target"); // 0: the sealed folder
        QTest::newRow("message update fails")
            << "CREATE TRIGGER sabotage BEFORE UPDATE ON messages BEGIN SELECT RAISE(ABORT, 'x'); END" << true << qint64(0);
        QTest::newRow("key missing mid-way") << "" << false << qint64(0);
        QTest::newRow("folder missing") << "" << true << qint64(999);
    }

    void aFailedMoveChangesNothing()
    {
        QFETCH(QString, sabotage);
        QFETCH(bool, withKey);
        QFETCH(qint64, target);
        const qint64 chat = m_db->addChat(1, "Travel");
        addMessage(*m_db, chat, "first");
        addMessage(*m_db, chat, "second");
        if (!sabotage.isEmpty())
            m_db->execute(sabotage);
        if (!withKey)
            m_db->setVaultKey(std::nullopt);
        const QStringList before = dump(m_db->handle());

        QVERIFY_THROWS_EXCEPTION(CorvaneError, m_db->moveChat(chat, target ? target : m_inner));

        QCOMPARE(sqlite3_get_autocommit(m_db->handle()), 1); // no transaction left open
        QCOMPARE(dump(m_db->handle()), before);
    }

    void resealingToTheCurrentStateWritesNothing()
    {
        const qint64 chat = m_db->addChat(m_inner, "t");
        addMessage(*m_db, chat, "x");
        const qint64 changes = sqlite3_total_changes64(m_db->handle());
        m_db->resealChat(chat, true);
        QCOMPARE(sqlite3_total_changes64(m_db->handle()), changes);
    }
};

QTEST_GUILESS_MAIN(TestSealedValues)
#include "tst_sealed_values.moc"
