// The desktop events that lock folders again, heard from stand-in services on two private
// D-Bus daemons: one plays the system bus, the other the session bus.
#include "platform/auto_lock.h"
#include "support/private_bus.h"

#include <QDBusConnectionInterface>
#include <QDBusObjectPath>
#include <QDBusVirtualObject>
#include <QProcess>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <functional>
#include <memory>

using namespace std::chrono_literals;
using Reasons = QList<AutoLock::Reason>;

namespace {

const QString s_login1 = QStringLiteral("org.freedesktop.login1");
const QString s_screenSaver = QStringLiteral("org.freedesktop.ScreenSaver");
const QString s_gnomeScreenSaver = QStringLiteral("org.gnome.ScreenSaver");
const QString s_mutter = QStringLiteral("org.gnome.Mutter.IdleMonitor");
const QString s_sessionById = QStringLiteral("/org/freedesktop/login1/session/c2");
const QString s_sessionByPid = QStringLiteral("/org/freedesktop/login1/session/self");

// Answers method calls by name; an invalid answer is an error, a missing one never comes.
class FakeObject : public QDBusVirtualObject
{
public:
    QHash<QString, std::function<QVariant(const QVariantList &)>> answers;
    QHash<QString, int> calls;

    QString introspect(const QString &) const override { return {}; }
    bool handleMessage(const QDBusMessage &call, const QDBusConnection &bus) override
    {
        ++calls[call.member()];
        if (answers.contains(call.member()) && answers[call.member()]) {
            const QVariant answer = answers[call.member()](call.arguments());
            bus.send(answer.isValid() ? call.createReply(answer)
                                      : call.createErrorReply(QDBusError::NotSupported, {}));
        }
        return true;
    }
};

// Counts the marker signal that follows what a test sent, to know that all of it arrived.
class FlushCounter : public QObject
{
    Q_OBJECT
public:
    int count = 0;
public Q_SLOTS:
    void flushed() { ++count; }
};

// A bus of the test's own. `services` owns the well-known names, `stranger` none; `client` is
// the connection handed to the code under test.
class TestBus
{
public:
    ~TestBus()
    {
        for (const QString &name : {services().name(), stranger().name(), client().name()})
            QDBusConnection::disconnectFromBus(name);
    }

    bool start()
    {
        const QString address = m_daemon.start();
        if (address.isEmpty())
            return false;
        for (const char *role : {"services", "stranger", "client"})
            if (!QDBusConnection::connectToBus(address, m_prefix + QLatin1String(role)).isConnected())
                return false;
        return client().connect({}, QStringLiteral("/flush"), QStringLiteral("org.corvane.Test"),
                                QStringLiteral("Flushed"), &m_flushes, SLOT(flushed()));
    }

    QDBusConnection services() const { return QDBusConnection(m_prefix + QLatin1String("services")); }
    QDBusConnection stranger() const { return QDBusConnection(m_prefix + QLatin1String("stranger")); }
    QDBusConnection client() const { return QDBusConnection(m_prefix + QLatin1String("client")); }

    void serve(const QString &name, const QString &path = {}, FakeObject *object = nullptr) const
    {
        services().registerService(name);
        if (object)
            services().registerVirtualObject(path, object);
    }

    // Returns once the daemon has handled what the client sent before: its match rules.
    void sync() const { client().interface()->isServiceRegistered(QStringLiteral("org.freedesktop.DBus")); }

