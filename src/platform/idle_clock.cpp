#include "platform/idle_clock.h"

#include "platform/auto_lock.h"
#include "platform/dbus_call.h"
#include "platform/input_activity.h"
#include "platform/x11_idle.h"

#include <QFutureWatcher>
#include <QGuiApplication>
#include <QtConcurrent/QtConcurrentRun>

#include <optional>

using std::chrono::milliseconds;

namespace {

const char *describe(int source)
{
    static const char *const names[] = {"nothing", "the screen saver", "Mutter", "the X server",
                                        "this application's windows"};
    return names[source];
}

bool isGuiApplication()
{
    return qobject_cast<QGuiApplication *>(QCoreApplication::instance()) != nullptr;
}

// The reply's only argument, when the call succeeded with exactly the expected signature.
template <typename Value>
std::optional<Value> answer(const QDBusMessage &reply, QStringView signature)
{
    if (reply.type() != QDBusMessage::ReplyMessage || reply.signature() != signature)
        return std::nullopt;
    return reply.arguments().constFirst().value<Value>();
}

} // namespace

IdleClock::IdleClock(const QDBusConnection &session, milliseconds limit, milliseconds pollInterval,
                     QObject *parent)
    : QObject(parent)
    , m_session(session)
    , m_limit(limit)
{
    m_timer.setInterval(pollInterval);
    connect(&m_timer, &QTimer::timeout, this, &IdleClock::poll);
    // Input is watched from the start, not from the first poll: starting later would forget
    // the idleness before it, and lock later.
    if (isGuiApplication())
        m_input = new InputActivity(this);
    if (m_input && QGuiApplication::platformName() == u"xcb")
        m_x11 = std::make_shared<X11Idle>();
}

IdleClock::~IdleClock() = default;

void IdleClock::setRunning(bool running)
{
    if (running == isRunning())
        return;
    ++m_round;
    m_asking = false;
    m_reported = false;
    if (running)
        m_timer.start();
    else
        m_timer.stop();
}

void IdleClock::poll()
{
    // One question at a time: a slow service delays its answer, it does not pile them up.
    if (m_asking)
        return;
    m_asking = true;
    askScreenSaver();
}

void IdleClock::askScreenSaver()
{
    if (!m_session.isConnected()) {
        askMutter();
        return;
    }
    const QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.ScreenSaver"), QStringLiteral("/org/freedesktop/ScreenSaver"),
        QStringLiteral("org.freedesktop.ScreenSaver"), QStringLiteral("GetSessionIdleTime"));
    callAsync(m_session, call, this, [this, round = m_round](const QDBusMessage &reply) {
        if (round != m_round)
            return;
        if (const std::optional<quint32> idle = answer<quint32>(reply, u"u"))
            measured(milliseconds(*idle), Source::ScreenSaver);
        else
            askMutter();
    });
}

void IdleClock::askMutter()
{
    if (!m_session.isConnected()) {
        askX11();
        return;
    }
    const QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.gnome.Mutter.IdleMonitor"),
        QStringLiteral("/org/gnome/Mutter/IdleMonitor/Core"),
        QStringLiteral("org.gnome.Mutter.IdleMonitor"), QStringLiteral("GetIdletime"));
    callAsync(m_session, call, this, [this, round = m_round](const QDBusMessage &reply) {
        if (round != m_round)
            return;
        if (const std::optional<quint64> idle = answer<quint64>(reply, u"t"))
            measured(milliseconds(*idle), Source::Mutter);
        else
            askX11();
    });
}

void IdleClock::askX11()
{
    if (!m_x11) {
        askOwnWindows();
        return;
    }
    // The query is a round trip to the X server: on a worker thread, so that a stuck server
    // cannot freeze the window. The worker keeps the connection alive even past this clock.
    using Answer = std::optional<milliseconds>;
    auto *watcher = new QFutureWatcher<Answer>(this);
    connect(watcher, &QFutureWatcher<Answer>::finished, this, [this, watcher, round = m_round] {
        watcher->deleteLater();
        if (round != m_round)
            return;
        if (const Answer idle = watcher->result())
            measured(*idle, Source::X11);
        else
            askOwnWindows();
    });
    watcher->setFuture(QtConcurrent::run([x11 = m_x11] { return x11->idleTime(); }));
}

void IdleClock::askOwnWindows()
{
    if (m_input) {
        measured(m_input->sinceLastInput(), Source::OwnWindows);
        return;
    }
    // No windows, so no user to walk away from them.
    m_asking = false;
}

void IdleClock::measured(milliseconds idle, Source source)
{
    m_asking = false;
    if (source != m_source) {
        qCDebug(lcAutoLock) << "idle time now comes from" << describe(int(source));
        m_source = source;
    }
    if (idle < m_limit) {
        m_reported = false;
        return;
    }
    if (!m_reported) {
        m_reported = true;
        Q_EMIT limitReached();
    }
}
