#include "storage/database.h"

#include "storage/database_error.h"
#include "storage/statement.h"
#include "vault/fingerprint.h"

#include <QDateTime>

#include <sqlite3.h>

void Database::execute(const QString &sql, const QList<DBValue> &args)
{
    if (args.isEmpty() && sql.contains(QLatin1Char(';'))) {
        if (sqlite3_exec(handle(), sql.toUtf8().constData(), nullptr, nullptr, nullptr) != SQLITE_OK)
            throw DatabaseError::fromConnection(handle());
        return;
    }
    Statement statement(handle(), sql);
    statement.bind(args);
    if (statement.next())
        throw DatabaseError::fromConnection(handle());
}

std::optional<QString> Database::setting(const QString &key)
{
    Statement query(handle(), QStringLiteral("SELECT value FROM settings WHERE key=?"));
    query.bind({DBValue::text(key)});
    if (!query.next())
        return std::nullopt;
    return query.text(0);
}

void Database::setSetting(const QString &key, const QString &value)
{
    execute(QStringLiteral("INSERT INTO settings(key,value) VALUES(?,?) ON CONFLICT(key) DO UPDATE SET value=excluded.value"),
            {DBValue::text(key), DBValue::text(value)});
}

QList<Node> Database::nodes()
{
    Statement query(handle(), QStringLiteral(
        "SELECT id, parent_id, kind, name, prompt, agent_name, locked, sealed, cartridge_source, cartridge_name, cartridge_agent_name FROM nodes ORDER BY id"));
    QList<Node> result;
    while (query.next()) {
        Node node;
        node.id = query.integer(0);
        if (!query.isNull(1))
            node.parentID = query.integer(1);
        node.kind = query.text(2);
        node.isLocked = query.flag(6);
        node.isSealed = query.flag(7);
        // A locked folder's own name stays plain so that it can be shown while locked.
        node.name = revealOrEmpty(query.text(3), node.isSealed && !node.isLocked);
        node.prompt = revealOrEmpty(query.text(4), node.isSealed);
        node.agentName = revealOrEmpty(query.text(5), node.isSealed);
        node.cartridgeSource = revealOrEmpty(query.text(8), node.isSealed);
        node.cartridgeName = revealOrEmpty(query.text(9), node.isSealed);
        node.cartridgeAgentName = revealOrEmpty(query.text(10), node.isSealed);
        result.append(node);
    }
    return result;
}

QList<Chat> Database::chats()
{
    Statement query(handle(), QStringLiteral(
        "SELECT id, node_id, title, prompt, auto_speak_replies, cartridge_source, cartridge_name, cartridge_agent_name, summary, summary_through_id, sealed FROM chats ORDER BY id DESC"));
    QList<Chat> result;
    while (query.next()) {
        Chat chat;
        chat.id = query.integer(0);
        chat.nodeID = query.integer(1);
        chat.isSealed = query.flag(10);
        chat.title = revealOrEmpty(query.text(2), chat.isSealed);
        chat.prompt = revealOrEmpty(query.text(3), chat.isSealed);
        chat.autoSpeakReplies = query.flag(4);
        chat.cartridgeSource = revealOrEmpty(query.text(5), chat.isSealed);
        chat.cartridgeName = revealOrEmpty(query.text(6), chat.isSealed);
        chat.cartridgeAgentName = revealOrEmpty(query.text(7), chat.isSealed);
        chat.summary = revealOrEmpty(query.text(8), chat.isSealed);
        chat.summaryThroughID = query.integer(9);
        result.append(chat);
    }
    return result;
}

QList<Message> Database::messages(qint64 chatID)
{
    const bool sealed = isChatSealed(chatID);
    Statement query(handle(), QStringLiteral(
        "SELECT id, chat_id, role, body, created_at, image, image_description, display, hidden, data FROM messages WHERE chat_id=? ORDER BY id"));
    query.bind({DBValue::integer(chatID)});
    QList<Message> result;
    while (query.next()) {
        Message message;
        message.id = query.integer(0);
        message.chatID = query.integer(1);
        message.role = query.text(2);
        message.body = reveal(query.text(3), sealed);
        message.createdAt = query.text(4);
        message.image = query.text(5);
        message.imageDescription = reveal(query.text(6), sealed);
        message.display = reveal(query.text(7), sealed);
        message.hidden = query.flag(8);
        message.data = reveal(query.text(9), sealed);
        result.append(message);
    }
    return result;
}

