#pragma once

// A stand-in for polkit's authority (org.freedesktop.PolicyKit1 at
// /org/freedesktop/PolicyKit1/Authority): CheckAuthorization, with the answers and errors
// polkitd gives, recording every check it is asked.
//
// Setting it up as the system bus's polkit, for code that uses QDBusConnection::systemBus():
//
//     PrivateBus bus;                        // support/private_bus.h, kept for the whole test
//     const QString address = bus.start();
//     QVERIFY(!address.isEmpty());
//     // Before anything in the process touches the system bus: libdbus reads the variable once
//     // and Qt keeps the first system bus connection for good.
//     qputenv("DBUS_SYSTEM_BUS_ADDRESS", address.toUtf8());
//     FakePolkit polkit(QDBusConnection::connectToBus(address, QStringLiteral("fake-polkit")));
//     polkit.setAnswer(FakePolkit::Answer::Yes);
//     QVERIFY(polkit.start());
//
// The fake needs a connection of its own, as polkitd has: the subject of a check is the asker's
// unique name, and a call to a name owned by the asking connection itself would not go through
// the bus. In initTestCase, or at the top of main() for a program that builds QGuiApplication
// and the application's services before its first test: what matters is that the variable is
// set before the first QDBusConnection::systemBus(). A program may set it to a socket that does
// not exist to run without any system bus. Objects live on the main thread; answers are sent
// from its event loop, so the asking side must be awaited there (awaitTask, QTRY_*).

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusError>
#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <QList>
#include <QMap>
#include <QString>
#include <QStringList>
#include <QVariantMap>

#include <utility>

class FakePolkit : public QDBusVirtualObject
{
public:
    /// How the user and the installed policy answer the application's action.
    enum class Answer {
        Yes,          ///< the user passes the dialog
        No,           ///< the user fails it or dismisses it
        Forbidden,    ///< a local rule refuses the action without asking anyone
        NotInstalled, ///< the action is unknown: every check is polkitd's error for that
        NoAgent,      ///< no authentication agent runs, so no dialog can be shown
    };

    /// One CheckAuthorization as it arrived.
    struct Check
    {
        QString sender; ///< the asker's unique name
        QString subjectKind;
        QVariantMap subject;
        QString actionId;
        QMap<QString, QString> details;
        quint32 flags = 0;
        QString cancellationId;
    };

    static QString service() { return QStringLiteral("org.freedesktop.PolicyKit1"); }
    static QString path() { return QStringLiteral("/org/freedesktop/PolicyKit1/Authority"); }
    static QString interface() { return QStringLiteral("org.freedesktop.PolicyKit1.Authority"); }
    /// polkit's flag for a check that may show a dialog.
    static constexpr quint32 allowUserInteraction = 1;

    /// `bus` is a connection of the fake's own; `action` the one action it knows.
    explicit FakePolkit(QDBusConnection bus, QString action = QStringLiteral(CORVANE_APP_ID ".unlock"))
        : m_bus(std::move(bus))
        , m_action(std::move(action))
    {
    }

    ~FakePolkit() override
    {
        m_bus.unregisterObject(path());
        m_bus.unregisterService(service());
    }

    /// Exports the authority and takes polkit's name; false when the bus refused either.
    bool start()
    {
        return m_bus.isConnected() && m_bus.registerVirtualObject(path(), this)
            && m_bus.registerService(service());
    }

    void setAnswer(Answer answer) { m_answer = answer; }
    const QList<Check> &checks() const { return m_checks; }

    QString introspect(const QString &) const override
    {
        return QStringLiteral(
            "<interface name='org.freedesktop.PolicyKit1.Authority'>"
            "<method name='CheckAuthorization'><arg type='(sa{sv})' direction='in'/>"
            "<arg type='s' direction='in'/><arg type='a{ss}' direction='in'/>"
            "<arg type='u' direction='in'/><arg type='s' direction='in'/>"
            "<arg type='(bba{ss})' direction='out'/></method>"
            "<method name='CancelCheckAuthorization'><arg type='s' direction='in'/></method>"
            "</interface>");
    }

    bool handleMessage(const QDBusMessage &message, const QDBusConnection &) override
    {
        if (message.type() != QDBusMessage::MethodCallMessage || message.interface() != interface())
            return false;
        if (message.member() == u"CheckAuthorization") {
            check(message);
            return true;
        }
        if (message.member() == u"CancelCheckAuthorization") {
            // Every check here is answered at once, so none is left to cancel.
            m_bus.send(failed(message, QStringLiteral("No such cancellation_id `%1' for name %2")
                                           .arg(message.arguments().value(0).toString(), message.service())));
            return true;
        }
        return false;
    }

private:
    static QDBusMessage result(const QDBusMessage &call, bool authorized, bool challenge,
                               const QMap<QString, QString> &details)
    {
        QDBusArgument value;
        value.beginStructure();
        value << authorized << challenge << details;
        value.endStructure();
        return call.createReply(QVariant::fromValue(value));
    }

    static QDBusMessage failed(const QDBusMessage &call, const QString &text)
    {
        return call.createErrorReply(QStringLiteral("org.freedesktop.PolicyKit1.Error.Failed"), text);
    }

    void check(const QDBusMessage &message)
    {
        // GDBus refuses arguments of another signature before polkitd sees them.
        if (message.signature() != u"(sa{sv})sa{ss}us") {
            m_bus.send(message.createErrorReply(QDBusError::InvalidArgs,
                                                QStringLiteral("Type of message, '(%1)', does not match")
                                                    .arg(message.signature())));
            return;
        }
        const QVariantList arguments = message.arguments();
        Check check;
        check.sender = message.service();
        const QDBusArgument subject = arguments[0].value<QDBusArgument>();
        subject.beginStructure();
        subject >> check.subjectKind >> check.subject;
        subject.endStructure();
        check.actionId = arguments[1].toString();
        arguments[2].value<QDBusArgument>() >> check.details;
        check.flags = arguments[3].toUInt();
        check.cancellationId = arguments[4].toString();
        m_checks.append(check);

        if (m_answer == Answer::NotInstalled || check.actionId != m_action) {
            m_bus.send(failed(message, QStringLiteral("Action %1 is not registered").arg(check.actionId)));
            return;
        }
        const bool interactive = check.flags & allowUserInteraction;
        if (m_answer == Answer::Forbidden) {
            m_bus.send(result(message, false, false, {}));
        } else if (!interactive) {
            // auth_self without a dialog: not yet, but the user could pass one.
            m_bus.send(result(message, false, true, {}));
        } else if (m_answer == Answer::NoAgent) {
            // polkitd's answer when it finds no agent to ask: the challenge is still open.
            m_bus.send(result(message, false, true, {}));
        } else if (m_answer == Answer::Yes) {
            m_bus.send(result(message, true, false, {}));
        } else {
            m_bus.send(result(message, false, false, {{QStringLiteral("polkit.dismissed"), QStringLiteral("true")}}));
        }
    }

    QDBusConnection m_bus;
    QString m_action;
    Answer m_answer = Answer::Yes;
    QList<Check> m_checks;
};
