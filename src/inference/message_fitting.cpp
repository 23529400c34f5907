// Fitting a conversation into the context window by exact token counts.
#include "inference/inference_engine.h"

#include "inference/inference_error.h"

QCoro::Task<QJsonArray> InferenceEngine::fittedMessages(QString systemPrompt, QJsonArray history,
                                                        std::optional<LatestImage> latestImage,
                                                        qint64 contextTokens, qint64 maxResponse)
{
    // The caller always passes at least the new message; an empty history is a fault.
    if (history.isEmpty())
        throw InferenceError::invalidServerResponse();
    const qint64 budget = ExchangeFormat::promptBudget(contextTokens, maxResponse, latestImage);
    const QJsonObject system = ExchangeFormat::message(QStringLiteral("system"), systemPrompt);

    const qint64 smallest = co_await tokenCount(ExchangeFormat::candidate(system, history, 1));
    if (budget < smallest)
        throw InferenceError::contextTooLong(contextTokens);

    // The largest window of newest messages that fits; counts grow with the window, so a
    // binary search needs about log2(n) + 1 counts. Oldest messages go first, whole.
    qsizetype lo = 1;
    qsizetype hi = history.size();
    while (lo < hi) {
        const qsizetype mid = (lo + hi + 1) / 2;
        if (co_await tokenCount(ExchangeFormat::candidate(system, history, mid)) <= budget)
            lo = mid;
        else
            hi = mid - 1;
    }
    QJsonArray fitted = ExchangeFormat::candidate(system, history, lo);
    if (latestImage)
        fitted = ExchangeFormat::withImage(std::move(fitted), latestImage->jpeg);
    co_return fitted;
}
