#include "platform/auto_lock.h"

#include "platform/idle_clock.h"
#include "platform/session_watcher.h"

Q_LOGGING_CATEGORY(lcAutoLock, "corvane.autolock", QtInfoMsg)

AutoLock::AutoLock(const QDBusConnection &system, const QDBusConnection &session,
                   std::chrono::milliseconds idleLimit, std::chrono::milliseconds pollInterval,
                   QObject *parent)
    : QObject(parent)
    , m_session(new SessionWatcher(system, session, this))
    , m_idle(new IdleClock(session, idleLimit, pollInterval, this))
{
    connect(m_session, &SessionWatcher::sleeping, this, [this] { Q_EMIT lockRequested(Reason::Sleep); });
    connect(m_session, &SessionWatcher::screenLocked, this,
            [this] { Q_EMIT lockRequested(Reason::ScreenLocked); });
    connect(m_session, &SessionWatcher::sessionInactive, this,
            [this] { Q_EMIT lockRequested(Reason::SessionInactive); });
    connect(m_idle, &IdleClock::limitReached, this, [this] { Q_EMIT lockRequested(Reason::Idle); });
}

AutoLock::~AutoLock() = default;

void AutoLock::setArmed(bool armed)
{
    m_idle->setRunning(armed);
}

bool AutoLock::isArmed() const
{
    return m_idle->isRunning();
}

QString AutoLock::sessionPath() const
{
    return m_session->sessionPath();
}
