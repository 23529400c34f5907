// The main window on a real AppModel with a chat model "installed" (a link to the generated
// test model): a chat with a Markdown reply, the settings sheet, a delete confirmation, and a
// reply streamed from the real llama-server, sent with Enter and stopped with Escape.
// Pictures are saved under build/test-output/.
#include "app/app_model.h"
#include "app/settings_rules.h"
#include "qml_types.h"
#include "storage/database.h"
#include "support/database_rows.h"
#include "support/test_chat_model.h"
#include "window_test_support.h"

#include <QClipboard>
#include <QFontInfo>
#include <QGuiApplication>
#include <QQmlApplicationEngine>
#include <QQmlExtensionPlugin>
#include <QTemporaryDir>
#include <QTest>
#include <QWheelEvent>

Q_IMPORT_QML_PLUGIN(CorvanePlugin)

namespace {

const QString s_testModel = QStringLiteral(CORVANE_TEST_MODELS_DIR "/chat-qwen35.gguf");

const QString s_markdownReply = QStringLiteral(
    "Here is a **short** answer with a list:\n\n"
    "1. First point\n"
    "2. Second point with `inline code`\n\n"
    "```\nint main() { return 0; }\n```\n\n"
    "See [Qt](https://www.qt.io) for more.");

qint64 addAssistantMessage(Database &db, qint64 chatID, const QString &body, const QString &metadata)
{
    Message message;
    message.chatID = chatID;
    message.role = QStringLiteral("assistant");
    message.body = body;
    message.createdAt = QStringLiteral("2026-11-15T20:21:02Z");
    return db.addMessage(message, metadata);
}

} // namespace

class TestMainWindow : public WindowTest
{
    Q_OBJECT

private:
    qint64 m_markdownChat = -1;
    qint64 m_workFolder = -1;
    qint64 m_question = -1;

private Q_SLOTS:
    void initTestCase()
    {
        const QString support = useScratchData();

        // The generated model, "installed" under the catalogue entry's file name.
        QVERIFY2(QFileInfo::exists(s_testModel), qPrintable(s_testModel));
        const ModelSpec spec = linkTestChatModel(support);
        m_model = std::make_unique<AppModel>(QList<ModelSpec>{spec});
        QVERIFY(m_model->models()->hasChatModel());

        // A folder with a chat that holds a question and a Markdown answer.
        const qint64 work = m_workFolder = m_model->tree()->addFolder(-1);
        m_model->tree()->renameNode(work, QStringLiteral("Work"));
        m_model->tree()->addChat(work);
        m_markdownChat = m_model->tree()->selectedChatID();
        m_model->tree()->renameChat(m_markdownChat, QStringLiteral("Markdown answers"));
        m_question = addMessage(m_model->database(), m_markdownChat, QStringLiteral("Can you show me some Markdown?"));
        addAssistantMessage(m_model->database(), m_markdownChat, s_markdownReply,
                            QStringLiteral(R"({"model":"test-chat","prompt":"Your name is Corvane.","temperature":0.7,"max_tokens":1024,)"
                                           R"x("device":"NVIDIA H100 80GB HBM3 (CUDA)","speed":{"first_token_ms":420,"tokens":30,"tokens_per_second":31.2}})x"));
        m_model->tree()->reload();
        m_model->chat()->loadMessages();

        showWindow();
    }

    void showsTheChatWithItsMessages()
    {
        QTRY_VERIFY(findItem(m_window, QStringLiteral("messageList")));
        QQuickItem *list = findItem(m_window, QStringLiteral("messageList"));
        QTRY_COMPARE(list->property("count").toInt(), 2);
        QCOMPARE(textOf(QStringLiteral("chatTitle")), QStringLiteral("Markdown answers"));
        QVERIFY(!findItem(m_window, QStringLiteral("noChatSelected"))->isVisible());
        QVERIFY(!findItem(m_window, QStringLiteral("emptyChat"))->isVisible());
        // The sidebar lists Inbox, Work and the chat.
        QTRY_COMPARE(findItem(m_window, QStringLiteral("sidebarList"))->property("count").toInt(), 3);
        savePicture(QStringLiteral("main-window.png"));
    }

    void screenReadersHearOnlyWhatIsShown()
    {
        QAccessible::setActive(true);
        QCOMPARE(hiddenAccessibleItems(m_window), QStringList());
    }

