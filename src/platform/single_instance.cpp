#include "platform/single_instance.h"

#include <QCryptographicHash>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusReply>
#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocalServer>
#include <QLocalSocket>
#include <QLoggingCategory>
#include <QStandardPaths>
#include <QUrl>

Q_LOGGING_CATEGORY(lcInstance, "corvane.instance")

namespace {

constexpr int s_answerTimeoutMs = 10000;
constexpr int s_connectTimeoutMs = 1000;
/// A request line longer than this is not one of ours.
constexpr qint64 s_longestRequest = 1 << 20;

const QString s_interface = QStringLiteral("org.freedesktop.Application");
const QString s_tokenKey = QStringLiteral("activation-token");

/// The token that lets the running instance raise its window past focus-stealing prevention.
QVariantMap platformData()
{
    QVariantMap data;
    const QString token = qEnvironmentVariable("XDG_ACTIVATION_TOKEN");
    if (!token.isEmpty())
        data.insert(s_tokenKey, token);
    const QString startupID = qEnvironmentVariable("DESKTOP_STARTUP_ID");
    if (!startupID.isEmpty())
        data.insert(QStringLiteral("desktop-startup-id"), startupID);
    return data;
}

QByteArray requestLine(const SingleInstance::Request &request)
{
    const QJsonObject object{{QStringLiteral("files"), QJsonArray::fromStringList(request.files)},
                             {QStringLiteral("action"), request.action},
                             {s_tokenKey, qEnvironmentVariable("XDG_ACTIVATION_TOKEN")}};
    return QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n';
}

SingleInstance::Request requestFrom(const QByteArray &line)
{
    const QJsonObject object = QJsonDocument::fromJson(line).object();
    SingleInstance::Request request;
    for (const QJsonValue &file : object.value(QStringLiteral("files")).toArray())
        if (file.isString() && QDir::isAbsolutePath(file.toString()))
            request.files << file.toString();
    request.action = object.value(QStringLiteral("action")).toString();
    request.activationToken = object.value(s_tokenKey).toString();
    return request;
}

} // namespace

/// The object the running instance shows on the bus: what launchers and later starts call.
class ApplicationInterface : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Application")

public:
    explicit ApplicationInterface(SingleInstance &owner)
        : QObject(&owner)
        , m_owner(owner)
    {
    }

public Q_SLOTS:
    void Activate(const QVariantMap &platformData)
    {
        m_owner.deliver({{}, {}, platformData.value(s_tokenKey).toString()});
    }

    void Open(const QStringList &uris, const QVariantMap &platformData)
    {
        SingleInstance::Request request;
        request.activationToken = platformData.value(s_tokenKey).toString();
        for (const QString &uri : uris) {
            const QUrl url(uri);
            if (url.isLocalFile())
                request.files << url.toLocalFile();
        }
        m_owner.deliver(request);
    }

    void ActivateAction(const QString &name, const QVariantList &, const QVariantMap &platformData)
    {
        m_owner.deliver({{}, name, platformData.value(s_tokenKey).toString()});
    }

private:
    SingleInstance &m_owner;
};

SingleInstance::SingleInstance(const QString &appID, const QString &scope, QObject *parent)
    : QObject(parent)
{
    m_name = appID;
    if (!scope.isEmpty())
        m_name += QStringLiteral(".Data")
            + QString::fromLatin1(QCryptographicHash::hash(scope.toUtf8(), QCryptographicHash::Sha256).toHex().left(16));
    m_objectPath = QLatin1Char('/') + QString(m_name).replace(QLatin1Char('.'), QLatin1Char('/'));
}

SingleInstance::~SingleInstance() = default;

SingleInstance::Claim SingleInstance::claim(const Request &request)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (bus.isConnected() && bus.interface())
        return claimOnBus(bus, request);
    return claimSocket(request);
}