    // Waits until what `from` sent before reached the client: one sender's messages keep their order.
    bool flush(const QDBusConnection &from)
    {
        const int before = m_flushes.count;
        from.send(QDBusMessage::createSignal(QStringLiteral("/flush"), QStringLiteral("org.corvane.Test"),
                                             QStringLiteral("Flushed")));
        return QTest::qWaitFor([&] { return m_flushes.count > before; });
    }

private:
    static inline int s_buses = 0;
    QString m_prefix = QStringLiteral("corvane-test-%1-").arg(++s_buses);
    PrivateBus m_daemon;
    FlushCounter m_flushes;
};

Reasons reasons(const QSignalSpy &spy)
{
    Reasons result;
    for (const QList<QVariant> &arguments : spy)
        result << arguments.at(0).value<AutoLock::Reason>();
    return result;
}

// What a fake idle source does: answer milliseconds, or one of these.
constexpr qint64 s_absent = -1;   // not on the bus
constexpr qint64 s_refuses = -2;  // answers with an error, as KDE does on Wayland
constexpr qint64 s_noObject = -3; // the name without the object, as on GNOME

} // namespace

class TestAutoLock : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<TestBus> m_system;
    std::unique_ptr<TestBus> m_session;
    std::unique_ptr<FakeObject> m_manager;
    std::unique_ptr<FakeObject> m_screenSaver;
    std::unique_ptr<FakeObject> m_mutter;

    void serveIdle(qint64 screenSaver, qint64 mutter)
    {
        const auto answer = [](qint64 idle, auto type) -> std::function<QVariant(const QVariantList &)> {
            return [idle, type](const QVariantList &) {
                return idle == s_refuses ? QVariant() : QVariant::fromValue(decltype(type)(idle));
            };
        };
        m_screenSaver->answers[QStringLiteral("GetSessionIdleTime")] = answer(screenSaver, uint());
        m_mutter->answers[QStringLiteral("GetIdletime")] = answer(mutter, qulonglong());
        if (screenSaver != s_absent)
            m_session->serve(s_screenSaver, QStringLiteral("/org/freedesktop/ScreenSaver"),
                             screenSaver == s_noObject ? nullptr : m_screenSaver.get());
        if (mutter != s_absent)
            m_session->serve(s_mutter, QStringLiteral("/org/gnome/Mutter/IdleMonitor/Core"), m_mutter.get());
    }

