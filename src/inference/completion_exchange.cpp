// Requests to the running server: streamed replies, token counts, summaries and image
// descriptions. There is no retry: every failure goes to the caller at once.
#include "inference/inference_engine.h"

#include "inference/inference_error.h"
#include "platform/worker_thread.h"
#include "inference/pending_reply.h"

#include <QElapsedTimer>
#include <QPointer>
#include <QJsonDocument>
#include <QJsonParseError>
#include <QNetworkReply>

#include <QCoro/QCoroNetworkReply>

#include <memory>

namespace {

QVariant httpStatus(QNetworkReply *reply)
{
    return reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
}

/// The error for an answer that is not a 200: the transport's own words when nothing came
/// back, otherwise the status.
[[noreturn]] void throwFailure(QNetworkReply *reply)
{
    const QVariant status = httpStatus(reply);
    if (!status.isValid()) {
        if (reply->error() != QNetworkReply::NoError)
            throw SystemError(reply->errorString());
        throw InferenceError::requestFailed(0);
    }
    throw InferenceError::requestFailed(status.toInt());
}

QByteArray withoutLineBreak(QByteArray line)
{
    if (line.endsWith('\n'))
        line.chop(1);
    if (line.endsWith('\r'))
        line.chop(1);
    return line;
}

} // namespace

QNetworkRequest InferenceEngine::request(const QString &path) const
{
    QNetworkRequest request(QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(m_port).arg(path)));
    request.setTransferTimeout(60000);
    request.setRawHeader("Authorization", "Bearer " + m_key.toLatin1());
    request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
    return request;
}

QCoro::Task<QJsonObject> InferenceEngine::postJSON(QString path, QJsonObject body)
{
    const QNetworkRequest post = request(path);
    const QPointer<InferenceEngine> alive(this);
    // A long chat's request and the server's answer (a prompt's every token) run to megabytes:
    // writing and reading them would hold the window up, so a worker thread does it.
    QCoro::Task<QByteArray> writing = onWorkerThread<QByteArray>([body = std::move(body)] {
        return QJsonDocument(body).toJson(QJsonDocument::Compact);
    });
    const QByteArray payload = co_await writing;
    if (!alive)
        throw CancelledError();
    Q_EMIT requestSent(path, payload);
    PendingReply reply(m_network.post(post, payload));
    co_await reply.get();
    reply.throwIfGone();
    if (httpStatus(reply.get()).toInt() != 200)
        throwFailure(reply.get());
    QCoro::Task<QJsonObject> reading = onWorkerThread<QJsonObject>([answer = reply->readAll()] {
        QJsonParseError parseError;
        const QJsonDocument document = QJsonDocument::fromJson(answer, &parseError);
        if (parseError.error != QJsonParseError::NoError)
            throw SystemError(parseError.errorString());
        if (!document.isObject())
            throw InferenceError::invalidServerResponse();
        return document.object();
    });
    QJsonObject object = co_await reading;
    if (!alive)
        throw CancelledError();
    co_return object;
}