bool Database::hasMessages(qint64 chatID)
{
    return flag(QStringLiteral("SELECT 1 FROM messages WHERE chat_id=? LIMIT 1"), chatID);
}

QList<qint64> Database::messageIDs(qint64 chatID)
{
    Statement query(handle(), QStringLiteral("SELECT id FROM messages WHERE chat_id=? ORDER BY id"));
    query.bind({DBValue::integer(chatID)});
    QList<qint64> ids;
    while (query.next())
        ids.append(query.integer(0));
    return ids;
}

void Database::deleteMessages(const QList<qint64> &ids)
{
    if (ids.isEmpty())
        return;
    QList<DBValue> args;
    args.reserve(ids.size());
    for (const qint64 id : ids)
        args.append(DBValue::integer(id));
    QStringList marks(ids.size(), QStringLiteral("?"));
    // One statement runs in its own transaction, so a failure leaves every row in place.
    execute(QStringLiteral("DELETE FROM messages WHERE id IN (") + marks.join(QLatin1Char(',')) + QLatin1Char(')'), args);
}

namespace {

QStringList firstColumn(Statement &query)
{
    QStringList result;
    while (query.next())
        result.append(query.text(0));
    return result;
}

} // namespace

QStringList Database::imageNames()
{
    Statement query(handle(), QStringLiteral("SELECT image FROM messages WHERE image<>''"));
    return firstColumn(query);
}

QStringList Database::imageNames(bool sealed)
{
    Statement query(handle(), QStringLiteral(
        "SELECT m.image FROM messages m JOIN chats c ON c.id=m.chat_id WHERE m.image<>'' AND c.sealed=?"));
    query.bind({DBValue::flag(sealed)});
    return firstColumn(query);
}

qint64 Database::lastInsertedID() const
{
    return sqlite3_last_insert_rowid(handle());
}

void Database::inTransaction(const std::function<void()> &work)
{
    execute(QStringLiteral("BEGIN IMMEDIATE"));
    try {
        work();
        execute(QStringLiteral("COMMIT"));
    } catch (...) {
        try {
            execute(QStringLiteral("ROLLBACK"));
        } catch (const DatabaseError &) {
            // The first failure is the one worth reporting.
        }
        throw;
    }
}

qint64 Database::addNode(std::optional<qint64> parentID, const QString &kind, const QString &name)
{
    const bool sealed = parentID && isNodeSealed(*parentID);
    execute(QStringLiteral("INSERT INTO nodes(parent_id, kind, name, sealed) VALUES(?,?,?,?)"),
            {DBValue::id(parentID), DBValue::text(kind), DBValue::text(seal(name, sealed)),
             DBValue::flag(sealed)});
    return sqlite3_last_insert_rowid(handle());
}

qint64 Database::addChat(qint64 nodeID, const QString &title)
{
    const bool sealed = isNodeSealed(nodeID);
    execute(QStringLiteral("INSERT INTO chats(node_id, title, sealed) VALUES(?,?,?)"),
            {DBValue::integer(nodeID), DBValue::text(seal(title, sealed)), DBValue::flag(sealed)});
    return sqlite3_last_insert_rowid(handle());
}

qint64 Database::addMessage(const Message &message, const QString &metadata)
{
    const bool sealed = isChatSealed(message.chatID);
    const QString createdAt = message.createdAt.isEmpty()
                                  ? QDateTime::currentDateTimeUtc().toString(Qt::ISODate)
                                  : message.createdAt;
    // The image's file name stays plain: a random UUID says nothing, and the image store
    // must find a locked chat's files by name without the key. The file itself is sealed.
    execute(QStringLiteral("INSERT INTO messages(chat_id, role, body, created_at, metadata, image, display, hidden, data) VALUES(?,?,?,?,?,?,?,?,?)"),
            {DBValue::integer(message.chatID), DBValue::text(message.role), DBValue::text(seal(message.body, sealed)),
             DBValue::text(createdAt), DBValue::text(seal(metadata, sealed)), DBValue::text(message.image),
             DBValue::text(seal(message.display, sealed)), DBValue::flag(message.hidden),
             DBValue::text(seal(message.data, sealed))});
    return lastInsertedID();
}

