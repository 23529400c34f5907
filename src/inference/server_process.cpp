// Starting, reusing and stopping the llama-server child process.
#include "inference/inference_engine.h"

#include "inference/inference_error.h"
#include "inference/pending_reply.h"
#include "platform/auxiliary_executable.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QNetworkReply>
#include <QProcess>
#include <QRandomGenerator>
#include <QTimer>
#include <QTcpServer>
#include <QUuid>

#include <QCoro/QCoroNetworkReply>
#include <QCoro/QCoroProcess>
#include <QCoro/QCoroTimer>

#include <chrono>
#include <memory>

namespace {

constexpr int s_probeAttempts = 120;
constexpr auto s_probeInterval = std::chrono::milliseconds(250);
// A server asked to stop gets this long to exit before it is killed.
constexpr int s_exitGraceMs = 5000;

/// A port on 127.0.0.1 that nothing uses now, as the system hands them out. A random pick
/// could fall on a port that an outgoing connection holds (the system's range for those
/// covers most of the high ports), and the server would then fail to start.
int freeLocalPort()
{
    QTcpServer probe;
    if (probe.listen(QHostAddress::LocalHost, 0))
        return probe.serverPort();
    return 40000 + static_cast<int>(QRandomGenerator::system()->bounded(20001));
}

} // namespace

InferenceEngine::InferenceEngine(QObject *parent)
    : QObject(parent)
    , m_port(freeLocalPort())
    , m_key(QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper())
{
    m_network.setAutoDeleteReplies(false);
    if (auto *app = QCoreApplication::instance())
        connect(app, &QCoreApplication::aboutToQuit, this, &InferenceEngine::shutdown);
}

InferenceEngine::~InferenceEngine()
{
    shutdown();
    // Servers still exiting belong to this engine: the server keeps nothing worth saving, so
    // it is killed rather than left running after the application.
    for (QProcess *process : findChildren<QProcess *>()) {
        if (process->state() != QProcess::NotRunning) {
            process->kill();
            process->waitForFinished(1000);
        }
    }
}

QStringList InferenceEngine::arguments(const QString &modelPath, const std::optional<QString> &projectorPath,
                                       qint64 contextTokens, const QString &device) const
{
    // No thread, GPU-layer, attention or batch options: the server's defaults suit the machine,
    // and on a GPU it fits as many layers as leave a gigabyte free for the desktop. The device
    // is always named: the same card can be listed under two backends.
    QStringList arguments{
        QStringLiteral("-m"), modelPath,
        QStringLiteral("--host"), QStringLiteral("127.0.0.1"),
        QStringLiteral("--port"), QString::number(m_port),
        QStringLiteral("--ctx-size"), QString::number(contextTokens),
        QStringLiteral("--parallel"), QStringLiteral("1"),
        QStringLiteral("--reasoning"), QStringLiteral("off"),
        QStringLiteral("--no-webui"),
        QStringLiteral("--device"), device,
    };
    if (projectorPath)
        arguments << QStringLiteral("--mmproj") << *projectorPath;
    return arguments;
}

bool InferenceEngine::hasVision() const
{
    return m_loadedProjector && m_process && m_process->state() == QProcess::Running;
}

qint64 InferenceEngine::serverProcessID() const
{
    return m_process ? m_process->processId() : 0;
}

void InferenceEngine::clearLoaded()
{
    m_loadedPath.reset();
    m_loadedProjector.reset();
    m_loadedContextTokens.reset();
    m_loadedDevice.reset();
}

void InferenceEngine::shutdown()
{
    clearLoaded();
    QProcess *process = std::exchange(m_process, nullptr);
    if (!process)
        return;
    if (process->state() == QProcess::NotRunning) {
        process->deleteLater();
        return;
    }
    // Let it go on its own; the process object cleans itself up once the server has exited.
    connect(process, &QProcess::finished, process, &QObject::deleteLater);
    QTimer::singleShot(s_exitGraceMs, process, &QProcess::kill);
    process->terminate();
    m_exiting = process;
}

QCoro::Task<> InferenceEngine::load(QString modelPath, std::optional<QString> projectorPath,
                                    qint64 contextTokens, CancellationToken cancel)
{
    if (m_loadedPath == modelPath && m_loadedProjector == projectorPath && m_loadedContextTokens == contextTokens
        && m_loadedDevice == m_device && m_process && m_process->state() == QProcess::Running)
        co_return;

    shutdown();
    // Each wait may end after the engine is gone (the application quit meanwhile).
    const QPointer<InferenceEngine> alive(this);
    const auto throwIfGone = [&alive] {
        if (!alive)
            throw CancelledError();
    };
    // The previous server still holds the port until it has exited; a probe would reach it.
    for (int waited = 0; m_exiting && m_exiting->state() != QProcess::NotRunning && waited < 2 * s_exitGraceMs;
         waited += 50) {
        co_await QCoro::sleepFor(std::chrono::milliseconds(50));
        throwIfGone();
        cancel.throwIfCancelled();
    }
    const QString program = AuxiliaryExecutable::find(QStringLiteral("llama-server"));
    if (program.isEmpty())
        throw InferenceError::missingRuntime();

    // Kept at once, so that shutdown() can stop a server that is still loading.
    auto *process = new QProcess(this);
    m_process = process;
    process->setStandardOutputFile(QProcess::nullDevice());
    process->setStandardErrorFile(QProcess::nullDevice());
    // The key goes in the environment, which only this user can read, not on the command
    // line, which every user's `ps` shows.
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("LLAMA_API_KEY"), m_key);
    process->setProcessEnvironment(environment);
    // llama-server also looks for its modules in the working folder; only its own is ours.
    process->setWorkingDirectory(QFileInfo(program).absolutePath());
    AuxiliaryExecutable::endWithParent(*process);
    const QString device = m_device;
    const QStringList serverArguments = arguments(modelPath, projectorPath, contextTokens, device);
    const bool started = co_await qCoro(process).start(program, serverArguments);
    throwIfGone();
    if (!started) {
        const QString reason = process->errorString();
        if (m_process == process)
            shutdown();
        throw SystemError(reason);
    }
    const auto stillOurs = [this, process] { return m_process == process; };

    for (int attempt = 0;;) {
        if (!stillOurs() || process->state() != QProcess::Running)
            throw InferenceError::startFailed();
        QNetworkRequest probe = request(QStringLiteral("/v1/models"));
        PendingReply reply(m_network.get(probe));
        co_await reply.get();
        throwIfGone();
        reply.throwIfGone();
        const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        if (status == 200 && stillOurs()) {
            m_loadedPath = modelPath;
            m_loadedProjector = projectorPath;
            m_loadedContextTokens = contextTokens;
            m_loadedDevice = device;
            co_return;
        }
        cancel.throwIfCancelled();
        co_await QCoro::sleepFor(s_probeInterval);
        throwIfGone();
        cancel.throwIfCancelled();
        if (++attempt == s_probeAttempts) {
            if (stillOurs())
                shutdown();
            throw InferenceError::startTimedOut();
        }
        if (!stillOurs() || process->state() != QProcess::Running)
            throw InferenceError::startFailed();
    }
}
