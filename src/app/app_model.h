#pragma once

#include <QObject>
#include <QString>

/// The one model the window observes. It owns the application's state and services and is
/// created once at start-up; it lives until the application quits.
class AppModel : public QObject
{
    Q_OBJECT
    Q_PROPERTY(bool hasChatModel READ hasChatModel NOTIFY installedModelsChanged)
    Q_PROPERTY(QString supportDirectory READ supportDirectory CONSTANT)

public:
    /// Creates the data directory. Throws a CorvaneError when it cannot; the caller stops the
    /// application with "Could not open local storage: " and the error's description.
    explicit AppModel(QObject *parent = nullptr);

    /// True when at least one chat model is installed; the window shows the first-run
    /// set-up screen while this is false.
    bool hasChatModel() const;

    const QString &supportDirectory() const { return m_supportDirectory; }

Q_SIGNALS:
    void installedModelsChanged();

private:
    QString m_supportDirectory;
};
