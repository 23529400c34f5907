#include "scripts/cartridge_context.h"

#include <QJsonArray>

namespace {

/// The time of the newest message that is not hidden, when it can be read.
std::optional<QDateTime> lastVisibleTime(const QList<Message> &history)
{
    for (auto it = history.crbegin(); it != history.crend(); ++it) {
        if (it->hidden)
            continue;
        const QDateTime time = QDateTime::fromString(it->createdAt, Qt::ISODate);
        if (time.isValid())
            return time;
        return std::nullopt;
    }
    return std::nullopt;
}

} // namespace

CartridgeContext CartridgeContext::forChat(const Chat &chat, const QString &agentName,
                                           const QList<Message> &history,
                                           const QDateTime &chatOpenedAt, const QDateTime &now)
{
    CartridgeContext context;
    context.agent.name = agentName;
    context.chat = {chat.title, chat.id};
    context.messages.reserve(history.size());
    for (const Message &message : history) {
        if (message.role == QLatin1String("user") && !message.hidden)
            ++context.turn;
        context.messages.append({message.role, message.transcriptText(), message.display,
                                 message.hidden, message.data, message.createdAt});
    }
    const QDateTime nowUtc = now.toUTC();
    context.now = nowUtc.toString(Qt::ISODate);
    const QDateTime since = lastVisibleTime(history).value_or(chatOpenedAt);
    context.idleSeconds = double(since.msecsTo(nowUtc)) / 1000.0;
    return context;
}

QJsonObject CartridgeContext::toJson() const
{
    QJsonArray messageArray;
    for (const MessageInfo &message : messages) {
        messageArray.append(QJsonObject{
            {QStringLiteral("role"), message.role},
            {QStringLiteral("text"), message.text},
            {QStringLiteral("display"), message.display},
            {QStringLiteral("hidden"), message.hidden},
            {QStringLiteral("data"), message.data},
            {QStringLiteral("createdAt"), message.createdAt},
        });
    }
    return {
        {QStringLiteral("turn"), turn},
        {QStringLiteral("agent"), QJsonObject{{QStringLiteral("name"), agent.name}}},
        {QStringLiteral("chat"),
         QJsonObject{{QStringLiteral("title"), chat.title}, {QStringLiteral("id"), chat.id}}},
        {QStringLiteral("messages"), messageArray},
        {QStringLiteral("trigger"), trigger},
        {QStringLiteral("partial"), partial},
        {QStringLiteral("now"), now},
        {QStringLiteral("idle_seconds"), idleSeconds},
    };
}
