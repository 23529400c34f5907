#pragma once

#include "storage/database.h"

/// Adds a user message as the application does, at a fixed time.
inline qint64 addMessage(Database &db, qint64 chatID, const QString &body, bool hidden = false,
                         const QString &display = {})
{
    Message message;
    message.chatID = chatID;
    message.role = QStringLiteral("user");
    message.body = body;
    message.createdAt = QStringLiteral("2026-11-15T20:20:44Z");
    message.display = display;
    message.hidden = hidden;
    return db.addMessage(message, QStringLiteral("{}"));
}
