#include "platform/polkit_presence.h"

#include <QDBusArgument>
#include <QDBusError>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QLoggingCategory>
#include <QVariantMap>

#include <QCoro/QCoroDBusPendingCall>

#include <atomic>

Q_LOGGING_CATEGORY(lcPolkit, "corvane.polkit")

namespace {

const QString s_service = QStringLiteral("org.freedesktop.PolicyKit1");
const QString s_path = QStringLiteral("/org/freedesktop/PolicyKit1/Authority");
const QString s_interface = QStringLiteral("org.freedesktop.PolicyKit1.Authority");

// polkit's CheckAuthorizationFlags.
constexpr quint32 s_noInteraction = 0;
constexpr quint32 s_allowUserInteraction = 1;

// Without interaction polkit answers from its rules at once; a few seconds is only for a hung one.
constexpr int s_quickTimeoutMs = 5000;
// With interaction the call lasts as long as the dialog is open: a user may read it, find the
// fingerprint reader or type a long password. Past this, nobody is answering any more.
constexpr int s_interactiveTimeoutMs = 5 * 60 * 1000;

struct Answer
{
    bool valid = false;
    bool authorized = false;
    bool challenge = false;
};

QDBusMessage authorityCall(const QString &method)
{
    QDBusMessage call = QDBusMessage::createMethodCall(s_service, s_path, s_interface, method);
    call.setAutoStartService(false);
    return call;
}

QDBusMessage checkCall(const QDBusConnection &bus, quint32 flags, const QString &cancellationId)
{
    // The subject is our own unique name on the system bus, as polkit advises for a D-Bus
    // client: polkit learns the process and user behind it from the bus daemon, which cannot be
    // lied to, whereas a pid with its start time can be raced by a recycled pid (polkit calls
    // its process subject broken for that reason). polkit also ties the dialog to the name and
    // closes it by itself when the name leaves the bus, so quitting ends the check.
    QDBusArgument subject;
    subject.beginStructure();
    subject << QStringLiteral("system-bus-name")
            << QVariantMap{{QStringLiteral("name"), bus.baseService()}};
    subject.endStructure();

    QDBusArgument details;
    details.beginMap(QMetaType::fromType<QString>(), QMetaType::fromType<QString>());
    details.endMap();

    QDBusMessage call = authorityCall(QStringLiteral("CheckAuthorization"));
    call << QVariant::fromValue(subject) << PolkitPresence::actionId() << QVariant::fromValue(details)
         << flags << cancellationId;
    return call;
}

/// polkit's result, a `(bba{ss})`: authorised, could be after a challenge, details.
Answer answer(const QDBusMessage &reply)
{
    Answer result;
    if (reply.type() != QDBusMessage::ReplyMessage || reply.signature() != u"(bba{ss})")
        return result;
    const QDBusArgument argument = reply.arguments().constFirst().value<QDBusArgument>();
    QMap<QString, QString> details;
    argument.beginStructure();
    argument >> result.authorized >> result.challenge >> details;
    argument.endStructure();
    result.valid = true;
    return result;
}

QString describe(const QDBusMessage &reply)
{
    if (reply.type() == QDBusMessage::ErrorMessage)
        return reply.errorName() + QStringLiteral(": ") + reply.errorMessage();
    return QStringLiteral("an answer of type ") + reply.signature();
}

/// Unique among the checks open on our connection, which is all polkit asks of it.
QString nextCancellationId()
{
    static std::atomic<quint64> serial{0};
    return QStringLiteral("corvane-unlock-%1").arg(++serial);
}

void cancelCheck(const QDBusConnection &bus, const QString &cancellationId)
{
    QDBusMessage call = authorityCall(QStringLiteral("CancelCheckAuthorization"));
    call << cancellationId;
    // Its answer changes nothing: the check itself ends with a reply of its own.
    bus.send(call);
}

} // namespace

QString PolkitPresence::actionId()
{
    return QStringLiteral(CORVANE_APP_ID ".unlock");
}

PolkitPresence::PolkitPresence()
    : PolkitPresence(QDBusConnection::systemBus())
{
}

PolkitPresence::PolkitPresence(QDBusConnection systemBus)
    : m_bus(std::move(systemBus))
{
}

QCoro::Task<bool> PolkitPresence::isAvailable()
{
    // A copy: after the first suspension this object may be gone.
    const QDBusConnection bus = m_bus;
    if (!bus.isConnected()) {
        qCDebug(lcPolkit) << "no system bus:" << bus.lastError().message();
        co_return false;
    }
    const QDBusPendingCall pending = bus.asyncCall(checkCall(bus, s_noInteraction, QString()), s_quickTimeoutMs);
    const QDBusMessage reply = co_await pending;
    const Answer result = answer(reply);
    if (!result.valid) {
        // An action polkit does not know is an error, like a polkit that is not there.
        qCDebug(lcPolkit) << "polkit cannot check" << actionId() << "here:" << describe(reply);
        co_return false;
    }
    // Neither granted nor open to a challenge: a local rule refuses it whatever the user does.
    if (!result.authorized && !result.challenge)
        qCDebug(lcPolkit) << "polkit refuses" << actionId() << "outright";
    co_return result.authorized || result.challenge;
}

QCoro::Task<bool> PolkitPresence::confirm()
{
    const QDBusConnection bus = m_bus;
    if (!bus.isConnected()) {
        qCWarning(lcPolkit) << "no system bus:" << bus.lastError().message();
        throw PolkitError();
    }

    const QString cancellationId = nextCancellationId();
    const QDBusPendingCall pending =
        bus.asyncCall(checkCall(bus, s_allowUserInteraction, cancellationId), s_interactiveTimeoutMs);
    const QDBusMessage reply = co_await pending;
    const Answer result = answer(reply);
    if (!result.valid) {
        qCWarning(lcPolkit) << "polkit could not check" << actionId() << ":" << describe(reply);
        // Our timeout: the dialog may still be open with nobody waiting for it.
        if (QDBusError(reply).type() == QDBusError::NoReply)
            cancelCheck(bus, cancellationId);
        throw PolkitError();
    }
    // After a dialog polkit says no challenge is left; one still open means none could be
    // shown: no authentication agent runs for this session.
    if (!result.authorized && result.challenge) {
        qCWarning(lcPolkit) << "no polkit authentication agent could ask the user";
        throw PolkitError();
    }
    co_return result.authorized;
}
