#pragma once

#include <QObject>
#include <QRect>

class Database;

/// Where the window was and how it was laid out when it last closed: its frame, whether it
/// was maximised, and the sidebar's width. Kept in the database (setting "window_state"), so
/// that it lives and goes with the user's data; read once at start.
class WindowState : public QObject
{
    Q_OBJECT
    /// The window's last frame; empty when none was kept or it was nonsense.
    Q_PROPERTY(QRect geometry READ geometry CONSTANT)
    Q_PROPERTY(bool maximized READ maximized CONSTANT)
    /// 0 when none was kept.
    Q_PROPERTY(int sidebarWidth READ sidebarWidth CONSTANT)

public:
    static constexpr int minimumWidth = 640;
    static constexpr int minimumHeight = 480;

    explicit WindowState(Database &database, QObject *parent = nullptr);

    const QRect &geometry() const { return m_geometry; }
    bool maximized() const { return m_maximized; }
    int sidebarWidth() const { return m_sidebarWidth; }

    /// Where to put a window on a screen whose available area is `available`: the kept frame,
    /// shrunk and moved to lie on it, or empty when nothing usable was kept.
    Q_INVOKABLE QRect placedOn(const QRect &available) const;
    /// Keeps the window's frame and layout as it closes. Nothing is said when it cannot be
    /// stored: the next start simply uses the default.
    Q_INVOKABLE void save(const QRect &geometry, bool maximized, int sidebarWidth);

private:
    Database &m_database;
    QRect m_geometry;
    bool m_maximized = false;
    int m_sidebarWidth = 0;
};
