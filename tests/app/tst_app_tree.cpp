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

    ChatTree *m_tree = nullptr;

    Database &db() { return m_model->database(); }
    qint64 inbox() const { return m_tree->nodes().first().id; }
    Chat chatRecord(qint64 id) const { return *m_tree->chat(id); }
    /// A new chat in `folderID`, selected.
    qint64 newChat(qint64 folderID)
    {
        m_tree->addChat(folderID);
        return m_tree->selectedChatID();
    }
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
        for (const Chat &chat : m_tree->chats())
            if (chat.nodeID == nodeID)
                ids.append(chat.id);
        return ids;
    }

    /// A folder "Archive" of 5 chats with 600 messages each, all with a word found nowhere else.
    qint64 addArchive()
    {
        const qint64 big = m_tree->addFolder(ChatTree::none);
        m_tree->renameNode(big, QStringLiteral("Archive"));
        db().execute(QStringLiteral("BEGIN"));
        for (int c = 0; c < 5; ++c) {
            const qint64 chat = db().addChat(big, QStringLiteral("Old %1").arg(c));
            for (int m = 0; m < 600; ++m)
                addMessage(db(), chat, QStringLiteral("zanzibar%1 archived words").arg(m));
        }
        db().execute(QStringLiteral("COMMIT"));
        m_tree->reload();
        return big;
    }

