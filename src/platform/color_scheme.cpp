#include "platform/color_scheme.h"

#include <QDBusArgument>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusVariant>
#include <QLoggingCategory>

Q_LOGGING_CATEGORY(lcColorScheme, "corvane.colorscheme")

namespace {

const QString s_service = QStringLiteral("org.freedesktop.portal.Desktop");
const QString s_path = QStringLiteral("/org/freedesktop/portal/desktop");
const QString s_interface = QStringLiteral("org.freedesktop.portal.Settings");
const QString s_group = QStringLiteral("org.freedesktop.appearance");
const QString s_key = QStringLiteral("color-scheme");

/// A value as the portal sends it, unwrapped from as many variants as it came in.
QVariant unwrapped(QVariant value)
{
    for (int depth = 0; depth < 4; ++depth) {
        if (value.userType() == qMetaTypeId<QDBusVariant>())
            value = value.value<QDBusVariant>().variant();
        else if (value.userType() == qMetaTypeId<QDBusArgument>()) {
            const QDBusArgument argument = value.value<QDBusArgument>();
            QDBusVariant inner;
            argument >> inner;
            value = inner.variant();
        } else
            break;
    }
    return value;
}

} // namespace

ColorSchemeWatcher::ColorSchemeWatcher(const QDBusConnection &session, QObject *parent)
    : QObject(parent)
    , m_bus(session)
{
    if (!m_bus.isConnected())
        return;
    // Any sender: the portal's name may move to another process when it restarts.
    m_bus.connect(QString(), s_path, s_interface, QStringLiteral("SettingChanged"), this,
                  SLOT(settingChanged(QDBusMessage)));
    // ReadOne is the newer call; older portals only have Read, which wraps the value twice.
    read(QStringLiteral("ReadOne"));
}

void ColorSchemeWatcher::read(const QString &method)
{
    QDBusMessage call = QDBusMessage::createMethodCall(s_service, s_path, s_interface, method);
    call.setArguments({s_group, s_key});
    auto *watcher = new QDBusPendingCallWatcher(m_bus.asyncCall(call, 5000), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this, watcher, method] {
        watcher->deleteLater();
        const QDBusMessage reply = watcher->reply();
        if (reply.type() == QDBusMessage::ReplyMessage && !reply.arguments().isEmpty()) {
            take(reply.arguments().constFirst());
            return;
        }
        if (method == QLatin1String("ReadOne") && reply.errorName() == QLatin1String("org.freedesktop.DBus.Error.UnknownMethod")) {
            read(QStringLiteral("Read"));
            return;
        }
        qCDebug(lcColorScheme) << "no colour scheme from the portal:" << reply.errorMessage();
    });
}

void ColorSchemeWatcher::settingChanged(const QDBusMessage &message)
{
    const QVariantList arguments = message.arguments();
    if (arguments.size() == 3 && arguments[0].toString() == s_group && arguments[1].toString() == s_key)
        take(arguments[2]);
}

void ColorSchemeWatcher::take(const QVariant &value)
{
    bool ok = false;
    const uint scheme = unwrapped(value).toUInt(&ok);
    // 1 prefers dark, 2 prefers light, 0 and anything else says nothing.
    const Preference preference = !ok ? Preference::None
        : scheme == 1                  ? Preference::Dark
        : scheme == 2                  ? Preference::Light
                                       : Preference::None;
    if (preference == m_preference)
        return;
    m_preference = preference;
    Q_EMIT changed();
}
