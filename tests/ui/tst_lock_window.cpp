// Locked folders as the user meets them in the window, on a real AppModel with real key
// derivation: locking a folder from its menu, the password rules, the recovery key, opening
// with a wrong and the right password, locking everything, resetting with the recovery key,
// changing the password in Settings, unlocking with this computer (a software TPM and a
// stand-in for polkit, on a system bus of the test's own) and removing a lock. Pictures go to
// build/test-output/. Nothing typed, shown once or held in memory (passwords, the recovery key,
// the vault key) may reach a log line or the status line on the way.
#include "app/app_model.h"
#include "qml_types.h"
#include "sidebar_model.h"
#include "storage/database.h"
#include "support/computer_unlock_stand_ins.h"
#include "support/log_capture.h"
#include "window_test_support.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QQmlApplicationEngine>
#include <QQmlExtensionPlugin>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

Q_IMPORT_QML_PLUGIN(CorvanePlugin)

namespace {

const QString s_password = QStringLiteral("correct horse");
const QString s_resetPassword = QStringLiteral("battery staple");
const QString s_changedPassword = QStringLiteral("stapled horse");
const QString s_wrongPassword = QStringLiteral("That password isn't right.");
const QString s_lockedAwayNote = QStringLiteral("Locked. Unlock this folder to see its chats.");
// A password check runs the real key derivation; locking encrypts on a worker thread.
constexpr int s_slow = 15000;

} // namespace

class TestLockWindow : public WindowTest
{
    Q_OBJECT

private:
    std::unique_ptr<LogCapture> m_log;
    QStringList m_secrets; ///< the vault key as it would be written, once seen
    ComputerUnlockStandIns m_standIns;
    qint64 m_work = -1;
    qint64 m_plans = -1;
    qint64 m_notes = -1;
    QString m_recoveryKey;

    FolderLocks *locks() const { return m_model->locks(); }
    QString text(const QString &name, const char *property = "text")
    {
        return object(name)->property(property).toString();
    }
    bool shown(const QString &name) { return object(name)->property("visible").toBool(); }
    bool isLocked(qint64 folder) { return m_model->tree()->folderDetails(folder).value("isLocked").toBool(); }

    /// The sidebar row of a folder or chat, null when it is not shown.
    QQuickItem *row(const QString &kind, qint64 id)
    {
        QQuickItem *list = findItem(m_window, "sidebarList");
        auto *rows = qobject_cast<SidebarModel *>(list->property("model").value<QObject *>());
        QQuickItem *item = nullptr;
        if (const int index = rows->rowOf(kind, id); index >= 0)
            QMetaObject::invokeMethod(list, "itemAtIndex", Q_RETURN_ARG(QQuickItem *, item), Q_ARG(int, index));
        return item;
    }
    QQuickItem *folderRow(qint64 id) { return row("folder", id); }
    QQuickItem *chatRow() { return row("chat", m_plans); }

    /// Chooses an entry of a folder's ⋯ menu, as the mouse does.
    void chooseFromMenu(qint64 folderID, const QString &entry)
    {
        click(folderRow(folderID), Qt::RightButton);
        QTRY_VERIFY(isOpened("folderMenu"));
        click(entry);
        QTRY_VERIFY(!shown("folderMenu"));
    }

    void waitForSheet(const QString &sheet, const QString &focused)
    {
        QTRY_VERIFY_WITH_TIMEOUT(isOpened(sheet), s_slow);
        QTRY_VERIFY(findItem(m_window, focused)->hasActiveFocus());
    }

    /// Asks for Work's password with a click on its row, types it and presses Return.
    void unlockWork(const QString &password)
    {
        click(folderRow(m_work));
        waitForSheet("unlockSheet", "unlockPasswordField");
        type(password);
        QTest::keyClick(m_window, Qt::Key_Return);
    }