QCoro::Task<ReplySpeed> InferenceEngine::stream(QJsonArray messages, int maxTokens, double temperature,
                                                std::function<void(const QString &)> onToken,
                                                CancellationToken cancel)
{
    const QJsonObject body{
        {QStringLiteral("model"), QStringLiteral("local")},
        {QStringLiteral("messages"), messages},
        {QStringLiteral("stream"), true},
        {QStringLiteral("max_tokens"), maxTokens},
        {QStringLiteral("temperature"), temperature},
    };
    cancel.throwIfCancelled();
    const QString path = QStringLiteral("/v1/chat/completions");
    QCoro::Task<QByteArray> writing = onWorkerThread<QByteArray>([body] {
        return QJsonDocument(body).toJson(QJsonDocument::Compact);
    });
    const QPointer<InferenceEngine> alive(this);
    const QByteArray payload = co_await writing;
    if (!alive)
        throw CancelledError();
    cancel.throwIfCancelled();
    Q_EMIT requestSent(path, payload);
    PendingReply reply(m_network.post(request(path), payload));
    QElapsedTimer sent;
    sent.start();
    ReplySpeed speed;
    const auto take = [&](const ExchangeFormat::StreamEvent &event) {
        if (const auto *text = std::get_if<QString>(&event)) {
            if (speed.firstTokenMs < 0 && !text->isEmpty())
                speed.firstTokenMs = sent.elapsed();
            onToken(*text);
        } else if (const auto *timings = std::get_if<ExchangeFormat::StreamTimings>(&event)) {
            speed.tokens = timings->predictedTokens;
            speed.tokensPerSecond = timings->tokensPerSecond;
        }
    };
    QNetworkReply *raw = reply.get();
    // Stop means now: the transfer is dropped, which also wakes the wait below.
    cancel.onCancel(raw, [raw] { raw->abort(); });

    bool statusChecked = false;
    // Bytes are taken out of the reply as they come, so that waiting for more never returns
    // at once for a half line still sitting in the reply's buffer.
    QByteArray pending;
    qsizetype start = 0;
    while (true) {
        cancel.throwIfCancelled();
        if (!statusChecked && (httpStatus(raw).isValid() || raw->isFinished())) {
            if (httpStatus(raw).toInt() != 200)
                throwFailure(raw);
            statusChecked = true;
        }
        if (statusChecked) {
            pending += raw->readAll();
            for (qsizetype end; (end = pending.indexOf('\n', start)) >= 0; start = end + 1) {
                cancel.throwIfCancelled();
                const auto event = ExchangeFormat::parseStreamLine(withoutLineBreak(pending.sliced(start, end - start)));
                if (std::holds_alternative<ExchangeFormat::Done>(event)) {
                    Q_EMIT streamFinished();
                    co_return speed;
                }
                take(event);
            }
            pending.remove(0, start);
            start = 0;
        }
        if (raw->isFinished()) {
            // A last line without a line break still counts.
            if (statusChecked && !pending.isEmpty()) {
                cancel.throwIfCancelled();
                take(ExchangeFormat::parseStreamLine(withoutLineBreak(pending)));
            }
            if (statusChecked && raw->error() != QNetworkReply::NoError)
                throw SystemError(raw->errorString());
            co_return speed;
        }
        co_await qCoro(raw).waitForReadyRead(std::chrono::milliseconds(-1));
        reply.throwIfGone();
    }
}

QCoro::Task<qint64> InferenceEngine::tokenCount(QJsonArray messages)
{
    ++m_tokenCountsMade;
    QElapsedTimer timer;
    timer.start();
    // Bodies are built first: g++ 12 rejects braced initialisers inside co_await.
    const QJsonObject templateBody{{QStringLiteral("messages"), messages}};
    const QJsonObject templated = co_await postJSON(QStringLiteral("/apply-template"), templateBody);
    const QJsonValue prompt = templated.value(QLatin1String("prompt"));
    if (!prompt.isString())
        throw InferenceError::invalidServerResponse();
    const QJsonObject tokenizeBody{{QStringLiteral("content"), prompt.toString()},
                                   {QStringLiteral("parse_special"), true}};
    const QJsonObject tokenized = co_await postJSON(QStringLiteral("/tokenize"), tokenizeBody);
    const QJsonValue tokens = tokenized.value(QLatin1String("tokens"));
    if (!tokens.isArray())
        throw InferenceError::invalidServerResponse();
    m_tokenCountNanoseconds += timer.nsecsElapsed();
    co_return tokens.toArray().size();
}

QCoro::Task<QString> InferenceEngine::summarize(QString previous, QString transcript, int maxTokens)
{
    const QJsonObject body = ExchangeFormat::summaryRequest(previous, transcript, maxTokens);
    const QJsonObject response = co_await postJSON(QStringLiteral("/v1/chat/completions"), body);
    const auto text = ExchangeFormat::completionText(response);
    if (!text)
        throw InferenceError::invalidServerResponse();
    co_return ExchangeFormat::withoutRepeatedParagraphs(*text);
}

QCoro::Task<QString> InferenceEngine::describeImage(QByteArray jpeg)
{
    if (!hasVision())
        throw InferenceError::visionUnavailable();
    const QJsonObject body = ExchangeFormat::imageDescriptionRequest(jpeg);
    const QJsonObject response = co_await postJSON(QStringLiteral("/v1/chat/completions"), body);
    const auto text = ExchangeFormat::completionText(response);
    if (!text)
        throw InferenceError::invalidServerResponse();
    co_return *text;
}
