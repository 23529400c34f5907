#pragma once

#include "inference/exchange_format.h"
#include "storage/records.h"

#include <QJsonArray>
#include <QList>
#include <QString>

#include <functional>
#include <optional>

/// How a chat's stored messages become what a reply or a compaction sends to the model. Pure
/// functions, so that the prompt rules can be checked without a server.
namespace ReplyContext {

/// The system prompt of a reply: the chat's effective prompt, the script's prompt, and the
/// "system" messages after the last assistant message, blank parts dropped, joined by blank
/// lines; the chat's summary, when it has one, follows under its heading.
QString systemPrompt(const QString &effectivePrompt, const QString &scriptPrompt, const QList<Message> &messages,
                     const QString &summary);

/// The messages after the summary (all when `summaryThroughID` is 0), without "system" ones.
QList<Message> unsummarized(const QList<Message> &messages, qint64 summaryThroughID);

/// One "role"/"content" entry for the model.
QJsonObject entry(const QString &role, const QString &content);

/// The history of a reply. Reads images newest first with `readImage` until one can be read:
/// that message keeps its body and its image becomes `latestImage`; every other message with
/// an image gets its transcript text ("[Image: …]" or "[Image]", a blank line, the body).
struct History
{
    QJsonArray entries;
    std::optional<ExchangeFormat::LatestImage> latestImage;
};
History history(const QList<Message> &messages,
                const std::function<std::optional<ExchangeFormat::LatestImage>(const Message &)> &readImage);

/// The entries a compaction counts and folds: every message as text, images as placeholders.
QJsonArray plainEntries(const QList<Message> &messages);

/// The transcript a summary is made from: "User: ", "Assistant: " or, for hidden messages,
/// "Note: " before each message's transcript text, separated by blank lines.
QString transcript(const QList<Message> &messages);

/// The token limits of one compaction, from the budget B that a reply leaves in the context:
/// B = context − reply limit − 32.
struct CompactionLimits
{
    qint64 budget = 0;
    qint64 trigger = 0; ///< compact only when the chat counts more than this (3B/4)
    qint64 keep = 0; ///< the newest messages up to this many tokens stay as they are (2B/5)
    qint64 fold = 0; ///< at most this many tokens of older messages are folded per run (B/2)
    int summary = 0; ///< the summary's length limit: B/8, at most 1024

    static CompactionLimits of(qint64 contextTokens, qint64 responseTokens);
    bool operator==(const CompactionLimits &) const = default;
};

} // namespace ReplyContext