void Database::renameNode(qint64 nodeID, const QString &name)
{
    bool locked = false;
    bool sealed = false;
    {
        Statement query(handle(), QStringLiteral("SELECT locked, sealed FROM nodes WHERE id=?"));
        query.bind({DBValue::integer(nodeID)});
        if (query.next()) {
            locked = query.flag(0);
            sealed = query.flag(1);
        }
    }
    execute(QStringLiteral("UPDATE nodes SET name=? WHERE id=?"),
            {DBValue::text(seal(name, sealed && !locked)), DBValue::integer(nodeID)});
}

void Database::setNodePrompt(qint64 nodeID, const QString &prompt)
{
    const bool sealed = isNodeSealed(nodeID);
    execute(QStringLiteral("UPDATE nodes SET prompt=? WHERE id=?"),
            {DBValue::text(seal(prompt, sealed)), DBValue::integer(nodeID)});
}

void Database::setNodeCartridge(qint64 nodeID, const QString &source, const QString &name, const QString &agentName)
{
    const bool sealed = isNodeSealed(nodeID);
    execute(QStringLiteral("UPDATE nodes SET cartridge_source=?, cartridge_name=?, cartridge_agent_name=? WHERE id=?"),
            {DBValue::text(seal(source, sealed)), DBValue::text(seal(name, sealed)),
             DBValue::text(seal(agentName, sealed)), DBValue::integer(nodeID)});
}

void Database::setNodeAgentName(qint64 nodeID, const QString &agentName)
{
    const bool sealed = isNodeSealed(nodeID);
    execute(QStringLiteral("UPDATE nodes SET agent_name=? WHERE id=?"),
            {DBValue::text(seal(agentName, sealed)), DBValue::integer(nodeID)});
}

void Database::setChatFields(const QList<std::pair<QString, QString>> &texts,
                             const QList<std::pair<QString, DBValue>> &extra, qint64 chatID)
{
    const bool sealed = isChatSealed(chatID);
    QStringList assignments;
    QList<DBValue> args;
    for (const auto &[column, text] : texts) {
        assignments.append(column + QStringLiteral("=?"));
        args.append(DBValue::text(seal(text, sealed)));
    }
    for (const auto &[column, value] : extra) {
        assignments.append(column + QStringLiteral("=?"));
        args.append(value);
    }
    args.append(DBValue::integer(chatID));
    execute(QStringLiteral("UPDATE chats SET ") + assignments.join(QStringLiteral(", "))
                + QStringLiteral(" WHERE id=?"),
            args);
}

void Database::setMessageBody(qint64 messageID, const QString &body)
{
    execute(QStringLiteral("UPDATE messages SET body=? WHERE id=?"),
            {DBValue::text(seal(body, isMessageSealed(messageID))), DBValue::integer(messageID)});
}

void Database::setMessageImageDescription(qint64 messageID, const QString &description)
{
    execute(QStringLiteral("UPDATE messages SET image_description=? WHERE id=?"),
            {DBValue::text(seal(description, isMessageSealed(messageID))), DBValue::integer(messageID)});
}

void Database::setChatSummary(const QString &text, qint64 throughID, qint64 chatID)
{
    setChatFields({{QStringLiteral("summary"), text}},
                  {{QStringLiteral("summary_through_id"), DBValue::integer(throughID)}}, chatID);
}

std::pair<QString, qint64> Database::chatSummary(qint64 chatID)
{
    const QString text = field(QStringLiteral("chats"), QStringLiteral("summary"), chatID, isChatSealed(chatID));
    Statement query(handle(), QStringLiteral("SELECT summary_through_id FROM chats WHERE id=?"));
    query.bind({DBValue::integer(chatID)});
    return {text, query.next() ? query.integer(0) : 0};
}

