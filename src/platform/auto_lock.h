#pragma once

#include <QDBusConnection>
#include <QLoggingCategory>
#include <QObject>

#include <chrono>

Q_DECLARE_LOGGING_CATEGORY(lcAutoLock)

class IdleClock;
class SessionWatcher;

/// Tells when open locked folders must lock again by themselves: before the machine sleeps,
/// when the screen locks, when the user switches to another session, and after a stretch
/// without input. It only notices; locking is up to whoever listens to `lockRequested`.
///
/// Everything it asks of the desktop is asynchronous, and every source is optional: without
/// logind, a screen saver or even a D-Bus connection, those events simply never arrive.
class AutoLock : public QObject
{
    Q_OBJECT
public:
    enum class Reason {
        Sleep,           ///< logind is about to suspend or hibernate
        ScreenLocked,    ///< a screen saver or logind locked the screen
        SessionInactive, ///< another session took over the seat (user switch)
        Idle,            ///< no input for the idle limit
    };
    Q_ENUM(Reason)

    static constexpr std::chrono::milliseconds defaultIdleLimit = std::chrono::minutes(10);
    static constexpr std::chrono::milliseconds defaultPollInterval = std::chrono::seconds(30);

    /// `system` is where logind lives, `session` where the screen savers and Mutter do
    /// (QDBusConnection::systemBus() and sessionBus() in the application).
    AutoLock(const QDBusConnection &system, const QDBusConnection &session,
             std::chrono::milliseconds idleLimit = defaultIdleLimit,
             std::chrono::milliseconds pollInterval = defaultPollInterval, QObject *parent = nullptr);
    ~AutoLock() override;

    /// Whether locked folders are open. Idle time is measured only while armed, so that nothing
    /// is polled when there is nothing to lock. The other events are reported armed or not,
    /// since they cost nothing to hear and locking nothing is harmless.
    void setArmed(bool armed);
    bool isArmed() const;

    /// logind's object for this login session once found, for diagnostics; else empty.
    QString sessionPath() const;

Q_SIGNALS:
    /// Open locked folders must lock now. The same event may be reported more than once.
    void lockRequested(AutoLock::Reason reason);

private:
    SessionWatcher *m_session = nullptr;
    IdleClock *m_idle = nullptr;
};