    void setNewPassword(const QString &password)
    {
        object("newPasswordField")->setProperty("text", password);
        object("confirmPasswordField")->setProperty("text", password);
    }

private Q_SLOTS:
    void initTestCase()
    {
        // Here, not earlier: the test's own message handler must be in place to pass warnings on.
        m_log = std::make_unique<LogCapture>();
        const QString problem = m_standIns.start();
        QVERIFY2(problem.isEmpty(), qPrintable(problem));
        useScratchData();
        m_model = std::make_unique<AppModel>();
        connect(m_model->status(), &StatusBanner::changed, this, [this] { m_log->add(m_model->status()->text()); });
        QTRY_VERIFY_WITH_TIMEOUT(m_model->locks()->canUnlockWithComputer(), s_slow);
        ChatTree *tree = m_model->tree();
        m_work = tree->addFolder(-1);
        tree->renameNode(m_work, "Work");
        tree->addChat(m_work);
        m_plans = tree->selectedChatID();
        tree->renameChat(m_plans, "Plans");
        m_notes = tree->addFolder(-1);
        tree->renameNode(m_notes, "Notes");

        showWindow();
        m_window->setProperty("skippedSetup", true);
        QTRY_VERIFY(chatRow());
    }

    void passwordRules_data()
    {
        QTest::addColumn<QString>("password");
        QTest::addColumn<QString>("confirmation");
        QTest::addColumn<QString>("problem");
        QTest::newRow("nothing typed") << "" << "" << "Use at least 6 characters.";
        QTest::newRow("too short, even if confirmed") << "12345" << "12345" << "Use at least 6 characters.";
        QTest::newRow("confirmation differs") << "secret1" << "secret2" << "The passwords don't match.";
    }

    // On the set-up sheet that locking the first folder opens. Every row leaves the form
    // incomplete: the button stays off and Return submits nothing.
    void passwordRules()
    {
        QFETCH(QString, password);
        QFETCH(QString, confirmation);
        QFETCH(QString, problem);
        if (!isOpened("setUpSheet")) {
            // Settings, closed, tell how to begin and nothing of a password yet.
            QCOMPARE(text("lockStatus"), QStringLiteral("No folders locked"));
            QVERIFY(!text("lockHowTo").isEmpty() && text("lockBehaviour").isEmpty());
            QVERIFY(!shown("lockAllButton"));
            chooseFromMenu(m_work, "lockFolderItem");
            waitForSheet("setUpSheet", "newPasswordField");
            QCOMPARE(text("setUpSheet", "title"), QStringLiteral("Lock Work"));
            // Offered, since this computer can keep a seal; left off unless ticked.
            QVERIFY(shown("setUpWithComputer"));
            QVERIFY(!object("setUpWithComputer")->property("checked").toBool());
        }
        object("newPasswordField")->setProperty("text", password);
        object("confirmPasswordField")->setProperty("text", confirmation);
        QCOMPARE(text("passwordProblem"), problem);
        QVERIFY(!object("setUpSheetConfirm")->property("enabled").toBool());
        QTest::keyClick(m_window, Qt::Key_Return);
        QVERIFY(!locks()->isWorking());
        QVERIFY(isOpened("setUpSheet"));
        if (QByteArray(QTest::currentDataTag()) == "confirmation differs")
            savePicture(QStringLiteral("lock-setup.png"));
    }

    void setUpLocksTheFolder()
    {
        setNewPassword(QString());
        QTRY_VERIFY(findItem(m_window, "newPasswordField")->hasActiveFocus());
        type(s_password);
        QTest::keyClick(m_window, Qt::Key_Tab);
        type(s_password);
        QTest::keyClick(m_window, Qt::Key_Return);
        waitForSheet("recoveryKeySheet", "copyRecoveryKey");
        QVERIFY(!isOpened("setUpSheet"));
        QVERIFY(isLocked(m_work));
    }