void Database::setCartridgeState(const QString &state, const QString &source, qint64 chatID)
{
    setChatFields({{QStringLiteral("cartridge_state"), state},
                   {QStringLiteral("cartridge_state_for"), fingerprint(source)}},
                  {}, chatID);
}

QString Database::cartridgeState(const QString &source, qint64 chatID)
{
    const QString chats = QStringLiteral("chats");
    const bool sealed = isChatSealed(chatID);
    const QString owner = field(chats, QStringLiteral("cartridge_state_for"), chatID, sealed);
    // State saved before owners were recorded belongs to whichever script asks.
    if (owner.isEmpty() || owner == fingerprint(source))
        return field(chats, QStringLiteral("cartridge_state"), chatID, sealed);
    // Another script's state is ignored, not deleted: switching back finds it again.
    return QString();
}

void Database::moveChat(qint64 chatID, qint64 nodeID)
{
    const bool to = isNodeSealed(nodeID);
    const bool from = isChatSealed(chatID);
    inTransaction([&] {
        execute(QStringLiteral("UPDATE chats SET node_id=? WHERE id=?"),
                {DBValue::integer(nodeID), DBValue::integer(chatID)});
        resealChat(chatID, to);
    });
    if (from != to) {
        // Merge the index so secure-delete purges the removed rows, then rewrite the file so
        // that no freed page keeps the chat's former plain text.
        execute(QStringLiteral("INSERT INTO message_search(message_search) VALUES('optimize')"));
        execute(QStringLiteral("VACUUM"));
    }
}

void Database::clearAllData()
{
    // The search index first, wholesale: left to the messages' delete trigger, 'secure-delete'
    // would wipe every message's words from the index one by one, which takes minutes for a
    // million messages. With the index's stored texts gone and the index rebuilt from them,
    // the trigger finds nothing left to remove.
    execute(QStringLiteral("DELETE FROM message_search_content"));
    execute(QStringLiteral("DELETE FROM message_search_docsize"));
    execute(QStringLiteral("INSERT INTO message_search(message_search) VALUES('rebuild')"));
    execute(QStringLiteral("DELETE FROM messages"));
    execute(QStringLiteral("DELETE FROM chats"));
    execute(QStringLiteral("DELETE FROM nodes"));
    execute(QStringLiteral("DELETE FROM settings"));
    execute(QStringLiteral("INSERT INTO nodes(parent_id, kind, name) VALUES(NULL, 'folder', 'Inbox')"));
}

void Database::eraseFile(const QString &filePath)
{
    Database db(filePath);
    db.inTransaction([&] { db.clearAllData(); });
    db.execute(QStringLiteral("VACUUM"));
    db.execute(QStringLiteral("PRAGMA wal_checkpoint(TRUNCATE);"));
}

bool Database::isChatSealed(qint64 chatID)
{
    return flag(QStringLiteral("SELECT sealed FROM chats WHERE id=?"), chatID);
}

bool Database::isNodeSealed(qint64 nodeID)
{
    return flag(QStringLiteral("SELECT sealed FROM nodes WHERE id=?"), nodeID);
}

bool Database::isMessageSealed(qint64 messageID)
{
    return flag(QStringLiteral("SELECT c.sealed FROM messages m JOIN chats c ON c.id=m.chat_id WHERE m.id=?"),
                messageID);
}

QString Database::field(const QString &table, const QString &column, qint64 id, bool sealed)
{
    QString stored;
    {
        Statement query(handle(), QStringLiteral("SELECT ") + column + QStringLiteral(" FROM ")
                                      + table + QStringLiteral(" WHERE id=?"));
        query.bind({DBValue::integer(id)});
        if (query.next())
            stored = query.text(0);
    }
    return reveal(stored, sealed);
}

bool Database::flag(const QString &sql, qint64 id)
{
    Statement query(handle(), sql);
    query.bind({DBValue::integer(id)});
    return query.next() && query.flag(0);
}
