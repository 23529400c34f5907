#include "app/compactor.h"

#include "app/app_settings.h"
#include "app/reply_context.h"
#include "app/settings_rules.h"
#include "inference/inference_engine.h"
#include "storage/database.h"

#include <QLoggingCategory>
#include <QPointer>

#include <functional>

Q_LOGGING_CATEGORY(lcCompaction, "corvane.compaction")

namespace {

/// The largest n in [0, count] for which `fits(n)` holds, given that it holds for 0 and that
/// once it fails it fails for every larger n.
QCoro::Task<qsizetype> largestFitting(qsizetype count, std::function<QCoro::Task<bool>(qsizetype)> fits)
{
    qsizetype low = 0;
    qsizetype high = count;
    while (low < high) {
        const qsizetype middle = (low + high + 1) / 2;
        if (co_await fits(middle))
            low = middle;
        else
            high = middle - 1;
    }
    co_return low;
}

QJsonArray slice(const QJsonArray &entries, qsizetype from, qsizetype count)
{
    QJsonArray part;
    for (qsizetype i = from; i < from + count; ++i)
        part.append(entries[i]);
    return part;
}

} // namespace

Compactor::Compactor(Database &database, InferenceEngine &inference, const AppSettings &settings, QObject *parent)
    : QObject(parent)
    , m_database(database)
    , m_inference(inference)
    , m_settings(settings)
{
}

void Compactor::start(qint64 chatID, QString systemPrompt, qint64 responseTokens)
{
    cancel();
    m_cancel = CancellationToken();
    m_chatID = chatID;
    run(chatID, std::move(systemPrompt), responseTokens, *m_cancel, ++m_runs);
}

void Compactor::cancel()
{
    if (m_cancel)
        m_cancel->cancel();
    m_cancel.reset();
}

QCoro::Task<> Compactor::run(qint64 chatID, QString systemPrompt, qint64 responseTokens, CancellationToken cancel,
                             int run)
{
    const QPointer<Compactor> alive(this);
    try {
        co_await compactIfNeeded(chatID, systemPrompt, responseTokens, cancel);
    } catch (const CancelledError &) {
        // A newer reply, a deletion or erasing took over.
    } catch (const std::exception &error) {
        // The chat keeps its previous summary and the next reply tries again.
        qCInfo(lcCompaction) << "compaction ended early:" << error.what();
    }
    if (alive && run == m_runs)
        m_cancel.reset();
}

QCoro::Task<> Compactor::compactIfNeeded(qint64 chatID, QString systemPrompt, qint64 responseTokens,
                                         CancellationToken cancel)
{
    const auto limits = ReplyContext::CompactionLimits::of(m_settings.contextTokens(), responseTokens);
    if (limits.budget <= 0)
        co_return;

    cancel.throwIfCancelled();
    const auto [summary, summaryThroughID] = m_database.chatSummary(chatID);
    const QList<Message> candidates = ReplyContext::unsummarized(m_database.messages(chatID), summaryThroughID);
    const QJsonArray entries = ReplyContext::plainEntries(candidates);

    QJsonArray everything{ReplyContext::entry(QStringLiteral("system"), systemPrompt)};
    for (const QJsonValue &entry : entries)
        everything.append(entry);
    const qint64 total = co_await m_inference.tokenCount(everything);
    cancel.throwIfCancelled();
    qCDebug(lcCompaction) << "chat" << chatID << "counts" << total << "tokens of" << limits.trigger;
    if (total <= limits.trigger)
        co_return;

    // The newest messages that fit two fifths of the budget stay as they are.
    const qsizetype count = entries.size();
    const qsizetype kept = co_await largestFitting(count, [&](qsizetype k) -> QCoro::Task<bool> {
        const qint64 tokens = co_await m_inference.tokenCount(slice(entries, count - k, k));
        cancel.throwIfCancelled();
        co_return tokens <= limits.keep;
    });
    const qsizetype older = count - kept;
    if (older == 0)
        co_return;

    // Of the older ones, the longest run from the start that fits half the budget is folded.
    const qsizetype folded = co_await largestFitting(older, [&](qsizetype n) -> QCoro::Task<bool> {
        const qint64 tokens = co_await m_inference.tokenCount(slice(entries, 0, n));
        cancel.throwIfCancelled();
        co_return tokens <= limits.fold;
    });
    if (folded == 0)
        co_return;

    const QString transcript = ReplyContext::transcript(candidates.mid(0, folded));
    const QPointer<Compactor> alive(this);
    const QString updated = co_await m_inference.summarize(summary, transcript, limits.summary);
    if (!alive)
        throw CancelledError();
    cancel.throwIfCancelled();
    if (Settings::trimmed(updated).isEmpty())
        co_return;
    m_database.setChatSummary(updated, candidates[folded - 1].id, chatID);
    Q_EMIT summaryChanged(chatID);
}