private Q_SLOTS:
    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        qputenv("CORVANE_DATA_DIR", m_dir->path().toUtf8());
        m_model = std::make_unique<AppModel>();
        m_tree = m_model->tree();
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

        m_model->settings()->setGlobalAgentName(globalName);
        m_model->settings()->setGlobalPrompt(globalPrompt);
        const qint64 outer = m_tree->addFolder(ChatTree::none);
        const qint64 inner = m_tree->addFolder(outer);
        m_tree->setNodeAgentName(outer, outerFolder[0]);
        m_tree->setNodePrompt(outer, outerFolder[1]);
        m_tree->setNodeAgentName(inner, innerFolder[0]);
        m_tree->setNodePrompt(inner, innerFolder[1]);
        const qint64 chatID = newChat(inner);
        m_tree->setChatPrompt(chatID, chat[0]);
        db().setChatFields({{QStringLiteral("cartridge_agent_name"), chat[1]}}, {}, chatID);
        m_tree->reload();
        if (!runtimeName.isEmpty())
            m_tree->cartridgeAgentNames().insert(chatID, runtimeName);

        QCOMPARE(m_tree->effectivePrompt(chatRecord(chatID)), expected);
        QVERIFY(!m_model->status()->isError());
    }

    void scriptContextNamesTheInheritedAssistant()
    {
        const qint64 folder = m_tree->addFolder(ChatTree::none);
        m_tree->setNodeAgentName(folder, QStringLiteral(" Ada "));
        const qint64 chatID = newChat(folder);
        db().setChatFields({{QStringLiteral("cartridge_agent_name"), QStringLiteral("Bot")}}, {}, chatID);
        addMessage(db(), chatID, QStringLiteral("hello"));
        m_tree->reload();
        m_model->chat()->loadMessages();
        ChatSession &session = *m_model->chat();
        const QJsonObject context = session.cartridgeContext(chatRecord(chatID), session.messages()).toJson();
        // A script sees the name it would inherit, not one a script set earlier.
        QCOMPARE(context.value("agent").toObject().value("name").toString(), QStringLiteral("Ada"));
        QCOMPARE(context.value("chat").toObject().value("title").toString(), QStringLiteral("New chat"));
        QCOMPARE(context.value("turn").toInteger(), 1);
        QCOMPARE(context.value("messages").toArray().size(), 1);
    }

    void parentCyclesEndTheWalks()
    {
        const qint64 a = m_tree->addFolder(ChatTree::none);
        const qint64 b = m_tree->addFolder(a);
        m_tree->setNodePrompt(a, QStringLiteral("A"));
        m_tree->setNodePrompt(b, QStringLiteral("B"));
        db().execute(QStringLiteral("UPDATE nodes SET parent_id=? WHERE id=?"), {DBValue::integer(b), DBValue::integer(a)});
        const qint64 chatID = newChat(b);
        m_tree->reload();

        // Each folder once, from the one found first going up down to the chat's own.
        QCOMPARE(m_tree->effectivePrompt(chatRecord(chatID)),
                 QStringLiteral("Your name is Corvane.\n\nYou are a thoughtful, concise companion.\n\nA\n\nB"));
        QCOMPARE(m_tree->effectiveAgentName(m_tree->selectedNode()), QStringLiteral("Corvane"));
        QVERIFY(!m_tree->cartridgeFolder(b));
        QVERIFY(!m_tree->lockedFolder(*m_tree->selectedNode()));
        QCOMPARE(m_tree->subtreeIDs(a), (QSet<qint64>{a, b}));
    }

    void subtreeAndScriptFolder()
    {
        const qint64 a = m_tree->addFolder(ChatTree::none);
        const qint64 b = m_tree->addFolder(a);
        const qint64 c = m_tree->addFolder(b);
        const qint64 sibling = m_tree->addFolder(a);
        QCOMPARE(m_tree->subtreeIDs(a), (QSet<qint64>{a, b, c, sibling}));

        db().execute(QStringLiteral("UPDATE nodes SET cartridge_source=? WHERE id=?"),
                     {DBValue::text("module.exports = {}"), DBValue::integer(a)});
        newChat(c);
        QCOMPARE(m_tree->cartridgeFolder(c)->id, a);
        QCOMPARE(m_tree->selectedChat()->cartridgeFolderID, std::optional<qint64>(a));
        QCOMPARE(m_tree->cartridgeSource(*m_tree->selectedChat()), QStringLiteral("module.exports = {}"));
        QVERIFY(m_tree->folderHasContents(a));
        QVERIFY(m_tree->folderHasContents(c)); // holds a chat
        QVERIFY(!m_tree->folderHasContents(sibling));
    }

    void addChatWithoutAFolderUsesTheFirst()
    {
        m_tree->addFolder(ChatTree::none);
        QCOMPARE(m_tree->selectedNodeID(), ChatTree::none);
        m_tree->addChat(ChatTree::none);
        QCOMPARE(m_tree->selectedChat()->nodeID, inbox());
        QCOMPARE(m_tree->selectedChat()->title, QStringLiteral("New chat"));
        QCOMPARE(m_tree->selectedNodeID(), inbox());
    }

    void renamingTrimsAndIgnoresBlanks()
    {
        const qint64 chatID = newChat(inbox());
        m_tree->renameNode(inbox(), QStringLiteral("  Work \n"));
        m_tree->renameChat(chatID, QStringLiteral("\tPlans "));
        m_tree->renameNode(inbox(), QStringLiteral(" \n"));
        m_tree->renameChat(chatID, QString());
        QCOMPARE(m_tree->nodes().first().name, QStringLiteral("Work"));
        QCOMPARE(chatRecord(chatID).title, QStringLiteral("Plans"));
    }

    void aDeletedFolderLeavesAtOnceAndItsRowsGoInTheBackground()
    {
        const qint64 big = addArchive();
        const qint64 kept = newChat(inbox());
        addMessage(db(), kept, QStringLiteral("kept words"));
        m_tree->selectChat(chatsIn(big).first());
        QVERIFY(!m_model->chat()->messages().isEmpty());

        m_tree->deleteFolder(big);
        // Gone from view before any row is removed, and nothing else waits for it.
        QCOMPARE(chatsIn(big), QList<qint64>());
        QCOMPARE(m_tree->selectedChatID(), ChatTree::none);
        QVERIFY(m_model->chat()->messages().isEmpty());
        QCOMPARE(m_tree->selectedNodeID(), inbox());
        QCOMPARE(m_tree->nodes().size(), 1);
        QCOMPARE(count(db(), "SELECT count(*) FROM messages"), 3001);
        QVERIFY(m_tree->isPurging());
        QVERIFY(!m_model->isBusy());
        m_tree->selectChat(kept);
        m_model->chat()->setComposer(QStringLiteral("hello"));
        QVERIFY(m_model->chat()->canSend());
        // A second deletion joins the first.
        m_tree->deleteChat(kept);
        QVERIFY(m_tree->chats().isEmpty());
        QTRY_VERIFY_WITH_TIMEOUT(!m_tree->isPurging(), 60000);

        QCOMPARE(count(db(), "SELECT count(*) FROM messages"), 0);
        QCOMPARE(count(db(), "SELECT count(*) FROM chats"), 0);
        QCOMPARE(count(db(), "SELECT count(*) FROM nodes"), 1);
        QCOMPARE(count(db(), "SELECT count(*) FROM message_search"), 0);
        QVERIFY(!db().setting(DeletionQueue::settingKey));
        QCOMPARE(m_model->status()->text(), QString());
        // No deleted word is left anywhere in the file, the search index's pages included.
        db().execute(QStringLiteral("PRAGMA wal_checkpoint(TRUNCATE);"));
        QFile file(m_dir->filePath(QStringLiteral("chats.sqlite")));
        QVERIFY(file.open(QIODevice::ReadOnly));
        QVERIFY(!file.readAll().contains("zanzibar"));
    }

    void aRemovalCutShortByQuittingGoesOnAtTheNextStart()
    {
        const qint64 big = addArchive();
        m_tree->deleteFolder(big);
        turnUntilTheRemovalStarts();
        m_model.reset();
        // Tasks that wake after the model is gone end quietly.
        QTest::qWait(100);

        m_model = std::make_unique<AppModel>();
        m_tree = m_model->tree();
        QCOMPARE(count(db(), "SELECT count(*) FROM nodes"), 2);
        QCOMPARE(m_tree->nodes().size(), 1);
        QVERIFY(m_tree->chats().isEmpty());
        QVERIFY(m_tree->isPurging());
        QTRY_VERIFY_WITH_TIMEOUT(!m_tree->isPurging(), 60000);
        QCOMPARE(count(db(), "SELECT count(*) FROM messages"), 0);
        QCOMPARE(count(db(), "SELECT count(*) FROM nodes"), 1);
    }

    void erasingAllDataEndsARemoval()
    {
        m_tree->deleteFolder(addArchive());
        turnUntilTheRemovalStarts();
        QVERIFY(awaitTask(m_model->eraseAll()));
        QVERIFY(!m_tree->isPurging());
        QTest::qWait(100);
        QCOMPARE(count(db(), "SELECT count(*) FROM settings"), 0);
        QCOMPARE(m_tree->nodes().size(), 1);
        QCOMPARE(count(db(), "SELECT count(*) FROM nodes"), 1);
    }

    void deletingTheOnlyFolderLeavesAnInbox()
    {
        const qint64 old = inbox();
        newChat(old);
        m_tree->deleteFolder(old);
        QCOMPARE(m_tree->nodes().size(), 1);
        QCOMPARE(m_tree->nodes().first().name, QStringLiteral("Inbox"));
        QVERIFY(!m_tree->nodes().first().parentID);
        QVERIFY(m_tree->chats().isEmpty());
        QCOMPARE(m_tree->selectedNodeID(), inbox());
    }

    void movingTheSelectedChat()
    {
        const qint64 target = m_tree->addFolder(ChatTree::none);
        const qint64 id = newChat(inbox());
        m_tree->cartridgeAgentNames().insert(id, QStringLiteral("Live"));
        QSignalSpy moved(m_tree, &ChatTree::chatMoved);
        m_tree->moveSelectedChat(target);
        QCOMPARE(chatRecord(id).nodeID, target);
        QCOMPARE(m_tree->selectedNodeID(), target);
        QVERIFY(!m_tree->cartridgeAgentNames().contains(id));
        QCOMPARE(moved.size(), 1);
    }

    void aFailingCommandKeepsTheTreeAndShowsTheError()
    {
        newChat(inbox());
        const QList<Node> nodesBefore = m_tree->nodes();
        const QList<Chat> chatsBefore = m_tree->chats();
        db().execute(QStringLiteral(
            "CREATE TRIGGER refuse BEFORE UPDATE ON nodes BEGIN SELECT RAISE(ABORT, 'read-only'); END"));
        m_tree->renameNode(inbox(), QStringLiteral("Elsewhere"));
        m_tree->setNodePrompt(inbox(), QStringLiteral("P"));
        QCOMPARE(m_model->status()->text(), QStringLiteral("read-only"));
        QVERIFY(m_model->status()->isError());
        QCOMPARE(m_tree->nodes(), nodesBefore);
        QCOMPARE(m_tree->chats(), chatsBefore);
    }

    void lockedFoldersKeepTheirChatsAway()
    {
        const qint64 locked = m_tree->addFolder(ChatTree::none);
        const qint64 inside = m_tree->addFolder(locked);
        const qint64 id = newChat(inside);
        const qint64 plain = newChat(inbox());
        // The flags as locking leaves them (empty texts need no encryption).
        db().execute(QStringLiteral("UPDATE nodes SET locked=1, sealed=1 WHERE id=?"), {DBValue::integer(locked)});
        db().execute(QStringLiteral("UPDATE nodes SET sealed=1 WHERE id=?"), {DBValue::integer(inside)});
        db().execute(QStringLiteral("UPDATE chats SET sealed=1 WHERE id=?"), {DBValue::integer(id)});
        m_tree->reload();

        QVERIFY(m_tree->isLockedAway(chatRecord(id)));
        QVERIFY(!m_tree->isLockedAway(chatRecord(plain)));
        const Node insideNode = *std::ranges::find(m_tree->nodes(), inside, &Node::id);
        QCOMPARE(m_tree->lockedFolder(insideNode)->id, locked);
        QVERIFY(!m_tree->lockedFolder(m_tree->nodes().first()));
        m_tree->selectChat(id);
        QCOMPARE(m_tree->selectedChatID(), plain);

        const qsizetype folders = m_tree->nodes().size();
        QCOMPARE(m_tree->addFolder(inside), ChatTree::none);
        m_tree->addChat(inside);
        QCOMPARE(m_tree->nodes().size(), folders);
        QCOMPARE(m_tree->chats().size(), 2);
        const LockSheet expected{.kind = LockSheet::Unlock,
                                 .purpose = {.kind = UnlockPurpose::Open, .folderID = locked}};
        QCOMPARE(m_model->locks()->lockSheet(), std::optional<LockSheet>(expected));

        // A sealed chat whose folder is gone cannot be opened at all.
        db().execute(QStringLiteral("PRAGMA foreign_keys = OFF"));
        db().execute(QStringLiteral("DELETE FROM nodes WHERE id=?"), {DBValue::integer(inside)});
        m_tree->reload();
        QVERIFY(m_tree->isLockedAway(chatRecord(id)));
    }
};

QTEST_GUILESS_MAIN(TestAppTree)
#include "tst_app_tree.moc"
