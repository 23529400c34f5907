#pragma once

#include "storage/database.h"

#include <sqlite3.h>

/// Inserts a message the way the application does, sealing its texts when the chat is sealed.
inline qint64 addMessage(Database &db, qint64 chatID, const QString &body, bool hidden = false,
                         const QString &display = {})
{
    const bool sealed = db.isChatSealed(chatID);
    db.execute(QStringLiteral("INSERT INTO messages(chat_id, role, body, created_at, metadata, image, display, hidden, data) VALUES(?,?,?,?,?,?,?,?,?)"),
               {DBValue::integer(chatID), DBValue::text(QStringLiteral("user")), DBValue::text(db.seal(body, sealed)),
                DBValue::text(QStringLiteral("2026-11-15T20:20:44Z")), DBValue::text(db.seal(QStringLiteral("{}"), sealed)),
                DBValue::text(QString()), DBValue::text(db.seal(display, sealed)), DBValue::flag(hidden),
                DBValue::text(QString())});
    return sqlite3_last_insert_rowid(db.handle());
}
