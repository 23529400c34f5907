#pragma once

#include <QObject>
#include <QStringList>

#include <memory>

class QDBusConnection;
class QLocalServer;

/// Keeps one running Corvane per data folder. The first process to start owns the session
/// bus name of the application (another data folder gets a name of its own) and answers
/// `org.freedesktop.Application` there; a later start hands it its files or its action and
/// ends. Without a session bus the same goes through a local socket in the user's runtime
/// folder, open to the user alone.
class SingleInstance : public QObject
{
    Q_OBJECT

public:
    /// What a start asks of the running instance.
    struct Request
    {
        QStringList files; ///< absolute paths
        QString action;    ///< a launcher action ("new-chat"), or empty
        /// The desktop's token that lets the running instance raise its window past focus-stealing
        /// prevention (XDG_ACTIVATION_TOKEN of the start that asked), or empty.
        QString activationToken;
    };

    /// `appID` is the application id; `scope`, when not empty, the data folder in use, which
    /// makes the instance another one.
    SingleInstance(const QString &appID, const QString &scope, QObject *parent = nullptr);
    ~SingleInstance() override;

    enum class Claim {
        Running,     ///< this process is the instance now
        HandedOff,   ///< the running instance took the request; this process should end
        NotAnswered, ///< one runs but did not take it (`failure()` says why)
    };

    /// Becomes the running instance, or hands `request` to the one that runs. Blocks briefly:
    /// it runs before the window exists.
    Claim claim(const Request &request);
    /// Why the running instance did not answer.
    const QString &failure() const { return m_failure; }

    /// The bus name, also the socket's name in the runtime folder.
    const QString &name() const { return m_name; }

Q_SIGNALS:
    /// Another start asked for the window.
    void activated();
    /// Another start was given files to open.
    void filesOpened(const QStringList &paths);
    /// Another start came from a launcher action.
    void actionActivated(const QString &action);

private:
    friend class ApplicationInterface;

    Claim claimOnBus(QDBusConnection &bus, const Request &request);
    Claim claimSocket(const Request &request);
    void deliver(const Request &request);
    QString socketPath() const;

    QString m_name;
    QString m_objectPath;
    QString m_failure;
    std::unique_ptr<QLocalServer> m_server;
};