    void recoveryKeyStaysUntilSaved()
    {
        m_recoveryKey = text("recoveryKeyText");
        QVERIFY2(QRegularExpression(QStringLiteral("^[A-Z0-9]{4}(-[A-Z0-9]{4}){7}$")).match(m_recoveryKey).hasMatch(),
                 qPrintable(m_recoveryKey));
        QVERIFY(!object("recoveryKeySheetConfirm")->property("enabled").toBool());
        QTest::keyClick(m_window, Qt::Key_Escape);
        QTest::qWait(100);
        QVERIFY(isOpened("recoveryKeySheet"));

        click("copyRecoveryKey");
        QCOMPARE(QGuiApplication::clipboard()->text(), m_recoveryKey);
        click("savedRecoveryKey");
        QTRY_VERIFY(object("recoveryKeySheetConfirm")->property("enabled").toBool());
        savePicture(QStringLiteral("recovery-key.png"));
        click("recoveryKeySheetConfirm");
        QTRY_VERIFY(!shown("recoveryKeySheet"));
        QCOMPARE(locks()->sheetKind(), int(FolderLocks::noSheet));
        QVERIFY(locks()->recoveryKey().isEmpty());

        // Locked away: the chat has left the sidebar and the key is forgotten.
        QTRY_VERIFY(!chatRow());
        QVERIFY(folderRow(m_work)->property("lockedAway").toBool());
        QVERIFY(!locks()->isUnlocked());
    }

    void unlockSheetFollowsItsPurpose_data()
    {
        QTest::addColumn<QString>("asking");
        QTest::addColumn<int>("closeKey"); // 0: the Cancel button
        QTest::addColumn<QString>("title");
        QTest::newRow("click on the row") << "click" << int(Qt::Key_Escape) << "Unlock Work";
        QTest::newRow("Enter on the row") << "Enter" << 0 << "Unlock Work";
        QTest::newRow("from its menu") << "unlockFolderItem" << int(Qt::Key_Escape) << "Unlock Work";
        QTest::newRow("locking another") << "lockFolderItem" << 0 << "Lock Notes";
    }

    // Each way of asking opens the same sheet, and each way of leaving it leaves no trace.
    void unlockSheetFollowsItsPurpose()
    {
        QFETCH(QString, asking);
        QFETCH(int, closeKey);
        QFETCH(QString, title);
        if (asking == QLatin1String("click")) {
            click(folderRow(m_work));
        } else if (asking == QLatin1String("Enter")) {
            QTest::keyClick(m_window, Qt::Key_1, Qt::ControlModifier);
            QTRY_COMPARE(object("sidebarList")->property("currentItem").value<QQuickItem *>(), folderRow(m_work));
            QTest::keyClick(m_window, Qt::Key_Return);
        } else {
            chooseFromMenu(asking == QLatin1String("lockFolderItem") ? m_notes : m_work, asking);
        }
        waitForSheet("unlockSheet", "unlockPasswordField");
        const bool locking = title.startsWith(QLatin1String("Lock "));
        QCOMPARE(locks()->sheetPurpose(), int(locking ? UnlockPurpose::Lock : UnlockPurpose::Open));
        QCOMPARE(text("unlockSheet", "title"), title);
        QCOMPARE(text("unlockSheetConfirm"), locking ? QStringLiteral("Lock") : QStringLiteral("Unlock"));
        QCOMPARE(text("unlockMessage").startsWith(QLatin1String("Enter the password you use")), locking);
        closeKey ? QTest::keyClick(m_window, Qt::Key(closeKey)) : click("unlockSheetCancel");
        QTRY_VERIFY(!shown("unlockSheet"));
        QCOMPARE(locks()->sheetKind(), int(FolderLocks::noSheet));
        QVERIFY(!isLocked(m_notes));
    }

