#pragma once

#include "inference/exchange_format.h"
#include "inference/reply_speed.h"
#include "platform/cancellation.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QObject>
#include <QPointer>
#include <QString>

#include <QCoro/QCoroTask>

#include <functional>
#include <optional>

class QNetworkReply;
class QNetworkRequest;
class QProcess;

/// Runs the local language model: a llama-server child process that listens on 127.0.0.1
/// only and answers only requests carrying this engine's random key, and the exchanges with
/// it (streamed replies, token counts, fitting a conversation to the context, summaries and
/// image descriptions).
///
/// One server at a time; it is reused while the model, projector and context size stay the
/// same, and restarted when any of them changes or when it has died. Main thread only.
class InferenceEngine : public QObject
{
    Q_OBJECT

public:
    using LatestImage = ExchangeFormat::LatestImage;

    explicit InferenceEngine(QObject *parent = nullptr);
    /// Stops a running server.
    ~InferenceEngine() override;

    /// Port on 127.0.0.1 (40000 to 60000) and API key, both chosen once per engine.
    int port() const { return m_port; }
    const QString &key() const { return m_key; }

    // ---- the server process (server_process.cpp)

    /// Ensures that a server runs with exactly this model, projector and context size and
    /// answers. Throws InferenceError (missingRuntime, startFailed), SystemError when the
    /// program cannot be launched, and CancelledError when `cancel` fires while waiting.
    QCoro::Task<> load(QString modelPath, std::optional<QString> projectorPath, qint64 contextTokens,
                       CancellationToken cancel = {});
    /// The device later loads run the model on: a name from `--list-devices`, or "none" for
    /// the CPU (the default). A different one restarts the server at the next load.
    void setDevice(const QString &device) { m_device = device; }
    const QString &device() const { return m_device; }
    /// Stops the server without waiting for it to exit, and forgets what it was started with.
    void shutdown();
    /// The running server was started with a vision projector.
    bool hasVision() const;
    /// The command line for a server with these settings.
    QStringList arguments(const QString &modelPath, const std::optional<QString> &projectorPath,
                          qint64 contextTokens, const QString &device) const;
    /// The process id of the running server, 0 when none (for tests and diagnostics).
    qint64 serverProcessID() const;

    // ---- the exchanges (completion_exchange.cpp, message_fitting.cpp)

    /// Streams a reply, handing each piece of text to `onToken` as it arrives, and answers how
    /// fast it came. Ends normally at the end of the stream; `cancel` ends it at once with
    /// CancelledError.
    QCoro::Task<ReplySpeed> stream(QJsonArray messages, int maxTokens, double temperature,
                         std::function<void(const QString &)> onToken, CancellationToken cancel = {});
    /// The exact number of prompt tokens the server builds for these plain messages.
    QCoro::Task<qint64> tokenCount(QJsonArray messages);
    /// The system message and as many of the newest messages of `history` as fit the context
    /// with room for the reply; the latest image rides on the last message.
    QCoro::Task<QJsonArray> fittedMessages(QString systemPrompt, QJsonArray history,
                                           std::optional<LatestImage> latestImage, qint64 contextTokens,
                                           qint64 maxResponse);
    /// A rolling summary of older conversation.
    QCoro::Task<QString> summarize(QString previous, QString transcript, int maxTokens);
    /// A short plain-text description of a JPEG image; needs a server with vision.
    QCoro::Task<QString> describeImage(QByteArray jpeg);

    /// Token counts made so far (each costs two round trips), for tests of the fitting.
    int tokenCountsMade() const { return m_tokenCountsMade; }
    /// Time spent waiting for token counts so far, for measurements.
    qint64 tokenCountNanoseconds() const { return m_tokenCountNanoseconds; }

Q_SIGNALS:
    /// A request body is about to go to the server (for tests and measurements of what the
    /// model is sent; nothing listens in the application).
    void requestSent(const QString &path, const QByteArray &body);
    /// A streamed reply reached its end marker.
    void streamFinished();

private:
    QNetworkRequest request(const QString &path) const;
    QCoro::Task<QJsonObject> postJSON(QString path, QJsonObject body);
    void clearLoaded();

    QNetworkAccessManager m_network;
    QProcess *m_process = nullptr;
    /// A server asked to stop that may not have exited yet; a new one waits for it, since
    /// both would use the same port.
    QPointer<QProcess> m_exiting;
    std::optional<QString> m_loadedPath;
    std::optional<QString> m_loadedProjector;
    std::optional<qint64> m_loadedContextTokens;
    std::optional<QString> m_loadedDevice;
    QString m_device = QStringLiteral("none");
    int m_port;
    QString m_key;
    int m_tokenCountsMade = 0;
    qint64 m_tokenCountNanoseconds = 0;
};