private Q_SLOTS:
    void init()
    {
        // A missing service is normal on many desktops: it must never show as a warning.
        QTest::failOnWarning(QRegularExpression(QStringLiteral(".*")));
        qunsetenv("XDG_SESSION_ID");
        m_system = std::make_unique<TestBus>();
        m_session = std::make_unique<TestBus>();
        QVERIFY2(m_system->start() && m_session->start(), "dbus-daemon did not start");
        m_manager = std::make_unique<FakeObject>();
        m_manager->answers[QStringLiteral("GetSession")] = [](const QVariantList &arguments) {
            return arguments == QVariantList{QStringLiteral("c2")}
                ? QVariant::fromValue(QDBusObjectPath(s_sessionById)) : QVariant();
        };
        m_manager->answers[QStringLiteral("GetSessionByPID")] = [](const QVariantList &arguments) {
            return arguments == QVariantList{uint(QCoreApplication::applicationPid())}
                ? QVariant::fromValue(QDBusObjectPath(s_sessionByPid)) : QVariant();
        };
        m_screenSaver = std::make_unique<FakeObject>();
        m_mutter = std::make_unique<FakeObject>();
    }

    void cleanup()
    {
        m_system.reset();
        m_session.reset();
    }

    void findsTheLoginSession_data()
    {
        QTest::addColumn<QByteArray>("sessionId");
        QTest::addColumn<QString>("path");
        QTest::newRow("by XDG_SESSION_ID") << QByteArray("c2") << s_sessionById;
        QTest::newRow("stale XDG_SESSION_ID: by process") << QByteArray("c9") << s_sessionByPid;
        QTest::newRow("no XDG_SESSION_ID: by process") << QByteArray() << s_sessionByPid;
    }

    void findsTheLoginSession()
    {
        QFETCH(QByteArray, sessionId);
        QFETCH(QString, path);
        if (!sessionId.isEmpty())
            qputenv("XDG_SESSION_ID", sessionId);
        m_system->serve(s_login1, QStringLiteral("/org/freedesktop/login1"), m_manager.get());
        AutoLock lock(m_system->client(), m_session->client());
        QTRY_COMPARE(lock.sessionPath(), path);
    }

    void reportsDesktopEvents_data()
    {
        QTest::addColumn<bool>("systemBus");
        QTest::addColumn<bool>("fromStranger");
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("interface");
        QTest::addColumn<QString>("member");
        QTest::addColumn<QVariantList>("arguments");
        QTest::addColumn<Reasons>("expected");

        using R = AutoLock::Reason;
        const QString manager = QStringLiteral("/org/freedesktop/login1");
        const QString saver = QStringLiteral("/org/freedesktop/ScreenSaver");
        const QString gnome = QStringLiteral("/org/gnome/ScreenSaver");
        const char *managerIf = "org.freedesktop.login1.Manager";
        const char *saverIf = "org.freedesktop.ScreenSaver";
        const char *gnomeIf = "org.gnome.ScreenSaver";
        const char *sessionIf = "org.freedesktop.login1.Session";
        const char *propertiesIf = "org.freedesktop.DBus.Properties";
        const auto changed = [](const char *interface, const char *property, bool value) {
            return QVariantList{QString::fromLatin1(interface),
                                QVariantMap{{QString::fromLatin1(property), value}}, QStringList()};
        };
        const auto row = [](const char *name, bool system, const QString &path, const char *interface,
                            const char *member, const QVariantList &arguments, Reasons expected,
                            bool fromStranger = false) {
            QTest::newRow(name) << system << fromStranger << path << QString::fromLatin1(interface)
                                << QString::fromLatin1(member) << arguments << expected;
        };
        row("going to sleep", true, manager, managerIf, "PrepareForSleep", {true}, {R::Sleep});
        row("waking up", true, manager, managerIf, "PrepareForSleep", {false}, {});
        row("sleep on the session bus", false, manager, managerIf, "PrepareForSleep", {true}, {});
        row("sleep from a stranger", true, manager, managerIf, "PrepareForSleep", {true}, {}, true);
        row("freedesktop screen saver on", false, saver, saverIf, "ActiveChanged", {true}, {R::ScreenLocked});
        row("freedesktop screen saver off", false, saver, saverIf, "ActiveChanged", {false}, {});
        row("KDE's short path on", false, QStringLiteral("/ScreenSaver"), saverIf, "ActiveChanged", {true},
            {R::ScreenLocked});
        row("GNOME screen saver on", false, gnome, gnomeIf, "ActiveChanged", {true}, {R::ScreenLocked});
        row("screen saver from a stranger", false, gnome, gnomeIf, "ActiveChanged", {true}, {}, true);
        row("session locked", true, s_sessionByPid, sessionIf, "Lock", {}, {R::ScreenLocked});
        row("another session locked", true, s_sessionById, sessionIf, "Lock", {}, {});
        row("session inactive", true, s_sessionByPid, propertiesIf, "PropertiesChanged",
            changed(sessionIf, "Active", false), {R::SessionInactive});
        row("session active", true, s_sessionByPid, propertiesIf, "PropertiesChanged",
            changed(sessionIf, "Active", true), {});
        row("another session inactive", true, s_sessionById, propertiesIf, "PropertiesChanged",
            changed(sessionIf, "Active", false), {});
    }

    void reportsDesktopEvents()
    {
        QFETCH(bool, systemBus);
        QFETCH(bool, fromStranger);
        QFETCH(QString, path);
        QFETCH(QString, interface);
        QFETCH(QString, member);
        QFETCH(QVariantList, arguments);
        QFETCH(Reasons, expected);

        for (TestBus *bus : {m_system.get(), m_session.get()}) {
            bus->serve(s_login1, QStringLiteral("/org/freedesktop/login1"), m_manager.get());
            bus->serve(s_screenSaver);
            bus->serve(s_gnomeScreenSaver);
        }
        AutoLock lock(m_system->client(), m_session->client());
        QSignalSpy spy(&lock, &AutoLock::lockRequested);
        QTRY_COMPARE(lock.sessionPath(), s_sessionByPid);
        m_system->sync();
        m_session->sync();

        QDBusMessage signal = QDBusMessage::createSignal(path, interface, member);
        signal.setArguments(arguments);
        TestBus &bus = systemBus ? *m_system : *m_session;
        const QDBusConnection sender = fromStranger ? bus.stranger() : bus.services();
        QVERIFY(sender.send(signal));
        QVERIFY(bus.flush(sender));
        QCOMPARE(reasons(spy), expected);
    }

    void measuresIdleTime_data()
    {
        QTest::addColumn<qint64>("screenSaver");
        QTest::addColumn<qint64>("mutter");
        QTest::addColumn<bool>("locks");
        // The limit is 60 s: milliseconds taken for seconds would lock on every row.
        QTest::newRow("screen saver over the limit") << qint64(61000) << s_absent << true;
        QTest::newRow("screen saver at the limit") << qint64(60000) << s_absent << true;
        QTest::newRow("screen saver under, Mutter over") << qint64(59999) << qint64(61000) << false;
        QTest::newRow("screen saver refuses, Mutter over") << s_refuses << qint64(61000) << true;
        QTest::newRow("screen saver without the object") << s_noObject << qint64(61000) << true;
        QTest::newRow("no screen saver, Mutter over") << s_absent << qint64(61000) << true;
        QTest::newRow("no screen saver, Mutter under") << s_absent << qint64(59999) << false;
    }

    void measuresIdleTime()
    {
        QFETCH(qint64, screenSaver);
        QFETCH(qint64, mutter);
        QFETCH(bool, locks);
        serveIdle(screenSaver, mutter);
        AutoLock lock(m_system->client(), m_session->client(), 60s, 50ms);
        QSignalSpy spy(&lock, &AutoLock::lockRequested);
        lock.setArmed(true);
        // A poll asks only once the previous answer is in: three questions asked mean two
        // answers handled, and one stretch of idleness is reported once.
        const int &asked = screenSaver >= 0 ? m_screenSaver->calls[QStringLiteral("GetSessionIdleTime")]
                                            : m_mutter->calls[QStringLiteral("GetIdletime")];
        QTRY_VERIFY(asked >= 3);
        QCOMPARE(reasons(spy), locks ? Reasons{AutoLock::Reason::Idle} : Reasons());
    }

    void measuresOnlyWhileArmed()
    {
        serveIdle(61000, s_absent);
        AutoLock lock(m_system->client(), m_session->client(), 60s, 50ms);
        QSignalSpy spy(&lock, &AutoLock::lockRequested);
        int &asked = m_screenSaver->calls[QStringLiteral("GetSessionIdleTime")];
        QTest::qWait(300);
        QCOMPARE(asked, 0);
        lock.setArmed(true);
        QTRY_COMPARE(spy.count(), 1);
        lock.setArmed(false);
        const int askedWhileArmed = asked;
        QTest::qWait(300);
        QVERIFY(asked <= askedWhileArmed + 1); // one question may have been on its way
        // Armed again after folders were unlocked, the same idleness counts anew.
        lock.setArmed(true);
        QTRY_COMPARE(spy.count(), 2);
    }

    void fallsBackToOwnWindows_data()
    {
        QTest::addColumn<bool>("buses");
        QTest::newRow("buses without services") << true;
        QTest::newRow("no buses") << false;
    }

    void fallsBackToOwnWindows()
    {
        QFETCH(bool, buses);
        const QDBusConnection absent(QStringLiteral("corvane-test-absent"));
        AutoLock lock(buses ? m_system->client() : absent, buses ? m_session->client() : absent, 300ms, 50ms);
        QSignalSpy spy(&lock, &AutoLock::lockRequested);
        lock.setArmed(true);
        QTRY_COMPARE(reasons(spy), Reasons{AutoLock::Reason::Idle});
    }
};

QTEST_MAIN(TestAutoLock)
#include "tst_auto_lock.moc"