SingleInstance::Claim SingleInstance::claimOnBus(QDBusConnection &bus, const Request &request)
{
    // The object first, so that whoever sees the name can call it.
    auto *object = new ApplicationInterface(*this);
    bus.registerObject(m_objectPath, object, QDBusConnection::ExportAllSlots);
    const QDBusReply<QDBusConnectionInterface::RegisterServiceReply> owned = bus.interface()->registerService(
        m_name, QDBusConnectionInterface::DontQueueService, QDBusConnectionInterface::DontAllowReplacement);
    if (owned.isValid() && owned.value() == QDBusConnectionInterface::ServiceRegistered)
        return Claim::Running;
    bus.unregisterObject(m_objectPath);
    delete object;
    if (!owned.isValid()) {
        qCWarning(lcInstance) << "the session bus refused the name:" << owned.error().message();
        return claimSocket(request);
    }

    QList<QDBusMessage> calls;
    const auto call = [&](const QString &method, const QVariantList &arguments) {
        QDBusMessage message = QDBusMessage::createMethodCall(m_name, m_objectPath, s_interface, method);
        message.setArguments(arguments);
        calls << message;
    };
    if (!request.action.isEmpty())
        call(QStringLiteral("ActivateAction"), {request.action, QVariantList(), platformData()});
    if (!request.files.isEmpty()) {
        QStringList uris;
        for (const QString &file : request.files)
            uris << QUrl::fromLocalFile(file).toString();
        call(QStringLiteral("Open"), {uris, platformData()});
    }
    if (calls.isEmpty())
        call(QStringLiteral("Activate"), {platformData()});
    for (const QDBusMessage &message : calls) {
        const QDBusMessage answer = bus.call(message, QDBus::Block, s_answerTimeoutMs);
        if (answer.type() == QDBusMessage::ErrorMessage) {
            m_failure = answer.errorMessage();
            return Claim::NotAnswered;
        }
    }
    return Claim::HandedOff;
}

SingleInstance::Claim SingleInstance::claimSocket(const Request &request)
{
    const QString path = socketPath();
    {
        QLocalSocket running;
        running.connectToServer(path);
        if (running.waitForConnected(s_connectTimeoutMs)) {
            running.write(requestLine(request));
            if (running.waitForBytesWritten(s_answerTimeoutMs) && running.waitForReadyRead(s_answerTimeoutMs)
                && running.readLine() == "ok\n")
                return Claim::HandedOff;
            m_failure = running.errorString();
            return Claim::NotAnswered;
        }
    }
    // Nobody answers there: what is left is the socket of an instance that crashed.
    QLocalServer::removeServer(path);
    m_server = std::make_unique<QLocalServer>();
    m_server->setSocketOptions(QLocalServer::UserAccessOption);
    if (!m_server->listen(path)) {
        // Still usable, only later starts open a window of their own.
        qCWarning(lcInstance) << "cannot listen at" << path << m_server->errorString();
        m_server.reset();
        return Claim::Running;
    }
    connect(m_server.get(), &QLocalServer::newConnection, this, [this] {
        while (QLocalSocket *socket = m_server->nextPendingConnection()) {
            connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
            connect(socket, &QLocalSocket::readyRead, socket, [this, socket] {
                while (socket->canReadLine()) {
                    const Request request = requestFrom(socket->readLine());
                    socket->write("ok\n");
                    socket->flush();
                    deliver(request);
                }
                if (socket->bytesAvailable() > s_longestRequest)
                    socket->abort();
            });
        }
    });
    return Claim::Running;
}

void SingleInstance::deliver(const Request &request)
{
    // Qt's Wayland window takes the token from there at its next activation request, once.
    if (!request.activationToken.isEmpty())
        qputenv("XDG_ACTIVATION_TOKEN", request.activationToken.toUtf8());
    if (!request.action.isEmpty())
        Q_EMIT actionActivated(request.action);
    if (!request.files.isEmpty())
        Q_EMIT filesOpened(request.files);
    if (request.action.isEmpty() && request.files.isEmpty())
        Q_EMIT activated();
}

QString SingleInstance::socketPath() const
{
    QString folder = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (folder.isEmpty())
        folder = QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation);
    return folder + QLatin1Char('/') + m_name + QStringLiteral(".socket");
}

#include "single_instance.moc"
