// Unlocking with this computer end to end: a real AppModel on a real database, a software TPM
// (swtpm) and a stand-in for polkit on a system bus of the test's own, since neither a TPM nor
// a user to touch a fingerprint reader is there in a test. One story, in order: set up with the
// option on, then each answer the system can give, then turning the option off and on again.
#include "app/app_model.h"
#include "app/settings_rules.h"
#include "storage/database.h"
#include "support/await_task.h"
#include "support/database_rows.h"
#include "support/computer_unlock_stand_ins.h"
#include "vault/computer_key_provider.h"
#include "vault/vault_record.h"

#include <QTemporaryDir>
#include <QTest>

namespace {

const QString s_password = QStringLiteral("correct horse");
const QString s_secret = QStringLiteral("quokkaplasma");

UnlockPurpose open(qint64 folderID)
{
    return {.kind = UnlockPurpose::Open, .folderID = folderID};
}

} // namespace

class TestAppComputerUnlock : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    ComputerUnlockStandIns m_standIns;
    std::unique_ptr<AppModel> m_model;
    qint64 m_diary = -1;
    qint64 m_chat = -1;

    FolderLocks &locks() { return *m_model->locks(); }
    bool diaryShown()
    {
        const std::optional<Chat> chat = m_model->tree()->chat(m_chat);
        return chat && !m_model->tree()->isLockedAway(*chat);
    }
    QString storedVault() { return m_model->database().setting(Settings::vaultKey).value_or(QString()); }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        const QString problem = m_standIns.start();
        QVERIFY2(problem.isEmpty(), qPrintable(problem));
        qputenv("CORVANE_DATA_DIR", m_dir.path().toUtf8());

        m_model = std::make_unique<AppModel>();
        QTRY_VERIFY_WITH_TIMEOUT(locks().canUnlockWithComputer(), 10000);
        ChatTree &tree = *m_model->tree();
        m_diary = tree.addFolder(ChatTree::none);
        tree.renameNode(m_diary, QStringLiteral("Diary"));
        tree.addChat(m_diary);
        m_chat = tree.selectedChatID();
        addMessage(m_model->database(), m_chat, s_secret);
    }

    void settingUpSealsTheKeyToThisComputer()
    {
        QVERIFY(awaitTask(locks().createVault(s_password, m_diary, true)));
        QVERIFY(locks().unlocksWithComputer());
        QVERIFY(!diaryShown());
        // Making the seal asks the user nothing.
        QVERIFY(m_standIns.polkit().checks().isEmpty() || !(m_standIns.polkit().checks().last().flags & FakePolkit::allowUserInteraction));
        // The stored record reads back as itself, byte for byte, seal included.
        const QString stored = storedVault();
        const std::optional<VaultRecord> record = VaultRecord::fromJson(stored.toUtf8());
        QVERIFY(record && record->touchID);
        QCOMPARE(QString::fromUtf8(record->toJson()), stored);
    }

    void eachAnswer_data()
    {
        QTest::addColumn<int>("answer"); // FakePolkit::Answer
        QTest::addColumn<bool>("clearTpm");
        QTest::addColumn<bool>("opens");
        QTest::addColumn<QString>("error"); ///< the banner's error, empty for none
        QTest::newRow("the user confirms") << int(FakePolkit::Answer::Yes) << false << true << QString();
        QTest::newRow("the user says no") << int(FakePolkit::Answer::No) << false << false << QString();
        QTest::newRow("no agent to ask") << int(FakePolkit::Answer::NoAgent) << false << false
                                         << QStringLiteral("Your computer could not check that it's you");
        // Last: clearing destroys the TPM's keys for good.
        QTest::newRow("the TPM was cleared since")
            << int(FakePolkit::Answer::Yes) << true << false
            << QStringLiteral("This lock was set up on another computer, or this computer's security chip was reset since. Use your password.");
    }

    void eachAnswer()
    {
        QFETCH(int, answer);
        QFETCH(bool, clearTpm);
        QFETCH(bool, opens);
        QFETCH(QString, error);
        locks().lockAll();
        QVERIFY(!diaryShown() && !locks().isUnlocked());
        m_standIns.polkit().setAnswer(FakePolkit::Answer(answer));
        if (clearTpm)
            QVERIFY(m_standIns.tpm().clear());
        m_model->status()->show(QStringLiteral("Ready"));
        const qsizetype asked = m_standIns.polkit().checks().size();

        QCOMPARE(awaitTask(locks().unlockWithTouchID(open(m_diary))), opens);
        QCOMPARE(diaryShown(), opens);
        QCOMPARE(locks().isUnlocked(), opens);
        QCOMPARE(m_model->status()->isError(), !error.isEmpty());
        if (!error.isEmpty())
            QCOMPARE(m_model->status()->text(), error);
        // The user is asked once, in a dialog, and the TPM only after a yes.
        QCOMPARE(m_standIns.polkit().checks().size(), asked + 1);
        QVERIFY(m_standIns.polkit().checks().last().flags & FakePolkit::allowUserInteraction);
        // The password always still works.
        if (!opens) {
            QVERIFY(awaitTask(locks().unlock(s_password, open(m_diary))));
            QVERIFY(diaryShown());
        }
    }

    void turningItOffAndOnAgain()
    {
        locks().lockAll();
        locks().setUnlockWithComputer(false);
        QTRY_VERIFY(!locks().isWorking());
        QVERIFY(!locks().unlocksWithComputer());
        QVERIFY(!storedVault().contains(QStringLiteral("touchID")));
        QVERIFY(!awaitTask(locks().unlockWithTouchID(open(m_diary))));

        // On again: without the key, the password comes first; the seal is to the TPM as it is
        // now, so it opens again, and nothing stays open afterwards.
        m_standIns.polkit().setAnswer(FakePolkit::Answer::Yes);
        locks().setUnlockWithComputer(true);
        QCOMPARE(locks().sheetKind(), int(LockSheet::Unlock));
        QCOMPARE(locks().sheetPurpose(), int(UnlockPurpose::TouchID));
        locks().submitUnlock(s_password);
        QTRY_VERIFY_WITH_TIMEOUT(!locks().isWorking(), 20000);
        QVERIFY(locks().unlocksWithComputer());
        QVERIFY(!locks().isUnlocked());
        QVERIFY(!diaryShown());
        QVERIFY(awaitTask(locks().unlockWithTouchID(open(m_diary))));
        QVERIFY(diaryShown());
    }

    void withoutATpmItIsNotOffered()
    {
        ComputerKeyProvider missing(QStringLiteral("swtpm:path=") + m_dir.filePath(QStringLiteral("no-tpm.sock")));
        QVERIFY(!awaitTask(missing.isAvailable()));
    }
};

QTEST_GUILESS_MAIN(TestAppComputerUnlock)
#include "tst_app_computer_unlock.moc"