    void whatTheModelSaw()
    {
        QVERIFY(QMetaObject::invokeMethod(findItem(m_window, QStringLiteral("metadataButton")), "clicked"));
        QTRY_VERIFY(findObject(m_window, QStringLiteral("metadataPopup"))->property("opened").toBool());
        const QString speed = QStringLiteral("0.42 s to first token · 31.2 tokens/s");
        QCOMPARE(textOf(QStringLiteral("metadataText")),
                 QStringLiteral("Model: test-chat\nTemperature: 0.7\nMaximum tokens: 1024\nSpeed: %1\n"
                                "Ran on: NVIDIA H100 80GB HBM3 (CUDA)\n\nPrompt:\nYour name is Corvane.").arg(speed));
        closePopup(QStringLiteral("metadataPopup"));
        QCOMPARE(textOf(QStringLiteral("replySpeed")), speed);
    }

    void codeBlocksAndCopying()
    {
        // The fenced code has a box of its own, in a fixed-width font, with a copy button.
        QQuickItem *code = findItem(m_window, QStringLiteral("codeText"));
        QVERIFY(code && code->isVisible());
        QCOMPARE(code->property("text").toString(), QStringLiteral("int main() { return 0; }"));
        QVERIFY(QFontInfo(code->property("font").value<QFont>()).fixedPitch());
        QVERIFY(QMetaObject::invokeMethod(findItem(m_window, QStringLiteral("copyCodeButton")), "clicked"));
        QCOMPARE(QGuiApplication::clipboard()->text(), QStringLiteral("int main() { return 0; }"));
        QCOMPARE(textOf(QStringLiteral("copyCodeButton")), QStringLiteral("Copied"));
        // The prose around it is still Markdown.
        QStringList prose;
        for (QQuickItem *item : findItems(m_window, QStringLiteral("messageText")))
            prose << item->property("text").toString().trimmed(); // as the document writes it back
        QVERIFY(prose.contains(QStringLiteral("See [Qt](https://www.qt.io) for more.")));

        // Copy takes the whole message as written.
        QStringList copied;
        for (QQuickItem *button : findItems(m_window, QStringLiteral("copyMessageButton"))) {
            QVERIFY(QMetaObject::invokeMethod(button, "clicked"));
            copied << QGuiApplication::clipboard()->text();
        }
        copied.sort();
        QCOMPARE(copied, (QStringList{QStringLiteral("Can you show me some Markdown?"), s_markdownReply}));
        savePicture(QStringLiteral("code-block.png"));
    }

    void privacyNote()
    {
        QVERIFY(QMetaObject::invokeMethod(findItem(m_window, QStringLiteral("privacyButton")), "clicked"));
        QTRY_VERIFY(findObject(m_window, QStringLiteral("privacyNote"))->property("opened").toBool());
        QVERIFY(textOf(QStringLiteral("privacyNoteText")).startsWith(QStringLiteral("Your chats, prompts, and recordings stay on this computer.")));
        closePopup(QStringLiteral("privacyNote"));
    }

    void settingsSheetShowsTheSettings()
    {
        QTest::keyClick(m_window, Qt::Key_Comma, Qt::ControlModifier);
        QTRY_VERIFY(isOpened(QStringLiteral("settingsSheet")));
        QCOMPARE(object(QStringLiteral("contextChoice"))->property("displayText").toString(),
                 QStringLiteral("16K tokens (+0.3 GB)"));
        QCOMPARE(object(QStringLiteral("maxResponseChoice"))->property("displayText").toString(),
                 QStringLiteral("1024 tokens"));
        QCOMPARE(textOf(QStringLiteral("globalAgentNameField")), QStringLiteral("Corvane"));
        QCOMPARE(object(QStringLiteral("deviceChoice"))->property("displayText").toString(), QStringLiteral("Automatic"));
        QTRY_VERIFY(textOf(QStringLiteral("deviceNote")).startsWith(QStringLiteral("Replies run on CPU")));
        savePicture(QStringLiteral("settings.png"));
        closePopup(QStringLiteral("settingsSheet"));
    }

