#include "app/appearance.h"

#include "app/status_banner.h"
#include "platform/color_scheme.h"
#include "storage/database.h"

#include <QEvent>
#include <QGuiApplication>
#include <QPalette>

namespace {

const QString s_system = QStringLiteral("system");

bool isChoice(const QString &choice)
{
    return choice == s_system || choice == QLatin1String("light") || choice == QLatin1String("dark");
}

} // namespace

Appearance::Appearance(Database &database, StatusBanner &status, const QDBusConnection &session, QObject *parent)
    : QObject(parent)
    , m_database(database)
    , m_status(status)
    , m_watcher(std::make_unique<ColorSchemeWatcher>(session))
    , m_choice(s_system)
{
    // A stored value that is none of the choices is nonsense: the system's scheme it is.
    std::optional<QString> stored;
    m_status.attempt([&] { stored = m_database.setting(settingKey); });
    if (stored && isChoice(*stored))
        m_choice = *stored;
    connect(m_watcher.get(), &ColorSchemeWatcher::changed, this, &Appearance::update);
    // Desktops without the portal change the palette instead; follow that too.
    if (QCoreApplication *application = QCoreApplication::instance())
        application->installEventFilter(this);
    update();
}

Appearance::~Appearance() = default;

void Appearance::setChoice(const QString &choice)
{
    if (!isChoice(choice) || choice == m_choice)
        return;
    m_choice = choice;
    m_status.attempt([&] { m_database.setSetting(settingKey, choice); });
    update();
    Q_EMIT changed();
}

void Appearance::resetAfterErase()
{
    if (m_choice == s_system)
        return;
    m_choice = s_system;
    update();
    Q_EMIT changed();
}

bool Appearance::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == QCoreApplication::instance() && event->type() == QEvent::ApplicationPaletteChange)
        update();
    return QObject::eventFilter(watched, event);
}

void Appearance::update()
{
    bool dark = m_choice == QLatin1String("dark");
    if (m_choice == s_system) {
        switch (m_watcher->preference()) {
        case ColorSchemeWatcher::Preference::Dark:
            dark = true;
            break;
        case ColorSchemeWatcher::Preference::Light:
            dark = false;
            break;
        case ColorSchemeWatcher::Preference::None:
            // Only a GUI application has a palette; without one, light.
            dark = qobject_cast<QGuiApplication *>(QCoreApplication::instance())
                && QGuiApplication::palette().color(QPalette::Window).lightness() < 128;
            break;
        }
    }
    if (dark == m_isDark)
        return;
    m_isDark = dark;
    Q_EMIT changed();
}
