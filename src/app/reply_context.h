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

} // namespace ReplyContext
