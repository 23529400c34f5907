#include "platform/session_watcher.h"

#include "platform/auto_lock.h"
#include "platform/dbus_call.h"

#include <QCoreApplication>
#include <QDBusObjectPath>

namespace {

const QString s_login1 = QStringLiteral("org.freedesktop.login1");
const QString s_managerPath = QStringLiteral("/org/freedesktop/login1");
const QString s_managerInterface = QStringLiteral("org.freedesktop.login1.Manager");
const QString s_sessionInterface = QStringLiteral("org.freedesktop.login1.Session");

struct ScreenSaver
{
    QString service;
    QString path;
    QString interface;
};

// KDE announces on both freedesktop paths, GNOME Shell on its own name.
const ScreenSaver s_screenSavers[] = {
    {QStringLiteral("org.freedesktop.ScreenSaver"), QStringLiteral("/org/freedesktop/ScreenSaver"),
     QStringLiteral("org.freedesktop.ScreenSaver")},
    {QStringLiteral("org.freedesktop.ScreenSaver"), QStringLiteral("/ScreenSaver"),
     QStringLiteral("org.freedesktop.ScreenSaver")},
    {QStringLiteral("org.gnome.ScreenSaver"), QStringLiteral("/org/gnome/ScreenSaver"),
     QStringLiteral("org.gnome.ScreenSaver")},
};

} // namespace

SessionWatcher::SessionWatcher(const QDBusConnection &system, const QDBusConnection &session,
                               QObject *parent)
    : QObject(parent)
    , m_system(system)
    , m_session(session)
{
    // Connecting with a service name makes Qt follow that name's owner, so a signal from any
    // other program on the bus is ignored, and a service that starts later is still heard.
    // Qt asks the bus daemon for the current owner once per name, synchronously; the daemon,
    // unlike a desktop service, answers at once.
    if (m_system.isConnected()) {
        m_system.connect(s_login1, s_managerPath, s_managerInterface,
                         QStringLiteral("PrepareForSleep"), this, SLOT(onPrepareForSleep(bool)));
        const QString id = qEnvironmentVariable("XDG_SESSION_ID");
        if (id.isEmpty())
            findSessionByPid();
        else
            findSessionById(id);
    } else {
        qCDebug(lcAutoLock) << "no system bus: sleep and session changes go unnoticed";
    }

    if (m_session.isConnected())
        watchScreenSavers();
    else
        qCDebug(lcAutoLock) << "no session bus: screen savers go unheard";
}

void SessionWatcher::watchScreenSavers()
{
    for (const ScreenSaver &saver : s_screenSavers)
        m_session.connect(saver.service, saver.path, saver.interface,
                          QStringLiteral("ActiveChanged"), this,
                          SLOT(onScreenSaverActiveChanged(bool)));
}

void SessionWatcher::findSessionById(const QString &id)
{
    QDBusMessage call = QDBusMessage::createMethodCall(s_login1, s_managerPath, s_managerInterface,
                                                       QStringLiteral("GetSession"));
    call << id;
    callAsync(m_system, call, this, [this](const QDBusMessage &reply) {
        // XDG_SESSION_ID can be stale, inherited from another session: ask by process then.
        if (reply.type() == QDBusMessage::ReplyMessage)
            watchSession(reply);
        else
            findSessionByPid();
    });
}

void SessionWatcher::findSessionByPid()
{
    QDBusMessage call = QDBusMessage::createMethodCall(s_login1, s_managerPath, s_managerInterface,
                                                       QStringLiteral("GetSessionByPID"));
    call << quint32(QCoreApplication::applicationPid());
    callAsync(m_system, call, this, [this](const QDBusMessage &reply) { watchSession(reply); });
}

void SessionWatcher::watchSession(const QDBusMessage &reply)
{
    const QString path = reply.type() == QDBusMessage::ReplyMessage && reply.signature() == u"o"
        ? reply.arguments().constFirst().value<QDBusObjectPath>().path()
        : QString();
    if (path.isEmpty()) {
        qCDebug(lcAutoLock) << "no logind session:" << reply.errorMessage();
        return;
    }
    m_system.connect(s_login1, path, s_sessionInterface, QStringLiteral("Lock"), this,
                     SLOT(onSessionLock()));
    m_system.connect(s_login1, path, QStringLiteral("org.freedesktop.DBus.Properties"),
                     QStringLiteral("PropertiesChanged"), this,
                     SLOT(onSessionPropertiesChanged(QString, QVariantMap, QStringList)));
    m_sessionPath = path;
    qCDebug(lcAutoLock) << "watching logind session" << path;
}

void SessionWatcher::onPrepareForSleep(bool starting)
{
    if (starting)
        Q_EMIT sleeping();
}

void SessionWatcher::onScreenSaverActiveChanged(bool active)
{
    if (active)
        Q_EMIT screenLocked();
}

void SessionWatcher::onSessionLock()
{
    Q_EMIT screenLocked();
}

void SessionWatcher::onSessionPropertiesChanged(const QString &interface, const QVariantMap &changed,
                                                const QStringList &)
{
    // logind sends the new value of Active with the change, never only its name.
    const auto active = changed.constFind(QStringLiteral("Active"));
    if (interface == s_sessionInterface && active != changed.constEnd()
        && active->typeId() == QMetaType::Bool && !active->toBool())
        Q_EMIT sessionInactive();
}
