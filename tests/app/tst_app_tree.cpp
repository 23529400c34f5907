// The folder tree on a real database: inheritance of names and prompts through the folder
// chain (cycles included), and the sidebar's commands with their refusals and errors.
#include "app/app_model.h"
#include "storage/database.h"
#include "support/await_task.h"
#include "support/database_rows.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <QSignalSpy>
#include <QTest>

#include <sqlite3.h>

namespace {

qint64 count(Database &db, const char *sql)
{
    sqlite3_stmt *statement = nullptr;
    sqlite3_prepare_v2(db.handle(), sql, -1, &statement, nullptr);
    sqlite3_step(statement);
    const qint64 n = sqlite3_column_int64(statement, 0);
    sqlite3_finalize(statement);
    return n;
}

} // namespace

class TestAppTree : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<AppModel> m_model;

    Database &db() { return m_model->database(); }
    qint64 inbox() const { return m_model->nodes().first().id; }
    Chat chatRecord(qint64 id) const { return *std::ranges::find(m_model->chats(), id, &Chat::id); }
    /// Turns the event loop until the first slice of the archive's messages is gone.
    void turnUntilTheRemovalStarts()
    {
        QElapsedTimer timer;
        timer.start();
        while (count(db(), "SELECT count(*) FROM messages") == 3000 && timer.elapsed() < 10000)
            QCoreApplication::processEvents();
        QVERIFY(count(db(), "SELECT count(*) FROM messages") > 0);
    }

    /// The shown chats of folder `nodeID`.
    QList<qint64> chatsIn(qint64 nodeID) const
    {
        QList<qint64> ids;
        for (const Chat &chat : m_model->chats())
            if (chat.nodeID == nodeID)
                ids.append(chat.id);
        return ids;
    }

    /// A folder "Archive" of 5 chats with 600 messages each, all with a word found nowhere else.
    qint64 addArchive()
    {
        const auto big = m_model->addFolder(std::nullopt);
        m_model->renameNode(big->id, QStringLiteral("Archive"));
        db().execute(QStringLiteral("BEGIN"));
        for (int c = 0; c < 5; ++c) {
            const qint64 chat = db().addChat(big->id, QStringLiteral("Old %1").arg(c));
            for (int m = 0; m < 600; ++m)
                addMessage(db(), chat, QStringLiteral("zanzibar%1 archived words").arg(m));
        }
        db().execute(QStringLiteral("COMMIT"));
        m_model->reload();
        return big->id;
    }

