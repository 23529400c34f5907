#include "app/reply_context.h"

#include "app/settings_rules.h"

#include <QJsonObject>

namespace ReplyContext {

QString systemPrompt(const QString &effectivePrompt, const QString &scriptPrompt, const QList<Message> &messages,
                     const QString &summary)
{
    QStringList parts{effectivePrompt, scriptPrompt};
    // Only the instructions a script or the user added since the assistant last spoke.
    qsizetype start = 0;
    for (qsizetype i = messages.size() - 1; i >= 0; --i) {
        if (messages[i].role == QLatin1String("assistant")) {
            start = i + 1;
            break;
        }
    }
    for (qsizetype i = start; i < messages.size(); ++i) {
        if (messages[i].role == QLatin1String("system"))
            parts.append(messages[i].body);
    }
    parts.removeIf([](const QString &part) { return Settings::trimmed(part).isEmpty(); });
    QString prompt = parts.join(QStringLiteral("\n\n"));
    if (!summary.isEmpty())
        prompt += QStringLiteral("\n\nSummary of the earlier conversation:\n") + summary;
    return prompt;
}

QList<Message> unsummarized(const QList<Message> &messages, qint64 summaryThroughID)
{
    QList<Message> kept;
    for (const Message &message : messages) {
        if (message.id > summaryThroughID && message.role != QLatin1String("system"))
            kept.append(message);
    }
    return kept;
}

QJsonObject entry(const QString &role, const QString &content)
{
    return QJsonObject{{QStringLiteral("role"), role}, {QStringLiteral("content"), content}};
}

History history(const QList<Message> &messages,
                const std::function<std::optional<ExchangeFormat::LatestImage>(const Message &)> &readImage)
{
    History result;
    qsizetype latest = -1;
    for (qsizetype i = messages.size() - 1; i >= 0 && latest < 0; --i) {
        if (messages[i].image.isEmpty())
            continue;
        if (auto image = readImage(messages[i])) {
            result.latestImage = std::move(image);
            latest = i;
        }
    }
    for (qsizetype i = 0; i < messages.size(); ++i) {
        const Message &message = messages[i];
        const bool placeholder = !message.image.isEmpty() && i != latest;
        result.entries.append(entry(message.role, placeholder ? message.transcriptText() : message.body));
    }
    return result;
}

QJsonArray plainEntries(const QList<Message> &messages)
{
    QJsonArray entries;
    for (const Message &message : messages)
        entries.append(entry(message.role, message.transcriptText()));
    return entries;
}

QString transcript(const QList<Message> &messages)
{
    QStringList groups;
    for (const Message &message : messages) {
        const QString speaker = message.hidden                           ? QStringLiteral("Note: ")
                                : message.role == QLatin1String("user") ? QStringLiteral("User: ")
                                                                         : QStringLiteral("Assistant: ");
        groups.append(speaker + message.transcriptText());
    }
    return groups.join(QStringLiteral("\n\n"));
}

CompactionLimits CompactionLimits::of(qint64 contextTokens, qint64 responseTokens)
{
    const qint64 b = contextTokens - responseTokens - 32;
    return {.budget = b,
            .trigger = 3 * b / 4,
            .keep = 2 * b / 5,
            .fold = b / 2,
            .summary = int(std::min<qint64>(b / 8, 1024))};
}

} // namespace ReplyContext
