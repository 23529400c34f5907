#include "app/window_state.h"

#include "storage/database.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>

namespace {

const QString s_key = QStringLiteral("window_state");

} // namespace

WindowState::WindowState(Database &database, QObject *parent)
    : QObject(parent)
    , m_database(database)
{
    std::optional<QString> stored;
    try {
        stored = m_database.setting(s_key);
    } catch (const std::exception &) {
        // The default layout is as good as any.
    }
    const QJsonObject object = QJsonDocument::fromJson(stored.value_or(QString()).toUtf8()).object();
    const QRect geometry(object.value(QStringLiteral("x")).toInt(), object.value(QStringLiteral("y")).toInt(),
                         object.value(QStringLiteral("width")).toInt(), object.value(QStringLiteral("height")).toInt());
    if (geometry.width() >= minimumWidth && geometry.height() >= minimumHeight && geometry.width() <= 100000
        && geometry.height() <= 100000)
        m_geometry = geometry;
    m_maximized = object.value(QStringLiteral("maximized")).toBool();
    const int sidebar = object.value(QStringLiteral("sidebar_width")).toInt();
    if (sidebar >= 120 && sidebar <= 2000)
        m_sidebarWidth = sidebar;
}

QRect WindowState::placedOn(const QRect &available) const
{
    if (m_geometry.isEmpty() || available.isEmpty())
        return {};
    // A screen that went away or shrank: the window keeps its size where it fits and comes
    // back onto what there is.
    QRect placed(m_geometry.topLeft(),
                 QSize(std::min(m_geometry.width(), std::max(available.width(), minimumWidth)),
                       std::min(m_geometry.height(), std::max(available.height(), minimumHeight))));
    placed.moveLeft(std::clamp(placed.left(), available.left(), std::max(available.left(), available.right() - placed.width() + 1)));
    placed.moveTop(std::clamp(placed.top(), available.top(), std::max(available.top(), available.bottom() - placed.height() + 1)));
    return placed;
}

void WindowState::save(const QRect &geometry, bool maximized, int sidebarWidth)
{
    // A maximised window's frame is the screen's; the frame to come back to is the one it had.
    const QRect frame = maximized && !m_geometry.isEmpty() ? m_geometry : geometry;
    const QJsonObject object{{QStringLiteral("x"), frame.x()},
                             {QStringLiteral("y"), frame.y()},
                             {QStringLiteral("width"), frame.width()},
                             {QStringLiteral("height"), frame.height()},
                             {QStringLiteral("maximized"), maximized},
                             {QStringLiteral("sidebar_width"), sidebarWidth}};
    try {
        m_database.setSetting(s_key, QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact)));
    } catch (const std::exception &) {
        // Closing goes on: a window that opens at its default size loses nothing.
    }
}
