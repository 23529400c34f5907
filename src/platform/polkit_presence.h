#pragma once

#include "platform/error.h"

#include <QDBusConnection>
#include <QString>

#include <QCoro/QCoroTask>

/// polkit could not be asked whether the user is there, or answered with an error.
class PolkitError : public CorvaneError
{
public:
    PolkitError()
        : CorvaneError(QStringLiteral("Your computer could not check that it's you"))
    {
    }
};

/// Asks polkit whether the person at the computer is its user, before a locked folder opens
/// "with this computer". The check is polkit's `auth_self` for the application's own action
/// (installed by the application's policy file): polkit's authentication agent asks for a
/// fingerprint where PAM uses the reader, else the login password.
///
/// Nothing is started to answer: where polkit is not running, there is no agent to ask the
/// user either (the desktop's agent starts polkit when it registers). The object may be
/// destroyed while a check it started is still waiting.
class PolkitPresence
{
public:
    /// The action the policy file installs.
    static QString actionId();

    /// Asks polkit on the system bus.
    PolkitPresence();
    /// Asks whatever answers as polkit on `systemBus`.
    explicit PolkitPresence(QDBusConnection systemBus);

    /// Whether polkit answers on the system bus and could let the user confirm our action:
    /// false without a bus, without polkit, when the action is not installed, or when a local
    /// rule refuses it outright. Never throws; answers within a few seconds.
    QCoro::Task<bool> isAvailable();

    /// Lets polkit ask the user, which may take minutes. True when the user passed; false when
    /// they failed or dismissed the dialog (the caller simply stays locked). Throws PolkitError
    /// when polkit cannot be asked, answers with an error or has no agent to show a dialog.
    /// When the application quits meanwhile, polkit closes the dialog itself, since our name
    /// left the bus.
    QCoro::Task<bool> confirm();

private:
    QDBusConnection m_bus;
};
