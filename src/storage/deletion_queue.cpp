#include "storage/deletion_queue.h"

#include "storage/database.h"
#include "storage/statement.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

const QString DeletionQueue::settingKey = QStringLiteral("pending_deletions");

namespace {

const QString s_folder = QStringLiteral("folder");
const QString s_chat = QStringLiteral("chat");

} // namespace

void DeletionQueue::load(Database &db)
{
    m_entries.clear();
    const std::optional<QString> stored = db.setting(settingKey);
    if (!stored)
        return;
    const QJsonArray list = QJsonDocument::fromJson(stored->toUtf8()).array();
    for (const QJsonValue &value : list) {
        const QJsonObject object = value.toObject();
        const QString kind = object.value(QStringLiteral("kind")).toString();
        const qint64 id = object.value(QStringLiteral("id")).toInteger(0);
        if (id <= 0 || (kind != s_folder && kind != s_chat))
            continue;
        const Entry entry{kind == s_folder ? Kind::folder : Kind::chat, id};
        if (!m_entries.contains(entry))
            m_entries.append(entry);
    }
}

void DeletionQueue::add(Database &db, Entry entry)
{
    if (m_entries.contains(entry))
        return;
    QList<Entry> entries = m_entries;
    entries.append(entry);
    store(db, entries);
    m_entries = std::move(entries);
}

QList<qint64> DeletionQueue::messageIDs(Database &db, const Entry &entry)
{
    if (entry.kind == Kind::chat)
        return db.messageIDs(entry.id);
    // UNION, not UNION ALL: parent links that form a cycle end the walk instead of looping.
    Statement query(db.handle(), QStringLiteral("WITH RECURSIVE below(id) AS (SELECT ? UNION "
                                                "SELECT nodes.id FROM nodes JOIN below ON nodes.parent_id=below.id) "
                                                "SELECT messages.id FROM messages JOIN chats ON chats.id=messages.chat_id "
                                                "WHERE chats.node_id IN below ORDER BY messages.id"));
    query.bind({DBValue::integer(entry.id)});
    QList<qint64> ids;
    while (query.next())
        ids.append(query.integer(0));
    return ids;
}

void DeletionQueue::finish(Database &db, const Entry &entry)
{
    QList<Entry> rest = m_entries;
    rest.removeAll(entry);
    db.inTransaction([&] {
        db.execute(entry.kind == Kind::folder ? QStringLiteral("DELETE FROM nodes WHERE id=?")
                                              : QStringLiteral("DELETE FROM chats WHERE id=?"),
                   {DBValue::integer(entry.id)});
        store(db, rest);
    });
    m_entries = std::move(rest);
}

void DeletionQueue::store(Database &db, const QList<Entry> &entries)
{
    if (entries.isEmpty()) {
        db.execute(QStringLiteral("DELETE FROM settings WHERE key=?"), {DBValue::text(settingKey)});
        return;
    }
    QJsonArray list;
    for (const Entry &entry : entries)
        list.append(QJsonObject{{QStringLiteral("kind"), entry.kind == Kind::folder ? s_folder : s_chat},
                                {QStringLiteral("id"), entry.id}});
    db.setSetting(settingKey, QString::fromUtf8(QJsonDocument(list).toJson(QJsonDocument::Compact)));
}
