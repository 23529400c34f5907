#pragma once

#include "storage/records.h"

#include <QDateTime>
#include <QJsonObject>
#include <QList>
#include <QString>

/// What a script learns about the chat it runs for. Sent to the runner as the request's
/// "context" object; every key is always present.
struct CartridgeContext
{
    struct Agent
    {
        QString name;
        bool operator==(const Agent &) const = default;
    };

    struct ChatInfo
    {
        QString title;
        qint64 id = 0;
        bool operator==(const ChatInfo &) const = default;
    };

    struct MessageInfo
    {
        QString role;
        QString text; ///< the body, after an "[Image…]" label when an image is attached
        QString display;
        bool hidden = false;
        QString data;
        QString createdAt; ///< as stored, ISO 8601
        bool operator==(const MessageInfo &) const = default;
    };

    qint64 turn = 0; ///< the user's messages that are not hidden
    Agent agent;
    ChatInfo chat;
    QList<MessageInfo> messages;
    QString trigger = QStringLiteral("user"); ///< "user", "reply" or "tick"
    bool partial = false; ///< true only for a render while a reply streams
    QString now; ///< ISO 8601 in UTC with whole seconds and "Z"
    double idleSeconds = 0; ///< since the last message that is not hidden

    /// The context of `chat` with its stored `history` (ascending id, hidden ones included).
    /// `agentName` is the chat's effective agent name. When no message that is not hidden
    /// has a readable time, idleness is measured from `chatOpenedAt`. A default `Chat` and an
    /// empty history give the context of a check run that belongs to no chat.
    static CartridgeContext forChat(const Chat &chat, const QString &agentName,
                                    const QList<Message> &history, const QDateTime &chatOpenedAt,
                                    const QDateTime &now = QDateTime::currentDateTimeUtc());

    /// The JSON object of the request, with the keys `turn`, `agent`, `chat`, `messages`
    /// (whose entries carry `createdAt` in camelCase), `trigger`, `partial`, `now` and
    /// `idle_seconds`.
    QJsonObject toJson() const;

    bool operator==(const CartridgeContext &) const = default;
};
