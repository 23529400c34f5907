// One running Corvane per data folder, with real corvane processes: a second start hands its
// script file or its launcher action to the first and ends, a start with another data folder
// is an instance of its own, and one that crashed leaves nothing that stops the next start.
// Over a session bus of the test's own, and over the local socket used without a bus.
#include "platform/single_instance.h"
#include "storage/database.h"
#include "storage/database_error.h"
#include "storage/statement.h"
#include "support/private_bus.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

namespace {

const QString s_program = QStringLiteral(CORVANE_BIN_DIR "/corvane");
const QString s_appID = QStringLiteral(CORVANE_APP_ID);
constexpr int s_startMs = 60000;

} // namespace

class TestSingleInstance : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    PrivateBus m_bus;
    QString m_busAddress;
    QString m_runtime;

    /// The environment of a start on `data`: the test's bus, or none.
    QProcessEnvironment environment(const QString &data, bool onBus) const
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("CORVANE_DATA_DIR"), data);
        env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
        env.insert(QStringLiteral("XDG_RUNTIME_DIR"), m_runtime);
        env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"),
                   onBus ? m_busAddress : QStringLiteral("unix:path=") + m_dir.filePath(QStringLiteral("no-bus")));
        return env;
    }

    /// Whether the instance for `data` answers: its name is owned, or its socket is there.
    bool running(const QString &data, bool onBus) const
    {
        const SingleInstance instance(s_appID, data);
        if (!onBus)
            return QFileInfo::exists(m_runtime + QLatin1Char('/') + instance.name() + QStringLiteral(".socket"));
        return QDBusConnection(QStringLiteral("observer")).interface()->isServiceRegistered(instance.name());
    }

    /// Runs a start that must end by itself, and answers its exit code.
    int runToEnd(const QString &data, bool onBus, const QStringList &arguments)
    {
        QProcess corvane;
        corvane.setProcessEnvironment(environment(data, onBus));
        corvane.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        corvane.start(s_program, arguments);
        if (!corvane.waitForFinished(s_startMs) || corvane.exitStatus() != QProcess::NormalExit)
            return -1;
        return corvane.exitCode();
    }

    /// The chats the instance on `data` has stored, or -1 before its database exists.
    static qint64 chatCount(const QString &data)
    {
        try {
            Database db(data + QStringLiteral("/chats.sqlite"), Database::Options{.readOnly = true});
            Statement count(db.handle(), QStringLiteral("SELECT count(*) FROM chats"));
            return count.next() ? count.integer(0) : -1;
        } catch (const DatabaseError &) {
            return -1;
        }
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        m_runtime = m_dir.filePath(QStringLiteral("runtime"));
        QVERIFY(QDir().mkpath(m_runtime));
        QVERIFY(QFile::setPermissions(m_runtime, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
        m_busAddress = m_bus.start();
        QVERIFY(!m_busAddress.isEmpty());
        QVERIFY(QDBusConnection::connectToBus(m_busAddress, QStringLiteral("observer")).isConnected());
    }

    void cleanupTestCase()
    {
        QDBusConnection::disconnectFromBus(QStringLiteral("observer"));
    }

    void oneInstancePerDataFolder_data()
    {
        QTest::addColumn<bool>("onBus");
        QTest::newRow("session bus") << true;
        QTest::newRow("local socket") << false;
    }

    void oneInstancePerDataFolder()
    {
        QFETCH(bool, onBus);
        const QString data = m_dir.filePath(QStringLiteral("data-%1").arg(onBus));
        const QString script = m_dir.filePath(QStringLiteral("Tidy.corvane"));
        QFile file(script);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("module.exports = { name: 'Tidy', prompt: 'Be tidy.' };");
        file.close();

        QProcess first;
        first.setProcessEnvironment(environment(data, onBus));
        first.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        first.start(s_program, {});
        QVERIFY(first.waitForStarted());
        QTRY_VERIFY_WITH_TIMEOUT(running(data, onBus), s_startMs);
        QTRY_VERIFY_WITH_TIMEOUT(chatCount(data) >= 0, s_startMs);

        // A second start with a script file, from another working folder: the first imports it.
        QCOMPARE(runToEnd(data, onBus, {QDir(QDir::currentPath()).relativeFilePath(script)}), 0);
        QTRY_VERIFY_WITH_TIMEOUT(QFileInfo::exists(data + QStringLiteral("/Scripts/Tidy.corvane")), s_startMs);
        // The launcher's "New chat" action, then a plain start: the first acts, nothing else runs.
        const qint64 chats = chatCount(data);
        QCOMPARE(runToEnd(data, onBus, {QStringLiteral("--new-chat")}), 0);
        QTRY_COMPARE(chatCount(data), chats + 1);
        QCOMPARE(runToEnd(data, onBus, {}), 0);
        QCOMPARE(first.state(), QProcess::Running);

        // Another data folder is another instance: it draws its own window.
        const QString picture = m_dir.filePath(QStringLiteral("other-%1.png").arg(onBus));
        QCOMPARE(runToEnd(m_dir.filePath(QStringLiteral("other-%1").arg(onBus)), onBus,
                          {QStringLiteral("--screenshot"), picture}),
                 0);
        QVERIFY(QFileInfo(picture).size() > 0);

        // A crash leaves no owner behind: the next start is the instance.
        ::kill(pid_t(first.processId()), SIGKILL);
        QVERIFY(first.waitForFinished());
        const QString after = m_dir.filePath(QStringLiteral("after-crash-%1.png").arg(onBus));
        QCOMPARE(runToEnd(data, onBus, {QStringLiteral("--screenshot"), after}), 0);
        QVERIFY(QFileInfo(after).size() > 0);
    }

    void theSocketIsTheUsersAlone()
    {
        const QString data = m_dir.filePath(QStringLiteral("private"));
        QProcess first;
        first.setProcessEnvironment(environment(data, false));
        first.start(s_program, {});
        QVERIFY(first.waitForStarted());
        QTRY_VERIFY_WITH_TIMEOUT(running(data, false), s_startMs);
        const QString socket = m_runtime + QLatin1Char('/') + SingleInstance(s_appID, data).name() + ".socket";
        QCOMPARE(QFileInfo(socket).permissions() & ~(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner
                                                      | QFile::ReadUser | QFile::WriteUser | QFile::ExeUser),
                 QFile::Permissions());
        first.terminate();
        QVERIFY(first.waitForFinished(15000));
        QVERIFY(!QFileInfo::exists(socket));
    }
};

QTEST_GUILESS_MAIN(TestSingleInstance)
#include "tst_single_instance.moc"
