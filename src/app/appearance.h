#pragma once

#include <QObject>
#include <QString>

#include <memory>

class ColorSchemeWatcher;
class Database;
class QDBusConnection;
class StatusBanner;

/// Light or dark: the user's choice ("system", "light" or "dark", setting "appearance"), and
/// for "system" the desktop's colour scheme, followed while the application runs, or else the
/// lightness of the desktop's palette. Every colour of the window follows `isDark`.
class Appearance : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QString choice READ choice WRITE setChoice NOTIFY changed)
    Q_PROPERTY(bool isDark READ isDark NOTIFY changed)

public:
    static inline const QString settingKey = QStringLiteral("appearance");

    Appearance(Database &database, StatusBanner &status, const QDBusConnection &session, QObject *parent = nullptr);
    ~Appearance() override;

    const QString &choice() const { return m_choice; }
    /// Ignored unless `choice` is "system", "light" or "dark".
    void setChoice(const QString &choice);
    bool isDark() const { return m_isDark; }
    /// Back to following the system after erasing all data.
    void resetAfterErase();

Q_SIGNALS:
    void changed();

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    void update();

    Database &m_database;
    StatusBanner &m_status;
    std::unique_ptr<ColorSchemeWatcher> m_watcher;
    QString m_choice;
    bool m_isDark = false;
};