private Q_SLOTS:
    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        qputenv("CORVANE_DATA_DIR", m_dir->path().toUtf8());
        m_model = std::make_unique<AppModel>();
    }

    void cleanup()
    {
        m_model.reset();
        m_dir.reset();
    }

    void inheritance_data()
    {
        QTest::addColumn<QString>("globalName");
        QTest::addColumn<QString>("globalPrompt");
        QTest::addColumn<QStringList>("outerFolder"); // name, prompt
        QTest::addColumn<QStringList>("innerFolder");
        QTest::addColumn<QStringList>("chat"); // prompt, script-set name
        QTest::addColumn<QString>("runtimeName"); // set by a running script, empty for none
        QTest::addColumn<QString>("expected");

        QTest::newRow("four parts, root first")
            << "Corvane" << "G" << QStringList{"", "P1"} << QStringList{"", ""} << QStringList{"P2", ""} << ""
            << "Your name is Corvane.\n\nG\n\nP1\n\nP2";
        QTest::newRow("folder name trimmed")
            << "Corvane" << "G" << QStringList{"  Ada  ", ""} << QStringList{"", ""} << QStringList{"", ""} << ""
            << "Your name is Ada.\n\nG";
        QTest::newRow("nearer folder's name wins")
            << "Corvane" << "G" << QStringList{"Ada", ""} << QStringList{"Bea", ""} << QStringList{"", ""} << ""
            << "Your name is Bea.\n\nG";
        QTest::newRow("blank folder name is no name")
            << "Corvane" << "G" << QStringList{"Ada", ""} << QStringList{" \n ", ""} << QStringList{"", ""} << ""
            << "Your name is Ada.\n\nG";
        QTest::newRow("script-set chat name used as given")
            << "Corvane" << "G" << QStringList{"Ada", ""} << QStringList{"", ""} << QStringList{"", " Bot "} << ""
            << "Your name is  Bot .\n\nG";
        QTest::newRow("running script's name wins")
            << "Corvane" << "G" << QStringList{"Ada", ""} << QStringList{"", ""} << QStringList{"", "Bot"} << "Live"
            << "Your name is Live.\n\nG";
        QTest::newRow("blank global name falls back to Corvane")
            << "   " << "G" << QStringList{"", ""} << QStringList{"", ""} << QStringList{"", ""} << ""
            << "Your name is Corvane.\n\nG";
        QTest::newRow("global name trimmed")
            << " Cleo\n" << "G" << QStringList{"", ""} << QStringList{"", ""} << QStringList{"", ""} << ""
            << "Your name is Cleo.\n\nG";
        QTest::newRow("blank parts dropped, the rest kept untrimmed")
            << "Corvane" << " \n" << QStringList{"", "  P1\n"} << QStringList{"", "\t"} << QStringList{" P2", ""} << ""
            << "Your name is Corvane.\n\n  P1\n\n\n P2";
    }

    void inheritance()
    {
        QFETCH(QString, globalName);
        QFETCH(QString, globalPrompt);
        QFETCH(QStringList, outerFolder);
        QFETCH(QStringList, innerFolder);
        QFETCH(QStringList, chat);
        QFETCH(QString, runtimeName);
        QFETCH(QString, expected);

        m_model->setGlobalAgentName(globalName);
        m_model->setGlobalPrompt(globalPrompt);
        const auto outer = m_model->addFolder(std::nullopt);
        const auto inner = m_model->addFolder(outer->id);
        m_model->setNodeAgentName(outer->id, outerFolder[0]);
        m_model->setNodePrompt(outer->id, outerFolder[1]);
        m_model->setNodeAgentName(inner->id, innerFolder[0]);
        m_model->setNodePrompt(inner->id, innerFolder[1]);
        m_model->addChat(inner->id);
        const qint64 chatID = *m_model->selectedChatID();
        m_model->setChatPrompt(chatID, chat[0]);
        db().setChatFields({{QStringLiteral("cartridge_agent_name"), chat[1]}}, {}, chatID);
        m_model->reload();
        if (!runtimeName.isEmpty())
            m_model->cartridgeAgentNames().insert(chatID, runtimeName);

        QCOMPARE(m_model->effectivePrompt(chatRecord(chatID)), expected);
        QVERIFY(!m_model->statusIsError());
    }

    void scriptContextNamesTheInheritedAssistant()
    {
        const auto folder = m_model->addFolder(std::nullopt);
        m_model->setNodeAgentName(folder->id, QStringLiteral(" Ada "));
        m_model->addChat(folder->id);
        const qint64 chatID = *m_model->selectedChatID();
        db().setChatFields({{QStringLiteral("cartridge_agent_name"), QStringLiteral("Bot")}}, {}, chatID);
        addMessage(db(), chatID, QStringLiteral("hello"));
        m_model->reload(true);
        const QJsonObject context = m_model->cartridgeContext(chatRecord(chatID), m_model->messages()).toJson();
        // A script sees the name it would inherit, not one a script set earlier.
        QCOMPARE(context.value("agent").toObject().value("name").toString(), QStringLiteral("Ada"));
        QCOMPARE(context.value("chat").toObject().value("title").toString(), QStringLiteral("New chat"));
        QCOMPARE(context.value("turn").toInteger(), 1);
        QCOMPARE(context.value("messages").toArray().size(), 1);
    }

    void parentCyclesEndTheWalks()
    {
        const auto a = m_model->addFolder(std::nullopt);
        const auto b = m_model->addFolder(a->id);
        m_model->setNodePrompt(a->id, QStringLiteral("A"));
        m_model->setNodePrompt(b->id, QStringLiteral("B"));
        db().execute(QStringLiteral("UPDATE nodes SET parent_id=? WHERE id=?"),
                     {DBValue::integer(b->id), DBValue::integer(a->id)});
        m_model->addChat(b->id);
        m_model->reload();
        const Chat c = chatRecord(*m_model->selectedChatID());

        // Each folder once, from the one found first going up down to the chat's own.
        QCOMPARE(m_model->effectivePrompt(c),
                 QStringLiteral("Your name is Corvane.\n\nYou are a thoughtful, concise companion.\n\nA\n\nB"));
        QCOMPARE(m_model->effectiveAgentName(m_model->selectedNode()), QStringLiteral("Corvane"));
        QVERIFY(!m_model->cartridgeFolder(b->id));
        QVERIFY(!m_model->lockedFolder(*m_model->selectedNode()));
        QCOMPARE(m_model->subtreeIDs(a->id), (QSet<qint64>{a->id, b->id}));
    }

    void subtreeAndScriptFolder()
    {
        const auto a = m_model->addFolder(std::nullopt);
        const auto b = m_model->addFolder(a->id);
        const auto c = m_model->addFolder(b->id);
        const auto sibling = m_model->addFolder(a->id);
        QCOMPARE(m_model->subtreeIDs(a->id), (QSet<qint64>{a->id, b->id, c->id, sibling->id}));
        QCOMPARE(m_model->subtreeIDs(c->id), QSet<qint64>{c->id});

        db().execute(QStringLiteral("UPDATE nodes SET cartridge_source=? WHERE id=?"),
                     {DBValue::text("module.exports = {}"), DBValue::integer(a->id)});
        m_model->addChat(c->id);
        QCOMPARE(m_model->cartridgeFolder(c->id)->id, a->id);
        QCOMPARE(m_model->selectedChat()->cartridgeFolderID, std::optional<qint64>(a->id));
        QVERIFY(!m_model->cartridgeFolder(std::nullopt));
        QVERIFY(m_model->folderHasContents(a->id));
        QVERIFY(m_model->folderHasContents(c->id)); // holds a chat
        QVERIFY(!m_model->folderHasContents(sibling->id));
    }

    void addChatWithoutAFolderUsesTheFirst()
    {
        m_model->addFolder(std::nullopt);
        QVERIFY(!m_model->selectedNodeID());
        m_model->addChat();
        QCOMPARE(m_model->selectedChat()->nodeID, inbox());
        QCOMPARE(m_model->selectedChat()->title, QStringLiteral("New chat"));
        QCOMPARE(m_model->selectedNodeID(), std::optional<qint64>(inbox()));
    }

    void renamingTrimsAndIgnoresBlanks()
    {
        m_model->addChat(inbox());
        const qint64 chatID = *m_model->selectedChatID();
        m_model->renameNode(inbox(), QStringLiteral("  Work \n"));
        m_model->renameChat(chatID, QStringLiteral("\tPlans "));
        m_model->renameNode(inbox(), QStringLiteral(" \n"));
        m_model->renameChat(chatID, QString());
        QCOMPARE(m_model->nodes().first().name, QStringLiteral("Work"));
        QCOMPARE(chatRecord(chatID).title, QStringLiteral("Plans"));
    }

    void deletingAFolderRemovesEverythingBelowIt()
    {
        const auto top = m_model->addFolder(std::nullopt);
        const auto below = m_model->addFolder(top->id);
        m_model->addChat(below->id);
        const qint64 doomed = *m_model->selectedChatID();
        addMessage(db(), doomed, QStringLiteral("secret plans"));
        m_model->addChat(inbox());
        const qint64 kept = *m_model->selectedChatID();
        addMessage(db(), kept, QStringLiteral("kept words"));
        m_model->selectChat(doomed);
        QCOMPARE(count(db(), "SELECT count(*) FROM message_search"), 2);

        m_model->deleteFolder(top->id);
        QTRY_VERIFY(!m_model->isPurging());

        QCOMPARE(m_model->nodes().size(), 1);
        QCOMPARE(m_model->chats().size(), 1);
        QCOMPARE(m_model->chats().first().id, kept);
        QVERIFY(!m_model->selectedChatID());
        QVERIFY(m_model->messages().isEmpty());
        QCOMPARE(m_model->selectedNodeID(), std::optional<qint64>(inbox()));
        QCOMPARE(count(db(), "SELECT count(*) FROM messages"), 1);
        QCOMPARE(count(db(), "SELECT count(*) FROM message_search"), 1);
        QCOMPARE(count(db(), "SELECT count(*) FROM message_search WHERE message_search MATCH 'secret'"), 0);
    }

    void aDeletedFolderLeavesAtOnceAndItsRowsGoInTheBackground()
    {
        const qint64 big = addArchive();
        m_model->addChat(inbox());
        const qint64 kept = *m_model->selectedChatID();
        addMessage(db(), kept, QStringLiteral("kept words"));
        m_model->selectChat(chatsIn(big).first());

        m_model->deleteFolder(big);
        // Gone from view before any row is removed, and nothing else waits for it.
        QCOMPARE(chatsIn(big), QList<qint64>());
        QVERIFY(!m_model->selectedChatID());
        QCOMPARE(m_model->nodes().size(), 1);
        QCOMPARE(count(db(), "SELECT count(*) FROM messages"), 3001);
        QVERIFY(m_model->isPurging());
        QVERIFY(!m_model->isBusy());
        m_model->selectChat(kept);
        m_model->setComposer(QStringLiteral("hello"));
        QVERIFY(m_model->canSend());
        // A second deletion joins the first.
        m_model->deleteChat(kept);
        QVERIFY(m_model->chats().isEmpty());
        QTRY_VERIFY_WITH_TIMEOUT(!m_model->isPurging(), 60000);

        QCOMPARE(count(db(), "SELECT count(*) FROM messages"), 0);
        QCOMPARE(count(db(), "SELECT count(*) FROM chats"), 0);
        QCOMPARE(count(db(), "SELECT count(*) FROM nodes"), 1);
        QCOMPARE(count(db(), "SELECT count(*) FROM message_search"), 0);
        QVERIFY(!db().setting(DeletionQueue::settingKey));
        QCOMPARE(m_model->status(), QString());
        // No deleted word is left anywhere in the file, the search index's pages included.
        db().execute(QStringLiteral("PRAGMA wal_checkpoint(TRUNCATE);"));
        QFile file(m_dir->filePath(QStringLiteral("chats.sqlite")));
        QVERIFY(file.open(QIODevice::ReadOnly));
        QVERIFY(!file.readAll().contains("zanzibar"));
    }

    void aRemovalCutShortByQuittingGoesOnAtTheNextStart()
    {
        const qint64 big = addArchive();
        m_model->deleteFolder(big);
        turnUntilTheRemovalStarts();
        m_model.reset();
        // Tasks that wake after the model is gone end quietly.
        QTest::qWait(100);

        m_model = std::make_unique<AppModel>();
        QCOMPARE(count(db(), "SELECT count(*) FROM nodes"), 2);
        QCOMPARE(m_model->nodes().size(), 1);
        QVERIFY(m_model->chats().isEmpty());
        QVERIFY(m_model->isPurging());
        QTRY_VERIFY_WITH_TIMEOUT(!m_model->isPurging(), 60000);
        QCOMPARE(count(db(), "SELECT count(*) FROM messages"), 0);
        QCOMPARE(count(db(), "SELECT count(*) FROM nodes"), 1);
    }

    void erasingAllDataEndsARemoval()
    {
        m_model->deleteFolder(addArchive());
        turnUntilTheRemovalStarts();
        QVERIFY(awaitTask(m_model->eraseAll()));
        QVERIFY(!m_model->isPurging());
        QTest::qWait(100);
        QCOMPARE(count(db(), "SELECT count(*) FROM settings"), 0);
        QCOMPARE(m_model->nodes().size(), 1);
        QCOMPARE(count(db(), "SELECT count(*) FROM nodes"), 1);
    }

    void deletingTheOnlyFolderLeavesAnInbox()
    {
        const qint64 old = inbox();
        m_model->addChat(old);
        m_model->deleteFolder(old);
        QCOMPARE(m_model->nodes().size(), 1);
        QCOMPARE(m_model->nodes().first().name, QStringLiteral("Inbox"));
        QVERIFY(!m_model->nodes().first().parentID);
        QVERIFY(m_model->chats().isEmpty());
        QCOMPARE(m_model->selectedNodeID(), std::optional<qint64>(inbox()));
    }

    void deletingTheSelectedChatClearsTheSelection()
    {
        m_model->addChat(inbox());
        const qint64 id = *m_model->selectedChatID();
        m_model->deleteChat(id);
        QVERIFY(!m_model->selectedChatID());
        QVERIFY(m_model->chats().isEmpty());
    }

    void movingTheSelectedChat()
    {
        const auto target = m_model->addFolder(std::nullopt);
        m_model->addChat(inbox());
        const qint64 id = *m_model->selectedChatID();
        m_model->cartridgeAgentNames().insert(id, QStringLiteral("Live"));
        m_model->moveSelectedChat(target->id);
        QCOMPARE(chatRecord(id).nodeID, target->id);
        QCOMPARE(m_model->selectedNodeID(), std::optional<qint64>(target->id));
        QVERIFY(!m_model->cartridgeAgentNames().contains(id));
    }

    void aFailingCommandKeepsTheTreeAndShowsTheError()
    {
        m_model->addChat(inbox());
        const QList<Node> nodesBefore = m_model->nodes();
        const QList<Chat> chatsBefore = m_model->chats();
        db().execute(QStringLiteral(
            "CREATE TRIGGER refuse BEFORE UPDATE ON nodes BEGIN SELECT RAISE(ABORT, 'read-only'); END"));
        m_model->renameNode(inbox(), QStringLiteral("Elsewhere"));
        m_model->setNodePrompt(inbox(), QStringLiteral("P"));
        QCOMPARE(m_model->status(), QStringLiteral("read-only"));
        QVERIFY(m_model->statusIsError());
        QCOMPARE(m_model->nodes(), nodesBefore);
        QCOMPARE(m_model->chats(), chatsBefore);
    }

    void lockedFoldersKeepTheirChatsAway()
    {
        const auto locked = m_model->addFolder(std::nullopt);
        const auto inside = m_model->addFolder(locked->id);
        m_model->addChat(inside->id);
        const qint64 id = *m_model->selectedChatID();
        m_model->addChat(inbox());
        const qint64 plain = *m_model->selectedChatID();
        // The flags as locking leaves them (empty texts need no encryption).
        db().execute(QStringLiteral("UPDATE nodes SET locked=1, sealed=1 WHERE id=?"), {DBValue::integer(locked->id)});
        db().execute(QStringLiteral("UPDATE nodes SET sealed=1 WHERE id=?"), {DBValue::integer(inside->id)});
        db().execute(QStringLiteral("UPDATE chats SET sealed=1 WHERE id=?"), {DBValue::integer(id)});
        m_model->reload();

        QVERIFY(m_model->isLockedAway(chatRecord(id)));
        QVERIFY(!m_model->isLockedAway(chatRecord(plain)));
        const Node insideNode = *std::ranges::find(m_model->nodes(), inside->id, &Node::id);
        QCOMPARE(m_model->lockedFolder(insideNode)->id, locked->id);
        QVERIFY(!m_model->lockedFolder(m_model->nodes().first()));
        m_model->selectChat(id);
        QCOMPARE(m_model->selectedChatID(), std::optional<qint64>(plain));

        const qsizetype folders = m_model->nodes().size();
        QVERIFY(!m_model->addFolder(inside->id));
        m_model->addChat(inside->id);
        QCOMPARE(m_model->nodes().size(), folders);
        QCOMPARE(m_model->chats().size(), 2);
        const LockSheet expected{.kind = LockSheet::Unlock,
                                 .purpose = {.kind = UnlockPurpose::Open, .folderID = locked->id}};
        QCOMPARE(m_model->lockSheet(), std::optional<LockSheet>(expected));

        // A sealed chat whose folder is gone cannot be opened at all.
        db().execute(QStringLiteral("PRAGMA foreign_keys = OFF"));
        db().execute(QStringLiteral("DELETE FROM nodes WHERE id=?"), {DBValue::integer(inside->id)});
        m_model->reload();
        QVERIFY(m_model->isLockedAway(chatRecord(id)));
    }
};

QTEST_GUILESS_MAIN(TestAppTree)
#include "tst_app_tree.moc"
