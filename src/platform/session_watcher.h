#pragma once

#include <QDBusConnection>
#include <QObject>
#include <QVariantMap>

/// Listens for the desktop events after which open locked folders must close: the machine
/// going to sleep (logind), the screen locking (the freedesktop and GNOME screen savers, and
/// logind's per-session Lock) and a switch to another session (logind's session turning
/// inactive). Every source is optional: one whose bus or service is missing is simply never
/// heard from. The same event may arrive from more than one source; locking twice is harmless.
class SessionWatcher : public QObject
{
    Q_OBJECT
public:
    /// `system` carries logind, `session` the screen savers. Either may be disconnected.
    SessionWatcher(const QDBusConnection &system, const QDBusConnection &session,
                   QObject *parent = nullptr);

    /// logind's object for this login session; empty until the asynchronous lookup has found
    /// it, and for good where there is none (no logind, a container).
    QString sessionPath() const { return m_sessionPath; }

Q_SIGNALS:
    void sleeping();
    void screenLocked();
    void sessionInactive();

private Q_SLOTS:
    // Connected by name through QDBusConnection::connect, hence slots.
    void onPrepareForSleep(bool starting);
    void onScreenSaverActiveChanged(bool active);
    void onSessionLock();
    void onSessionPropertiesChanged(const QString &interface, const QVariantMap &changed,
                                    const QStringList &invalidated);

private:
    void watchScreenSavers();
    void findSessionById(const QString &id);
    void findSessionByPid();
    void watchSession(const QDBusMessage &reply);

    QDBusConnection m_system;
    QDBusConnection m_session;
    QString m_sessionPath;
};
