// Locked folders end to end on a real database file with real key derivation: setting up,
// what a locked folder hides and leaves in the files, opening with the password, the screen
// locking, locking a further folder, removing a lock. The dialogs' password, recovery-key and
// change flows are driven through the window in tst_lock_window.
#include "app/app_model.h"
#include "images/image_store.h"
#include "platform/auto_lock.h"
#include "storage/database.h"
#include "support/await_task.h"
#include "support/database_rows.h"

#include <QBuffer>
#include <QDir>
#include <QImage>
#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

namespace {

const QString s_password = QStringLiteral("correct horse");
const QByteArray s_secretWord = "quokkaplasma";

UnlockPurpose open(qint64 folderID)
{
    return {.kind = UnlockPurpose::Open, .folderID = folderID};
}

} // namespace

class TestAppLocks : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    std::unique_ptr<AppModel> m_model;
    qint64 m_diary = -1; ///< the folder that gets locked
    qint64 m_secretChat = -1;
    qint64 m_plainChat = -1;
    QString m_recoveryKey;
    QString m_image; ///< a picture in the locked chat
    QByteArray m_jpeg;

    ChatTree &tree() { return *m_model->tree(); }
    FolderLocks &locks() { return *m_model->locks(); }
    Database &db() { return m_model->database(); }

    void start() { m_model = std::make_unique<AppModel>(); }

    /// Every byte of the database file and its companions.
    QByteArray files() const
    {
        QByteArray all;
        for (const char *suffix : {"", "-wal", "-shm"}) {
            QFile file(m_dir.filePath(QStringLiteral("chats.sqlite") + QLatin1String(suffix)));
            if (file.open(QIODevice::ReadOnly))
                all += file.readAll();
        }
        return all;
    }

    QByteArray imageFile() const
    {
        QFile file(m_model->images()->store().directory() + QLatin1Char('/') + m_image);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
    }

    bool shown(qint64 chatID) { return tree().chat(chatID) && !tree().isLockedAway(*tree().chat(chatID)); }

    /// What the search pane shows for the secret word, once its search came back.
    void searchSecretWord(int expected)
    {
        Search &search = *m_model->search();
        search.setTerm(QString::fromLatin1(s_secretWord));
        QCoreApplication::processEvents(); // a refresh waits for the event loop
        QTRY_VERIFY(!search.isSearching());
        QCOMPARE(search.hits().size(), expected);
    }