    void deleteConfirmation_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("text");
        QTest::newRow("chat") << "chat" << "Markdown answers"
                              << "Delete “Markdown answers” and its messages? This cannot be undone.";
        QTest::newRow("folder") << "folder" << "Work"
                                << "Delete “Work” and all of its chats and subfolders? This cannot be undone.";
    }

    void deleteConfirmation()
    {
        QFETCH(QString, kind);
        QFETCH(QString, name);
        QFETCH(QString, text);
        QObject *sidebar = findObject(m_window, QStringLiteral("sidebar"));
        QVERIFY(sidebar);
        const qint64 id = kind == QLatin1String("chat") ? m_markdownChat : m_workFolder;
        QVERIFY(QMetaObject::invokeMethod(sidebar, "confirmDelete", Q_ARG(QString, kind), Q_ARG(double, double(id)),
                                          Q_ARG(QString, name)));
        QObject *dialog = findObject(m_window, QStringLiteral("deleteDialog"));
        QTRY_VERIFY(dialog->property("opened").toBool());
        QCOMPARE(dialog->property("title").toString(), QStringLiteral("Delete “%1”?").arg(name));
        QCOMPARE(textOf(QStringLiteral("deleteDialogText")), text);
        if (kind == QLatin1String("folder"))
            savePicture(QStringLiteral("delete-folder.png"));
        // Cancel keeps everything.
        QVERIFY(QMetaObject::invokeMethod(findObject(m_window, QStringLiteral("deleteDialogCancel")), "clicked"));
        QTRY_VERIFY(!dialog->property("visible").toBool());
        QCOMPARE(m_model->tree()->chats().size(), 1);
    }

    void summaryMarker()
    {
        const QString summary = QStringLiteral("The user asked to see Markdown.");
        m_model->database().setChatSummary(summary, m_question, m_markdownChat);
        m_model->tree()->reload();
        QQuickItem *marker = findItem(m_window, QStringLiteral("summaryMarker"));
        QVERIFY(marker);
        QTRY_VERIFY(marker->isVisible());
        QVERIFY(QMetaObject::invokeMethod(marker, "clicked"));
        QObject *popup = findObject(m_window, QStringLiteral("summaryPopup"));
        QTRY_VERIFY(popup->property("opened").toBool());
        QCOMPARE(textOf(QStringLiteral("summaryText")), summary);
        savePicture(QStringLiteral("summary.png"));
        closePopup(QStringLiteral("summaryPopup"));
    }

    void inlineRename_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<int>("key");
        QTest::addColumn<QString>("expected");
        QTest::newRow("Enter renames a chat") << "chat" << int(Qt::Key_Return) << "Renamed";
        QTest::newRow("Escape keeps the title") << "chat" << int(Qt::Key_Escape) << "Renamed";
        QTest::newRow("Enter renames a folder") << "folder" << int(Qt::Key_Return) << "Renamed";
    }

    void inlineRename()
    {
        QFETCH(QString, kind);
        QFETCH(int, key);
        QFETCH(QString, expected);
        const bool chat = kind == QLatin1String("chat");
        const qint64 id = chat ? m_markdownChat : m_workFolder;
        QObject *sidebar = findObject(m_window, QStringLiteral("sidebar"));
        sidebar->setProperty("editingKey", QStringLiteral("%1:%2").arg(kind).arg(id));
        QQuickItem *field = findItem(m_window, QStringLiteral("renameField"));
        QVERIFY(field);
        QTRY_VERIFY(field->hasActiveFocus());
        type(key == Qt::Key_Escape ? QStringLiteral("Other") : QStringLiteral("Renamed"));
        QTest::keyClick(m_window, Qt::Key(key));
        QTRY_COMPARE(sidebar->property("editingKey").toString(), QString());
        QCOMPARE(chat ? m_model->tree()->chatDetails(id).value("title").toString() : m_model->tree()->folderDetails(id).value("name").toString(),
                 expected);
        if (!chat)
            m_model->tree()->renameNode(id, QStringLiteral("Work"));
    }

    void folderAndChatSettings()
    {
        QObject *sidebar = findObject(m_window, QStringLiteral("sidebar"));
        QVERIFY(QMetaObject::invokeMethod(sidebar, "openSettings", Q_ARG(QString, QStringLiteral("folder")),
                                          Q_ARG(double, double(m_workFolder))));
        QObject *folderSheet = findObject(m_window, QStringLiteral("folderSettingsSheet"));
        QTRY_VERIFY(folderSheet->property("opened").toBool());
        QCOMPARE(textOf(QStringLiteral("folderPromptNote")), QStringLiteral("Applies only to Work and everything inside it."));
        QCOMPARE(textOf(QStringLiteral("folderAgentNameNote")),
                 QStringLiteral("Leave blank to use Corvane. Nested folders and chats inherit this name and prompt "
                                "unless they set their own."));
        findObject(m_window, QStringLiteral("folderPromptField"))->setProperty("text", QStringLiteral("Be brief."));
        findObject(m_window, QStringLiteral("folderAgentNameField"))->setProperty("text", QStringLiteral("Ada"));
        savePicture(QStringLiteral("folder-settings.png"));
        QVERIFY(QMetaObject::invokeMethod(folderSheet, "accept"));
        QTRY_VERIFY(!folderSheet->property("visible").toBool());
        QCOMPARE(m_model->tree()->folderDetails(m_workFolder).value("prompt").toString(), QStringLiteral("Be brief."));
        QCOMPARE(m_model->tree()->folderDetails(m_workFolder).value("agentName").toString(), QStringLiteral("Ada"));
        QCOMPARE(m_model->chat()->agentName(), QStringLiteral("Ada"));
        QCOMPARE(findObject(m_window, QStringLiteral("composerInput"))->property("placeholderText").toString(),
                 QStringLiteral("Message Ada"));

        QVERIFY(QMetaObject::invokeMethod(sidebar, "openSettings", Q_ARG(QString, QStringLiteral("chat")),
                                          Q_ARG(double, double(m_markdownChat))));
        QObject *chatSheet = findObject(m_window, QStringLiteral("chatSettingsSheet"));
        QTRY_VERIFY(chatSheet->property("opened").toBool());
        findObject(m_window, QStringLiteral("chatPromptField"))->setProperty("text", QStringLiteral("Use lists."));
        findObject(m_window, QStringLiteral("autoSpeakSwitch"))->setProperty("checked", true);
        QVERIFY(QMetaObject::invokeMethod(chatSheet, "accept"));
        QTRY_VERIFY(!chatSheet->property("visible").toBool());
        QCOMPARE(m_model->tree()->chatDetails(m_markdownChat).value("prompt").toString(), QStringLiteral("Use lists."));
        QVERIFY(m_model->tree()->chatDetails(m_markdownChat).value("autoSpeakReplies").toBool());

        m_model->tree()->setNodeAgentName(m_workFolder, QString());
    }

    void newFolderShortcutStartsRenaming()
    {
        const qsizetype before = m_model->tree()->nodes().size();
        QTest::keyClick(m_window, Qt::Key_N, Qt::ControlModifier | Qt::ShiftModifier);
        QTRY_COMPARE(m_model->tree()->nodes().size(), before + 1);
        const qint64 id = m_model->tree()->nodes().last().id;
        QObject *sidebar = findObject(m_window, QStringLiteral("sidebar"));
        QCOMPARE(sidebar->property("editingKey").toString(), QStringLiteral("folder:%1").arg(id));
        QTRY_VERIFY(findItem(m_window, QStringLiteral("renameField"))->hasActiveFocus());
        type(QStringLiteral("Ideas"));
        QTest::keyClick(m_window, Qt::Key_Return);
        QTRY_COMPARE(m_model->tree()->folderDetails(id).value("name").toString(), QStringLiteral("Ideas"));
    }

    void keyboardDrivesTheSidebar()
    {
        // Rows now: Inbox, Work, its chat "Markdown answers", Ideas.
        QQuickItem *list = findItem(m_window, QStringLiteral("sidebarList"));
        QObject *sidebar = findObject(m_window, QStringLiteral("sidebar"));
        QTest::keyClick(m_window, Qt::Key_1, Qt::ControlModifier);
        QTRY_VERIFY(list->hasActiveFocus());
        QCOMPARE(list->property("currentIndex").toInt(), 2);

        QTest::keyClick(m_window, Qt::Key_Up);
        QTRY_COMPARE(m_model->tree()->selectedNodeID(), m_workFolder);
        const int rows = list->property("count").toInt();
        QTest::keyClick(m_window, Qt::Key_Left);
        QTRY_COMPARE(list->property("count").toInt(), rows - 1);
        QTest::keyClick(m_window, Qt::Key_Right);
        QTRY_COMPARE(list->property("count").toInt(), rows);

        QTest::keyClick(m_window, Qt::Key_Down);
        QTRY_COMPARE(m_model->tree()->selectedChatID(), m_markdownChat);
        QTest::keyClick(m_window, Qt::Key_F2);
        QCOMPARE(sidebar->property("editingKey").toString(), QStringLiteral("chat:%1").arg(m_markdownChat));
        QTRY_VERIFY(findItem(m_window, QStringLiteral("renameField"))->hasActiveFocus());
        QTest::keyClick(m_window, Qt::Key_Escape);
        QTRY_COMPARE(sidebar->property("editingKey").toString(), QString());

        QTest::keyClick(m_window, Qt::Key_1, Qt::ControlModifier);
        QTRY_VERIFY(list->hasActiveFocus());
        QTest::keyClick(m_window, Qt::Key_Delete);
        QObject *dialog = findObject(m_window, QStringLiteral("deleteDialog"));
        QTRY_VERIFY(dialog->property("opened").toBool());
        QCOMPARE(dialog->property("title").toString(),
                 QStringLiteral("Delete “%1”?").arg(m_model->tree()->chatDetails(m_markdownChat).value("title").toString()));
        closePopup(QStringLiteral("deleteDialog"));

        QTest::keyClick(m_window, Qt::Key_1, Qt::ControlModifier);
        QTRY_VERIFY(list->hasActiveFocus());
        QTest::keyClick(m_window, Qt::Key_F10, Qt::ShiftModifier);
        QTRY_VERIFY(findObject(m_window, QStringLiteral("chatMenu"))->property("opened").toBool());
        closePopup(QStringLiteral("chatMenu"));

        QTest::keyClick(m_window, Qt::Key_1, Qt::ControlModifier);
        QTRY_VERIFY(list->hasActiveFocus());
        QTest::keyClick(m_window, Qt::Key_Return);
        QTRY_VERIFY(findItem(m_window, QStringLiteral("composerInput"))->hasActiveFocus());
        QCOMPARE(m_model->tree()->chats().size(), 1);
    }

    void dragChatOntoFolder()
    {
        QQuickItem *list = findItem(m_window, QStringLiteral("sidebarList"));
        QQuickItem *inbox = nullptr;
        QQuickItem *chat = nullptr;
        QVERIFY(QMetaObject::invokeMethod(list, "itemAtIndex", Q_RETURN_ARG(QQuickItem *, inbox), Q_ARG(int, 0)));
        QVERIFY(QMetaObject::invokeMethod(list, "itemAtIndex", Q_RETURN_ARG(QQuickItem *, chat), Q_ARG(int, 2)));
        QVERIFY(inbox && chat);
        QCOMPARE(chat->property("itemID").toLongLong(), m_markdownChat);
        const QPoint from = chat->mapToScene(QPointF(40, chat->height() / 2)).toPoint();
        const QPoint to = inbox->mapToScene(QPointF(40, inbox->height() / 2)).toPoint();
        QTest::mousePress(m_window, Qt::LeftButton, {}, from);
        for (int step = 1; step <= 10; ++step)
            QTest::mouseMove(m_window, from + (to - from) * step / 10, 10);
        QTest::mouseRelease(m_window, Qt::LeftButton, {}, to, 10);
        QTRY_COMPARE(std::ranges::find(m_model->tree()->chats(), m_markdownChat, &Chat::id)->nodeID, m_model->tree()->nodes().first().id);
    }

    void followsTheEndUnlessScrolledUp()
    {
        // The offscreen window lays views out when it draws; each check draws a frame first.
        QQuickItem *list = findItem(m_window, QStringLiteral("messageList"));
        const auto drawn = [this](auto value) {
            m_window->grabWindow();
            return value();
        };
        const auto atEnd = [list] { return list->property("atYEnd").toBool(); };
        const auto count = [list] { return list->property("count").toInt(); };

        m_model->tree()->addChat(-1);
        const qint64 chat = m_model->tree()->selectedChatID();
        for (int i = 0; i < 40; ++i)
            addMessage(m_model->database(), chat, QStringLiteral("Message number %1").arg(i));
        m_model->tree()->reload();
        m_model->chat()->loadMessages();
        QTRY_COMPARE(count(), 40);
        QTRY_VERIFY(drawn(atEnd));
        QVERIFY(list->property("contentHeight").toReal() > 2 * list->height());

        // New messages at the end keep the view there.
        addMessage(m_model->database(), chat, QStringLiteral("One more"));
        m_model->tree()->reload();
        m_model->chat()->loadMessages();
        QTRY_COMPARE(count(), 41);
        QTRY_VERIFY(drawn(atEnd));

        // Scrolled up with the wheel, the view stays where the user put it.
        const QPointF centre = list->mapToScene(QPointF(10, list->height() / 2));
        for (int i = 0; i < 5; ++i) {
            QWheelEvent wheel(centre, m_window->mapToGlobal(centre), QPoint(), QPoint(0, 120), Qt::NoButton,
                              Qt::NoModifier, Qt::NoScrollPhase, false);
            wheel.setTimestamp(1000 + 50 * i);
            QCoreApplication::sendEvent(m_window, &wheel);
        }
        QTRY_VERIFY(drawn([list] { return !list->property("moving").toBool(); }));
        QVERIFY(!drawn(atEnd));
        const qreal position = list->property("contentY").toReal();
        addMessage(m_model->database(), chat, QStringLiteral("And another"));
        m_model->tree()->reload();
        m_model->chat()->loadMessages();
        QTRY_COMPARE(count(), 42);
        QTest::qWait(100);
        QCOMPARE(drawn([list] { return list->property("contentY").toReal(); }), position);
        QVERIFY(!drawn(atEnd));
    }

    void streamsAReplyAndStops()
    {
        m_model->settings()->setMaxResponseTokens(2048);
        const qint64 before = m_model->tree()->selectedChatID();
        QTest::keyClick(m_window, Qt::Key_N, Qt::ControlModifier);
        QTRY_VERIFY(m_model->tree()->selectedChatID() != before);
        QTRY_VERIFY(findItem(m_window, QStringLiteral("emptyChat"))->isVisible());
        QCOMPARE(textOf(QStringLiteral("emptyChatHeading")), QStringLiteral("Start a conversation"));
        QTest::keyClick(m_window, Qt::Key_L, Qt::ControlModifier);
        QQuickItem *input = findItem(m_window, QStringLiteral("composerInput"));
        QTRY_VERIFY(input->hasActiveFocus());

        // Shift+Enter is a line break; Enter sends.
        type(QStringLiteral("Hello"));
        QTest::keyClick(m_window, Qt::Key_Return, Qt::ShiftModifier);
        type(QStringLiteral("there"));
        QCOMPARE(m_model->chat()->composer(), QStringLiteral("Hello\nthere"));
        QVERIFY(m_model->chat()->canSend());
        QTest::keyClick(m_window, Qt::Key_Return);
        QCOMPARE(m_model->chat()->composer(), QString());
        QVERIFY(m_model->chat()->isGenerating());
        QCOMPARE(textOf(QStringLiteral("sendButton")), QStringLiteral("Stop"));

        // The live reply row shows the text as it streams in.
        QQuickItem *list = findItem(m_window, QStringLiteral("messageList"));
        QTRY_COMPARE(list->property("count").toInt(), 1);
        QTRY_VERIFY_WITH_TIMEOUT(!m_model->chat()->liveReply().isEmpty() || !m_model->chat()->isGenerating(), 60000);
        QQuickItem *live = findItem(m_window, QStringLiteral("liveReply"));
        QVERIFY(live);
        if (m_model->chat()->isGenerating())
            QVERIFY(live->isVisible());
        QTRY_VERIFY_WITH_TIMEOUT(!m_model->chat()->isGenerating(), 120000);
        QVERIFY2(!m_model->status()->isError(), qPrintable(m_model->status()->text()));
        QTRY_COMPARE(list->property("count").toInt(), 2);
        const QList<Message> stored = m_model->chat()->visibleMessages();
        QCOMPARE(stored.first().body, QStringLiteral("Hello\nthere"));
        QCOMPARE(stored.last().role, QStringLiteral("assistant"));
        QVERIFY(!live->isVisible());
        // The chat took its name from the first line, and the reply shows its speed.
        QTRY_COMPARE(textOf(QStringLiteral("chatTitle")), QStringLiteral("Hello"));
        QTRY_VERIFY(textOf(QStringLiteral("replySpeed")).endsWith(QStringLiteral(" tokens/s")));
        QVERIFY(findItem(m_window, QStringLiteral("regenerateButton"))->isVisible());
        savePicture(QStringLiteral("streamed-reply.png"));

        // Ctrl+R writes the reply again; Escape stops that, and the reply it had stays.
        const Message reply = stored.last();
        QTest::keyClick(m_window, Qt::Key_R, Qt::ControlModifier);
        QVERIFY(m_model->chat()->isGenerating());
        QTRY_VERIFY_WITH_TIMEOUT(!m_model->chat()->liveReply().isEmpty(), 60000);
        QVERIFY(live->isVisible());
        QTRY_VERIFY(live->property("text").toString() != QStringLiteral("…"));
        savePicture(QStringLiteral("live-reply.png"), 0);
        QTest::keyClick(m_window, Qt::Key_Escape);
        QTRY_VERIFY_WITH_TIMEOUT(!m_model->chat()->isGenerating(), 30000);
        QCOMPARE(m_model->status()->text(), QStringLiteral("Stopped"));
        QCOMPARE(textOf(QStringLiteral("statusText")), QStringLiteral("Stopped"));
        QCOMPARE(textOf(QStringLiteral("sendButton")), QStringLiteral("Send"));
        QCOMPARE(m_model->chat()->visibleMessages().last(), reply);

        // Up in the empty composer edits the last message; Enter resends it.
        QTRY_VERIFY(input->hasActiveFocus());
        QTest::keyClick(m_window, Qt::Key_Up);
        QTRY_VERIFY(findItem(m_window, QStringLiteral("editingBar"))->isVisible());
        QCOMPARE(m_model->chat()->composer(), QStringLiteral("Hello\nthere"));
        QCOMPARE(textOf(QStringLiteral("sendButton")), QStringLiteral("Resend"));
        savePicture(QStringLiteral("editing.png"));
        QTest::keyClick(m_window, Qt::Key_A, Qt::ControlModifier);
        type(QStringLiteral("Hi"));
        m_model->settings()->setMaxResponseTokens(64);
        QTest::keyClick(m_window, Qt::Key_Return);
        QVERIFY(m_model->chat()->isGenerating());
        QVERIFY(!findItem(m_window, QStringLiteral("editingBar"))->isVisible());
        QTRY_VERIFY_WITH_TIMEOUT(!m_model->chat()->isGenerating(), 120000);
        const QList<Message> revised = m_model->chat()->visibleMessages();
        QCOMPARE(revised.size(), 2);
        QCOMPARE(revised.first().body, QStringLiteral("Hi"));
        QVERIFY(revised.last().id > reply.id);
        QCOMPARE(textOf(QStringLiteral("chatTitle")), QStringLiteral("Hello"));
    }

    // Last: it removes everything, the link to the test model included (never its target).
    void eraseAllDataReturnsToTheFirstRunScreen()
    {
        QTRY_VERIFY(!m_model->isBusy());
        QTest::keyClick(m_window, Qt::Key_Comma, Qt::ControlModifier);
        QTRY_VERIFY(findObject(m_window, QStringLiteral("settingsSheet"))->property("opened").toBool());
        QVERIFY(QMetaObject::invokeMethod(findObject(m_window, QStringLiteral("eraseButton")), "clicked"));
        QObject *dialog = findObject(m_window, QStringLiteral("eraseDialog"));
        QTRY_VERIFY(dialog->property("opened").toBool());
        QCOMPARE(dialog->property("title").toString(), QStringLiteral("Erase all Corvane data?"));
        QCOMPARE(textOf(QStringLiteral("eraseDialogText")),
                 QStringLiteral("This permanently deletes all chats, folders, scripts, prompts, settings, and downloaded "
                                "models from this computer. You will need to download models again."));
        QVERIFY(QMetaObject::invokeMethod(findObject(m_window, QStringLiteral("eraseDialogAccept")), "clicked"));
        QVERIFY(m_model->isErasing());
        QVERIFY(!findObject(m_window, QStringLiteral("eraseButton"))->property("enabled").toBool());
        QTRY_VERIFY_WITH_TIMEOUT(!m_model->isErasing(), 10000);
        QCOMPARE(m_model->status()->text(), QStringLiteral("All Corvane data erased"));
        // The sheet closes, with the rest of the chat window.
        QTRY_VERIFY(!findObject(m_window, QStringLiteral("settingsSheet")));
        // Closing the sheet did not store the erased name again.
        QVERIFY(m_model->database().setting(Settings::agentNameKey) == std::nullopt);
        QVERIFY(!m_model->models()->hasChatModel());
        QCOMPARE(m_model->tree()->chats().size(), 0);
        QVERIFY(QFileInfo::exists(s_testModel));
        QTRY_VERIFY_WITH_TIMEOUT(findItem(m_window, QStringLiteral("firstRunTitle")), 2000);
        QTRY_VERIFY(!findItem(m_window, QStringLiteral("sidebar")));
    }
};

QTEST_MAIN(TestMainWindow)
#include "tst_main_window.moc"