    void wrongPasswordKeepsTheSheet()
    {
        unlockWork(QStringLiteral("wrong horse"));
        QTRY_COMPARE_WITH_TIMEOUT(text("unlockError"), s_wrongPassword, s_slow);
        QVERIFY(isOpened("unlockSheet"));
        QTRY_VERIFY(!locks()->isWorking());
        savePicture(QStringLiteral("unlock.png"));
        // Typing again clears the message; the wrong text is selected, so it is replaced.
        type(s_password);
        QCOMPARE(text("unlockError"), QString());
        QTest::keyClick(m_window, Qt::Key_Return);
        QTRY_VERIFY_WITH_TIMEOUT(!shown("unlockSheet"), s_slow);
        QTRY_VERIFY(chatRow());
        QVERIFY(locks()->isOpen(m_work));

        // The key is held while Work is open: locking Notes asks for nothing.
        chooseFromMenu(m_notes, "lockFolderItem");
        QTRY_VERIFY_WITH_TIMEOUT(isLocked(m_notes), s_slow);
        QCOMPARE(locks()->sheetKind(), int(FolderLocks::noSheet));
        QTRY_COMPARE(text("statusText"), QStringLiteral("“Notes” locked"));
    }

    void rowsTellWhatTheLockMeans_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("note");
        QTest::addColumn<QStringList>("menu"); // the lock entries of a folder's menu
        QTest::newRow("open locked folder")
            << "Work" << "Locked folder, unlocked for now. Its chats are encrypted on this computer."
            << QStringList{"lockNowItem", "removeLockItem"};
        QTest::newRow("folder locked away") << "Notes" << s_lockedAwayNote << QStringList{"unlockFolderItem"};
        QTest::newRow("plain folder") << "Inbox" << "" << QStringList{"lockFolderItem"};
        QTest::newRow("chat in a locked folder")
            << "Plans" << "In a locked folder. This chat is encrypted on this computer." << QStringList{};
    }

    void rowsTellWhatTheLockMeans()
    {
        QFETCH(QString, name);
        QFETCH(QString, note);
        QFETCH(QStringList, menu);
        const auto node = std::ranges::find(m_model->tree()->nodes(), name, &Node::name);
        QQuickItem *item = node == m_model->tree()->nodes().end() ? chatRow() : folderRow(node->id);
        QVERIFY(item);
        QCOMPARE(item->property("note").toString(), note);
        QCOMPARE(item->findChild<QQuickItem *>("lockGlyph")->isVisible(), item->property("isLocked").toBool());
        if (menu.isEmpty())
            return;
        click(item, Qt::RightButton);
        QTRY_VERIFY(isOpened("folderMenu"));
        QStringList entries;
        for (const char *entry : {"lockFolderItem", "unlockFolderItem", "lockNowItem", "removeLockItem"})
            if (shown(QLatin1String(entry)))
                entries << QLatin1String(entry);
        QCOMPARE(entries, menu);
        QTest::keyClick(m_window, Qt::Key_Escape);
        QTRY_VERIFY(!shown("folderMenu"));
    }

    void lockAllHidesTheChats()
    {
        QVERIFY(shown("lockAllButton"));
        QTest::keyClick(m_window, Qt::Key_L, Qt::ControlModifier | Qt::ShiftModifier);
        QTRY_VERIFY(!chatRow());
        QVERIFY(!locks()->isUnlocked());
        QTRY_VERIFY(!shown("lockAllButton"));
        QCOMPARE(folderRow(m_work)->property("note").toString(), s_lockedAwayNote);
    }

    void forgottenPasswordIsResetWithTheRecoveryKey()
    {
        click(folderRow(m_work));
        QTRY_VERIFY(isOpened("unlockSheet"));
        click("forgotPassword");
        waitForSheet("resetPasswordSheet", "recoveryKeyField");
        QVERIFY(!shown("unlockSheet"));

        // A key that is not this vault's.
        type(QStringLiteral("aaaa-bbbb-cccc-dddd-eeee-ffff-gggg-hhhh"));
        setNewPassword(s_resetPassword);
        QTest::keyClick(m_window, Qt::Key_Return);
        QTRY_VERIFY_WITH_TIMEOUT(text("recoveryKeyError").startsWith(QLatin1String("That recovery key isn't")), s_slow);
        QVERIFY(isOpened("resetPasswordSheet"));

        // The right one, in lower case with spaces between the groups.
        QTest::keySequence(m_window, QKeySequence::SelectAll);
        type(m_recoveryKey.toLower().replace(QLatin1Char('-'), QLatin1Char(' ')));
        QCOMPARE(text("recoveryKeyError"), QString());
        QTest::keyClick(m_window, Qt::Key_Return);
        QTRY_VERIFY_WITH_TIMEOUT(!shown("resetPasswordSheet"), s_slow);
        QTRY_VERIFY(chatRow());

        // Closed from its menu; the password change below proves the new password.
        chooseFromMenu(m_work, "lockNowItem");
        QTRY_VERIFY(!chatRow());
    }

    void changePasswordFromSettings()
    {
        QTest::keyClick(m_window, Qt::Key_Comma, Qt::ControlModifier);
        QTRY_VERIFY(isOpened("settingsSheet"));
        QCOMPARE(text("lockStatus"), QStringLiteral("2 locked folders"));
        QVERIFY(!shown("lockHowTo"));
        QVERIFY(text("lockBehaviour").endsWith(QLatin1String("and after 10 minutes without use.")));
        QVERIFY(shown("useRecoveryKeyButton"));

        // Scrolled to the section, as the user would.
        QQuickItem *section = findItem(m_window, "lockSettings");
        QQuickItem *flickable = section;
        while (!flickable->inherits("QQuickFlickable"))
            flickable = flickable->parentItem();
        flickable->setProperty("contentY", section->y() - 60);
        savePicture(QStringLiteral("lock-settings.png"));

        click("changePasswordButton");
        waitForSheet("changePasswordSheet", "currentPasswordField");
        type(s_password); // the password before the reset
        setNewPassword(s_changedPassword);
        QTest::keyClick(m_window, Qt::Key_Return);
        QTRY_COMPARE_WITH_TIMEOUT(text("currentPasswordError"), s_wrongPassword, s_slow);
        QVERIFY(isOpened("changePasswordSheet"));
        QTRY_VERIFY(!locks()->isWorking());

        type(s_resetPassword);
        QCOMPARE(text("currentPasswordError"), QString());
        QTest::keyClick(m_window, Qt::Key_Return);
        QTRY_VERIFY_WITH_TIMEOUT(!shown("changePasswordSheet"), s_slow);
        QCOMPARE(m_model->status()->text(), QStringLiteral("Password changed"));
        QVERIFY(isOpened("settingsSheet"));
        QTest::keyClick(m_window, Qt::Key_Escape);
        QTRY_VERIFY(!isOpened("settingsSheet"));

        // The old password no longer opens the folder; the new one does.
        unlockWork(s_resetPassword);
        QTRY_COMPARE_WITH_TIMEOUT(text("unlockError"), s_wrongPassword, s_slow);
        QTest::keySequence(m_window, QKeySequence::SelectAll);
        type(s_changedPassword);
        QTest::keyClick(m_window, Qt::Key_Return);
        QTRY_VERIFY_WITH_TIMEOUT(chatRow(), s_slow);
    }

    void unlockWithThisComputer()
    {
        // Turned on in Settings, from the keyboard, while Work is open: the key is at hand.
        QTest::keyClick(m_window, Qt::Key_Comma, Qt::ControlModifier);
        QTRY_VERIFY(isOpened("settingsSheet"));
        QQuickItem *toggle = findItem(m_window, "unlockWithComputerSwitch");
        QVERIFY(toggle->isVisible() && !toggle->property("checked").toBool());
        toggle->forceActiveFocus(Qt::TabFocusReason);
        QTest::keyClick(m_window, Qt::Key_Space);
        QTRY_VERIFY_WITH_TIMEOUT(locks()->unlocksWithComputer(), s_slow);
        QCOMPARE(m_model->status()->text(), QStringLiteral("Unlock with this computer is on"));
        QVERIFY(toggle->property("checked").toBool());
        QTest::keyClick(m_window, Qt::Key_Escape);
        QTRY_VERIFY(!isOpened("settingsSheet"));
        QTest::keyClick(m_window, Qt::Key_L, Qt::ControlModifier | Qt::ShiftModifier);
        QTRY_VERIFY(!chatRow());

        // The person at the computer says no: the sheet stays for the password, and that is
        // no error.
        m_standIns.polkit().setAnswer(FakePolkit::Answer::No);
        click(folderRow(m_work));
        QTRY_VERIFY(isOpened("unlockSheet"));
        QCOMPARE(text("unlockSheetAlternative"), QStringLiteral("Use this computer"));
        savePicture(QStringLiteral("unlock-with-computer.png"));
        const qsizetype asked = m_standIns.polkit().checks().size();
        click("unlockSheetAlternative");
        QTRY_COMPARE(m_standIns.polkit().checks().size(), asked + 1);
        QTRY_VERIFY(!locks()->isWorking());
        QVERIFY(isOpened("unlockSheet"));
        QVERIFY(!m_model->status()->isError());
        QVERIFY(!chatRow());

        // Yes: open without a password.
        m_standIns.polkit().setAnswer(FakePolkit::Answer::Yes);
        click("unlockSheetAlternative");
        QTRY_VERIFY_WITH_TIMEOUT(!shown("unlockSheet"), s_slow);
        QTRY_VERIFY(chatRow());
        const QByteArray key(reinterpret_cast<const char *>(m_model->database().vaultKey()->data()), VaultKey::size);
        m_secrets << QString::fromLatin1(key.toHex()) << QString::fromLatin1(key.toBase64());
    }

    void exportingAnOpenLockedFolderWarnsFirst()
    {
        chooseFromMenu(m_work, "folderExportMarkdownItem");
        QTRY_VERIFY(isOpened("unencryptedExportDialog"));
        QCOMPARE(text("unencryptedExportDialog", "title"), QStringLiteral("Export unencrypted copies?"));
        savePicture(QStringLiteral("export-warning.png"));
        click("unencryptedExportDialogAccept");
        QTRY_VERIFY(object("exportDestination")->property("visible").toBool());
        QMetaObject::invokeMethod(object("exportDestination"), "reject");
        QTRY_VERIFY(!object("exportDestination")->property("visible").toBool());
    }

    void removingALockAsksFirst()
    {
        chooseFromMenu(m_work, "removeLockItem");
        QTRY_VERIFY(isOpened("removeLockDialog"));
        QCOMPARE(text("removeLockDialog", "title"), QStringLiteral("Remove the lock from “Work”?"));
        click("removeLockDialogAccept");
        QTRY_VERIFY_WITH_TIMEOUT(!isLocked(m_work), s_slow);
        QTRY_VERIFY(!locks()->isSealing());
        QCOMPARE(text("lockStatus"), QStringLiteral("1 locked folder"));
        QVERIFY(chatRow());
        QCOMPARE(chatRow()->property("note").toString(), QString());

        // Without its lock, the folder exports without the warning.
        chooseFromMenu(m_work, "folderExportJSONItem");
        QTRY_VERIFY(object("exportDestination")->property("visible").toBool());
        QVERIFY(!isOpened("unencryptedExportDialog"));
        QMetaObject::invokeMethod(object("exportDestination"), "reject");
    }

    void nothingSecretWasLogged()
    {
        QVERIFY(m_log->count() > 20); // the capture works: sheets, banners, polkit, the TPM
        QVERIFY(!m_secrets.isEmpty());
        const QStringList leaks = m_log->containing(
            QStringList{s_password, s_resetPassword, s_changedPassword, m_recoveryKey} + m_secrets);
        QVERIFY2(leaks.isEmpty(), qPrintable(leaks.join(QLatin1Char('\n'))));
    }
};

QTEST_MAIN(TestLockWindow)
#include "tst_lock_window.moc"
