// Locking a large folder killed (SIGKILL) at several points: the file always opens again,
// the folder is either wholly locked or wholly plain, every row reads back with the key, and
// once the next start has scrubbed nothing of the locked words is left in the files.
//
// The same program is the process that gets killed: started with "--lock", it locks the
// folder and stops to be killed where it was asked to.
#include "sql_probe.h"

#include "vault/vault_key.h"

#include <QCoreApplication>
#include <QFile>
#include <QProcess>
#include <QTest>
#include <QThread>

#include <csignal>
#include <cstdio>

namespace {

constexpr int s_chats = 20;
constexpr int s_messagesPerChat = 50;
const QString s_word = QStringLiteral("numbatglow");

/// Says where it is and waits to be killed when that is where it was asked to stop.
void reach(const QString &point, const QString &stopAt)
{
    std::printf("%s\n", qPrintable(point));
    std::fflush(stdout);
    if (point == stopAt)
        QThread::sleep(60);
}

int lockAndStop(const QStringList &arguments)
{
    // --lock PATH KEY_HEX FOLDER STOP_AT
    const auto key = VaultKey::fromBytes(QByteArray::fromHex(arguments[3].toLatin1()));
    const QString stopAt = arguments[5];
    {
        Database db(arguments[2]);
        db.setVaultKey(key);
        db.setFolderLocked(arguments[4].toLongLong(), true, [&](qint64 done, qint64 total) {
            if (done * 2 == total)
                reach(QStringLiteral("halfway"), stopAt);
            if (done == total)
                reach(QStringLiteral("all rows sealed"), stopAt);
        });
    }
    reach(QStringLiteral("committed"), stopAt);
    Database::scrubFile(arguments[2]);
    reach(QStringLiteral("scrubbed"), stopAt);
    return 0;
}

} // namespace

class TestLockCrash : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;

    QByteArray files(const QString &path) const
    {
        QByteArray all;
        for (const char *suffix : {"", "-wal", "-shm"}) {
            QFile file(path + QLatin1String(suffix));
            if (file.open(QIODevice::ReadOnly))
                all += file.readAll();
        }
        return all;
    }

private Q_SLOTS:
    void killedWhileLocking_data()
    {
        QTest::addColumn<QString>("stopAt");
        QTest::addColumn<bool>("locked"); // what the next start finds
        QTest::newRow("halfway through the rows") << "halfway" << false;
        QTest::newRow("every row sealed, not committed") << "all rows sealed" << false;
        QTest::newRow("committed, not scrubbed") << "committed" << true;
        QTest::newRow("done") << "scrubbed" << true;
    }

    void killedWhileLocking()
    {
        QFETCH(QString, stopAt);
        QFETCH(bool, locked);
        const QString path = m_dir.filePath(QStringLiteral("%1.sqlite").arg(QTest::currentDataTag()));
        const VaultKey key = VaultKey::random();
        qint64 folder = 0;
        QList<qint64> chats;
        {
            Database db(path);
            folder = db.addNode(std::nullopt, QStringLiteral("folder"), QStringLiteral("Private"));
            db.execute(QStringLiteral("BEGIN"));
            for (int c = 0; c < s_chats; ++c) {
                chats << db.addChat(folder, QStringLiteral("%1 chat %2").arg(s_word).arg(c));
                for (int m = 0; m < s_messagesPerChat; ++m)
                    addMessage(db, chats.last(), QStringLiteral("%1 %2 %3").arg(s_word).arg(c).arg(m));
            }
            db.execute(QStringLiteral("COMMIT"));
        }

        QProcess child;
        child.start(QCoreApplication::applicationFilePath(),
                    {QStringLiteral("--lock"), path,
                     QString::fromLatin1(QByteArray(reinterpret_cast<const char *>(key.data()), VaultKey::size).toHex()),
                     QString::number(folder), stopAt});
        QVERIFY(child.waitForStarted());
        QByteArray said;
        QTRY_VERIFY_WITH_TIMEOUT((said += child.readAllStandardOutput()).contains(stopAt.toUtf8()), 60000);
        ::kill(static_cast<pid_t>(child.processId()), SIGKILL);
        QVERIFY(child.waitForFinished());

        // The next start: the file opens, and a committed lock is scrubbed first.
        Database db(path);
        if (db.needsScrub())
            Database::scrubFile(path);
        db.setVaultKey(key);
        QCOMPARE(db.isNodeSealed(folder), locked);
        for (qint64 chat : std::as_const(chats)) {
            QCOMPARE(db.isChatSealed(chat), locked);
            const QList<Message> messages = db.messages(chat);
            QCOMPARE(messages.size(), s_messagesPerChat);
            for (const Message &message : messages)
                QVERIFY2(message.body.startsWith(s_word), qPrintable(message.body));
        }
        // The index holds the words only while the chats are plain (no sealed chat is read).
        QCOMPARE(db.search(s_word, {.folderIDs = std::nullopt, .sealedChatIDs = QSet<qint64>()}).isEmpty(), locked);
        QVERIFY(!db.needsScrub());
        db.execute(QStringLiteral("PRAGMA wal_checkpoint(TRUNCATE);"));
        QCOMPARE(files(path).contains(s_word.toUtf8()), !locked);
    }
};

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const QStringList arguments = app.arguments();
    if (arguments.size() == 6 && arguments[1] == QLatin1String("--lock"))
        return lockAndStop(arguments);
    TestLockCrash test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_lock_crash.moc"
