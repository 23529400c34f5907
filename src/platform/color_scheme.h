#pragma once

#include <QDBusConnection>
#include <QObject>

#include <QDBusMessage>

/// The desktop's colour scheme as the settings portal tells it
/// (`org.freedesktop.appearance color-scheme`), read once and then followed as the user
/// changes it. Without a portal, or while it answers "no preference", the preference is
/// `None` and the caller judges by the palette.
class ColorSchemeWatcher : public QObject
{
    Q_OBJECT

public:
    enum class Preference { None, Dark, Light };

    /// Asks the portal on `session`; the answer comes later, with `changed`.
    explicit ColorSchemeWatcher(const QDBusConnection &session, QObject *parent = nullptr);

    Preference preference() const { return m_preference; }

Q_SIGNALS:
    void changed();

private Q_SLOTS:
    void settingChanged(const QDBusMessage &message);

private:
    void read(const QString &method);
    void take(const QVariant &value);

    QDBusConnection m_bus;
    Preference m_preference = Preference::None;
};