private Q_SLOTS:
    // One story, in order: each step starts where the last one left off.
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        qputenv("CORVANE_DATA_DIR", m_dir.path().toUtf8());
        start();
        m_diary = tree().addFolder(ChatTree::none);
        tree().renameNode(m_diary, QStringLiteral("Diary"));
        const qint64 inner = tree().addFolder(m_diary);
        tree().setNodePrompt(inner, QStringLiteral("Speak of ") + QString::fromLatin1(s_secretWord));
        tree().addChat(inner);
        m_secretChat = tree().selectedChatID();
        tree().renameChat(m_secretChat, QStringLiteral("About the ") + QString::fromLatin1(s_secretWord));
        for (int i = 0; i < 50; ++i)
            addMessage(db(), m_secretChat, QStringLiteral("%1 number %2").arg(QString::fromLatin1(s_secretWord)).arg(i));
        tree().addChat(tree().nodes().first().id);
        m_plainChat = tree().selectedChatID();
        // A picture in the chat that gets locked.
        QImage picture(64, 48, QImage::Format_RGB32);
        picture.fill(Qt::darkCyan);
        QBuffer buffer(&m_jpeg);
        QVERIFY(buffer.open(QIODevice::WriteOnly) && picture.save(&buffer, "JPEG"));
        m_image = ImageStore::store(m_model->images()->store().directory(), m_jpeg, std::nullopt);
        Message withImage;
        withImage.chatID = m_secretChat;
        withImage.role = QStringLiteral("user");
        withImage.image = m_image;
        withImage.createdAt = QStringLiteral("2026-11-15T20:20:44Z");
        db().addMessage(withImage);
        addMessage(db(), m_plainChat, QStringLiteral("nothing to hide"));
        tree().selectChat(m_secretChat);
    }

    void settingUpLocksTheFolderAndLeavesNoPlainText()
    {
        locks().lockFolder(m_diary);
        QCOMPARE(locks().sheetKind(), int(LockSheet::SetUp));
        QCOMPARE(locks().sheetFolderID(), m_diary);

        // What the window sees the moment the rows start being sealed: the folder hidden, no
        // edits taken.
        QStringList duringSealing;
        connect(&locks(), &FolderLocks::workingChanged, this, [&] {
            if (locks().isSealing())
                duringSealing << QString::number(shown(m_secretChat)) << QString::number(tree().selectedChatID())
                              << QString::number(tree().selectedNodeID()) << QString::number(m_model->isBusy())
                              << QString::number(m_model->chat()->canSend()) << m_model->status()->text();
        });
        m_model->chat()->setComposer(QStringLiteral("hello"));
        const std::optional<QString> key = awaitTask(locks().createVault(s_password, m_diary));
        disconnect(&locks(), &FolderLocks::workingChanged, this, nullptr);
        QCOMPARE(duringSealing, (QStringList{"0", "-1", QString::number(m_diary), "1", "0", "Locking “Diary”… 0%"}));

        QVERIFY(key);
        QVERIFY(QRegularExpression(QStringLiteral("^([0-9A-Z]{4}-){7}[0-9A-Z]{4}$")).match(*key).hasMatch());
        m_recoveryKey = *key;
        QVERIFY(locks().hasVault());
        QVERIFY(!locks().isSealing());
        // Nothing is open, so the key is gone again.
        QVERIFY(!locks().isUnlocked());
        QVERIFY(!db().hasVaultKey());
        QVERIFY(!shown(m_secretChat));
        QVERIFY(shown(m_plainChat));
        QCOMPARE(m_model->status()->text(), QStringLiteral("“Diary” locked"));
        QVERIFY(!m_model->status()->isError());
        QVERIFY(!db().needsScrub());
        QVERIFY(db().search(QString::fromLatin1(s_secretWord)).isEmpty());
        const QByteArray bytes = files();
        QVERIFY(bytes.contains("nothing to hide"));
        QVERIFY(!bytes.contains(s_secretWord));
        // The locked folder's own name stays readable.
        QVERIFY(bytes.contains("Diary"));
        // Its picture is sealed too, on a thread of its own.
        QTRY_VERIFY(imageFile().startsWith(ImageStore::sealedMarker));
        QVERIFY(!imageFile().contains(m_jpeg.mid(m_jpeg.size() / 2, 32)));
    }

    void aRestartFindsItLocked()
    {
        m_model.reset();
        start();
        QVERIFY(locks().hasVault());
        QVERIFY(!locks().isUnlocked());
        QVERIFY(!shown(m_secretChat));
        QCOMPARE(tree().selectedChatID(), m_plainChat);
        // Selecting a chat that is locked away does nothing; adding to the folder asks first.
        tree().selectChat(m_secretChat);
        QCOMPARE(tree().selectedChatID(), m_plainChat);
        tree().addChat(m_diary);
        QCOMPARE(locks().sheetKind(), int(LockSheet::Unlock));
        QCOMPARE(locks().sheetFolderID(), m_diary);
        locks().dismissLockSheet();
    }

    void openingTakesTheRightPassword()
    {
        searchSecretWord(0);
        // Closed, the folder is not exported, and nothing is written.
        QTemporaryDir exports;
        QVERIFY_THROWS_EXCEPTION(ExportError, awaitTask(m_model->chatExport()->exportTo("folder", m_diary, exports.path(), "markdown")));
        QCOMPARE(QDir(exports.path()).entryList(QDir::NoDotAndDotDot | QDir::AllEntries), QStringList());

        QSignalSpy rejected(&locks(), &FolderLocks::passwordRejected);
        QVERIFY(!awaitTask(locks().unlock(QStringLiteral("wrong horse"), open(m_diary))));
        QCOMPARE(rejected.size(), 1);
        QVERIFY(!locks().isUnlocked());

        QVERIFY(awaitTask(locks().unlock(s_password, open(m_diary))));
        QVERIFY(locks().isUnlocked());
        QVERIFY(shown(m_secretChat));
        // Open, it is: in plain text, which the window warns of first.
        QVERIFY(m_model->chatExport()->writesLockedChats("folder", m_diary));
        QVERIFY(!m_model->chatExport()->writesLockedChats("chat", m_plainChat));
        const QString exported = awaitTask(m_model->chatExport()->exportTo("folder", m_diary, exports.path(), "markdown"));
        QFile chatFile(exported + QStringLiteral("/New folder/About the quokkaplasma.md"));
        QVERIFY(chatFile.open(QIODevice::ReadOnly));
        QVERIFY(chatFile.readAll().contains(s_secretWord));
        searchSecretWord(51); // its title and its 50 messages, read in memory
        tree().selectChat(m_secretChat);
        QCOMPARE(m_model->chat()->messages().size(), 51);
        QCOMPARE(m_model->chat()->title(), QStringLiteral("About the quokkaplasma"));

        // The screen locking closes it again and forgets the key.
        QVERIFY(m_model->autoLock().isArmed());
        Q_EMIT m_model->autoLock().lockRequested(AutoLock::Reason::ScreenLocked);
        QVERIFY(m_model->search()->hits().isEmpty()); // at once, before any search came back
        searchSecretWord(0);
        QVERIFY(!m_model->autoLock().isArmed());
        QVERIFY(!locks().isUnlocked());
        QVERIFY(!shown(m_secretChat));
        QCOMPARE(tree().selectedChatID(), ChatTree::none);
        QCOMPARE(tree().selectedNodeID(), m_diary);
        QVERIFY(m_model->chat()->messages().isEmpty());
    }

    void lockingASecondFolderAsksForThePasswordFirst()
    {
        const qint64 work = tree().addFolder(ChatTree::none);
        tree().addChat(work);
        const qint64 chat = tree().selectedChatID();
        addMessage(db(), chat, QStringLiteral("wallabyflux"));
        locks().lockFolder(work);
        QCOMPARE(locks().sheetKind(), int(LockSheet::Unlock));
        QCOMPARE(locks().sheetPurpose(), int(UnlockPurpose::Lock));
        QVERIFY(awaitTask(locks().unlock(s_password, {.kind = UnlockPurpose::Lock, .folderID = work})));
        QCOMPARE(locks().sheetKind(), FolderLocks::noSheet);
        QVERIFY(!shown(chat));
        QVERIFY(!locks().isUnlocked());
        QVERIFY(!files().contains("wallabyflux"));
    }

    void removingALockPutsItBackInTheSearchIndex()
    {
        QVERIFY(awaitTask(locks().unlock(s_password, open(m_diary))));
        QVERIFY(awaitTask(locks().setFolderLocked(m_diary, false)));
        QVERIFY(shown(m_secretChat));
        // The other locked folder is still closed, so the key is gone.
        QVERIFY(!locks().isUnlocked());
        // The 50 messages and the chat's title; the picture is plain again.
        QCOMPARE(db().search(QString::fromLatin1(s_secretWord)).size(), 51);
        QTRY_COMPARE(imageFile(), m_jpeg);
        tree().selectChat(m_secretChat);
        QCOMPARE(m_model->chat()->title(), QStringLiteral("About the quokkaplasma"));
    }

    void erasingForgetsTheVault()
    {
        QVERIFY(awaitTask(m_model->eraseAll()));
        QVERIFY(!locks().hasVault());
        QVERIFY(!locks().isUnlocked());
        m_model.reset();
        start();
        QVERIFY(!locks().hasVault());
    }

    void cleanupTestCase() { m_model.reset(); }
};

QTEST_GUILESS_MAIN(TestAppLocks)
#include "tst_app_locks.moc"
