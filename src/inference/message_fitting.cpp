// Fitting a conversation into the context window by exact token counts.
#include "inference/inference_engine.h"

#include "inference/inference_error.h"

#include <algorithm>
#include <cmath>

namespace {

qsizetype contentLength(const QJsonValue &message)
{
    // Each message also costs a few template tokens (role markers, line breaks): about the
    // length of 16 characters of text.
    return message.toObject().value(QLatin1String("content")).toString().size() + 16;
}

} // namespace

QCoro::Task<QJsonArray> InferenceEngine::fittedMessages(QString systemPrompt, QJsonArray history,
                                                        std::optional<LatestImage> latestImage,
                                                        qint64 contextTokens, qint64 maxResponse)
{
    // The caller always passes at least the new message; an empty history is a fault.
    if (history.isEmpty())
        throw InferenceError::invalidServerResponse();
    const qint64 budget = ExchangeFormat::promptBudget(contextTokens, maxResponse, latestImage);
    const QJsonObject system = ExchangeFormat::message(QStringLiteral("system"), systemPrompt);
    const qsizetype n = history.size();

    // Text length of the system message plus the newest k messages, for every k.
    QList<qsizetype> length(n + 1);
    length[0] = contentLength(system);
    for (qsizetype k = 1; k <= n; ++k)
        length[k] = length[k - 1] + contentLength(history[n - k]);

    // The largest window of newest messages that fits lies between `fitting` (fits; 0 while
    // none is known to) and `tooLong` (does not; n + 1 stands for "more than there is").
    // Counts grow with the window. Tokens are close to proportional to text length, so each
    // count also teaches how many tokens a character costs, and the next window tried is the
    // one that this predicts to be the last that fits: usually a few counts settle it. Each
    // guess is kept within the reach that lets a plain binary search still finish within
    // log2(n) + 2 counts, so a poor guess never costs more than that.
    const int allowed = int(std::log2(double(n))) + 2;
    int made = 0;
    qsizetype fitting = 0;
    qsizetype tooLong = n + 1;
    double tokensPerCharacter = 0.25; // until the first count: about four characters a token
    while (tooLong - fitting > 1) {
        qsizetype guess = fitting + 1;
        while (guess + 1 < tooLong && double(length[guess + 1]) * tokensPerCharacter <= double(budget))
            ++guess;
        const qsizetype reach = qsizetype(1) << std::max(0, allowed - made - 1);
        const qsizetype k = std::clamp(guess, std::max(fitting + 1, tooLong - reach),
                                       std::min(tooLong - 1, fitting + reach));
        const qint64 tokens = co_await tokenCount(ExchangeFormat::candidate(system, history, k));
        ++made;
        tokensPerCharacter = double(tokens) / double(length[k]);
        if (tokens <= budget) {
            fitting = k;
        } else {
            tooLong = k;
            // A window that would start with a reply leaves it out, so one message fewer
            // is the same request and does not fit either.
            if (history[n - k].toObject().value(QLatin1String("role")).toString() == QLatin1String("assistant"))
                tooLong = k - 1;
        }
    }
    if (fitting == 0)
        throw InferenceError::contextTooLong(contextTokens);

    QJsonArray fitted = ExchangeFormat::candidate(system, history, fitting);
    if (latestImage)
        fitted = ExchangeFormat::withImage(std::move(fitted), latestImage->jpeg);
    co_return fitted;
}
