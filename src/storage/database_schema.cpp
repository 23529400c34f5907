// Opening the database file: connection settings, schema, column migrations and the
// full-text index over messages.
#include "storage/database.h"

#include "storage/database_error.h"
#include "storage/search_rank.h"
#include "storage/statement.h"

#include <sqlite3.h>

#include <array>

namespace {

const QString schemaScript = QStringLiteral(
    "CREATE TABLE IF NOT EXISTS settings(key TEXT PRIMARY KEY, value TEXT NOT NULL);\n"
    "CREATE TABLE IF NOT EXISTS nodes(\n"
    "  id INTEGER PRIMARY KEY, parent_id INTEGER REFERENCES nodes(id) ON DELETE CASCADE,\n"
    "  kind TEXT NOT NULL, name TEXT NOT NULL, prompt TEXT NOT NULL DEFAULT '',\n"
    "  agent_name TEXT NOT NULL DEFAULT '',\n"
    "  cartridge_source TEXT NOT NULL DEFAULT '',\n"
    "  cartridge_name TEXT NOT NULL DEFAULT '',\n"
    "  cartridge_agent_name TEXT NOT NULL DEFAULT '',\n"
    "  locked INTEGER NOT NULL DEFAULT 0,\n"
    "  sealed INTEGER NOT NULL DEFAULT 0\n"
    ");\n"
    "CREATE TABLE IF NOT EXISTS chats(\n"
    "  id INTEGER PRIMARY KEY, node_id INTEGER NOT NULL REFERENCES nodes(id) ON DELETE CASCADE,\n"
    "  title TEXT NOT NULL, prompt TEXT NOT NULL DEFAULT '',\n"
    "  auto_speak_replies INTEGER NOT NULL DEFAULT 0,\n"
    "  cartridge_source TEXT NOT NULL DEFAULT '',\n"
    "  cartridge_name TEXT NOT NULL DEFAULT '',\n"
    "  cartridge_agent_name TEXT NOT NULL DEFAULT '',\n"
    "  cartridge_state TEXT NOT NULL DEFAULT '',\n"
    "  cartridge_state_for TEXT NOT NULL DEFAULT '',\n"
    "  summary TEXT NOT NULL DEFAULT '',\n"
    "  summary_through_id INTEGER NOT NULL DEFAULT 0,\n"
    "  sealed INTEGER NOT NULL DEFAULT 0\n"
    ");\n"
    "CREATE TABLE IF NOT EXISTS messages(\n"
    "  id INTEGER PRIMARY KEY, chat_id INTEGER NOT NULL REFERENCES chats(id) ON DELETE CASCADE,\n"
    "  role TEXT NOT NULL, body TEXT NOT NULL, created_at TEXT NOT NULL,\n"
    "  metadata TEXT NOT NULL DEFAULT '',\n"
    "  image TEXT NOT NULL DEFAULT '',\n"
    "  image_description TEXT NOT NULL DEFAULT '',\n"
    "  display TEXT NOT NULL DEFAULT '',\n"
    "  hidden INTEGER NOT NULL DEFAULT 0,\n"
    "  data TEXT NOT NULL DEFAULT ''\n"
    ");");

// SQLite does not index foreign-key columns by itself. Without these, deleting a chat scans
// every message to cascade, deleting a folder does so once per chat, and loading a chat's
// messages scans the whole table.
const QString foreignKeyIndexScript = QStringLiteral(
    "CREATE INDEX IF NOT EXISTS messages_chat_id ON messages(chat_id);\n"
    "CREATE INDEX IF NOT EXISTS chats_node_id ON chats(node_id);\n"
    "CREATE INDEX IF NOT EXISTS nodes_parent_id ON nodes(parent_id);");

struct Migration
{
    const char *table;
    const char *definition;
};

// Columns added after the first released layout, in the order they were added. Only ever
// append: a file may have been opened by any earlier version.
constexpr std::array<Migration, 15> migrations{{
    {"nodes", "locked INTEGER NOT NULL DEFAULT 0"},
    {"nodes", "sealed INTEGER NOT NULL DEFAULT 0"},
    {"nodes", "cartridge_source TEXT NOT NULL DEFAULT ''"},
    {"nodes", "cartridge_name TEXT NOT NULL DEFAULT ''"},
    {"nodes", "cartridge_agent_name TEXT NOT NULL DEFAULT ''"},
    {"chats", "cartridge_state TEXT NOT NULL DEFAULT ''"},
    {"chats", "cartridge_state_for TEXT NOT NULL DEFAULT ''"},
    {"chats", "summary TEXT NOT NULL DEFAULT ''"},
    {"chats", "summary_through_id INTEGER NOT NULL DEFAULT 0"},
    {"chats", "sealed INTEGER NOT NULL DEFAULT 0"},
    {"messages", "image TEXT NOT NULL DEFAULT ''"},
    {"messages", "image_description TEXT NOT NULL DEFAULT ''"},
    {"messages", "display TEXT NOT NULL DEFAULT ''"},
    {"messages", "hidden INTEGER NOT NULL DEFAULT 0"},
    {"messages", "data TEXT NOT NULL DEFAULT ''"},
}};

// Removes the index of an earlier layout, then (re)creates the current one. The insert and
// update triggers are replaced on every open so that their current text always wins; the
// delete trigger never changed and is only created when missing.
const QString searchIndexScript = QStringLiteral(
    "DROP TRIGGER IF EXISTS messages_ai;\n"
    "DROP TRIGGER IF EXISTS messages_ad;\n"
    "DROP TRIGGER IF EXISTS messages_au;\n"
    "DROP TABLE IF EXISTS message_fts;\n"
    "DROP TRIGGER IF EXISTS message_search_ai;\n"
    "DROP TRIGGER IF EXISTS message_search_au;\n"
    "CREATE VIRTUAL TABLE IF NOT EXISTS message_search USING fts5(text, image_description);\n"
    "CREATE TRIGGER message_search_ai AFTER INSERT ON messages\n"
    "WHEN new.hidden=0 AND (SELECT sealed FROM chats WHERE id=new.chat_id)=0 BEGIN\n"
    "  INSERT INTO message_search(rowid, text, image_description) VALUES(new.id,\n"
    "    CASE new.display WHEN '' THEN new.body ELSE new.display END, new.image_description);\n"
    "END;\n"
    "CREATE TRIGGER IF NOT EXISTS message_search_ad AFTER DELETE ON messages BEGIN\n"
    "  DELETE FROM message_search WHERE rowid=old.id;\n"
    "END;\n"
    "CREATE TRIGGER message_search_au AFTER UPDATE ON messages BEGIN\n"
    "  DELETE FROM message_search WHERE rowid=old.id;\n"
    "  INSERT INTO message_search(rowid, text, image_description) SELECT new.id,\n"
    "    CASE new.display WHEN '' THEN new.body ELSE new.display END, new.image_description\n"
    "    WHERE new.hidden=0 AND (SELECT sealed FROM chats WHERE id=new.chat_id)=0;\n"
    "END;");

const QString searchBackfillScript = QStringLiteral(
    "INSERT INTO message_search(rowid, text, image_description)\n"
    "  SELECT id, CASE display WHEN '' THEN body ELSE display END, image_description\n"
    "  FROM messages WHERE hidden=0 AND chat_id IN (SELECT id FROM chats WHERE sealed=0);");

// The layout this version writes, kept in the file's user_version. A later version raises it
// when it changes the meaning of what is stored; this one then refuses the file rather than
// misread it or undo the change.
constexpr int s_layoutVersion = 1;

} // namespace

void Database::Closer::operator()(sqlite3 *connection) const
{
    sqlite3_close_v2(connection);
}

Database::Database(const QString &filePath)
    : Database(filePath, Options())
{
}

Database::Database(const QString &filePath, Options options)
{
    open(filePath, options.readOnly);
    int layout = 0;
    {
        Statement version(handle(), QStringLiteral("PRAGMA user_version"));
        if (version.next())
            layout = int(version.integer(0));
    }
    if (layout > s_layoutVersion)
        throw DatabaseError::newerFile();
    if (options.readOnly)
        return;
    execute(QStringLiteral("PRAGMA foreign_keys = ON"));
    // Deleted content is overwritten in the file: locked folders must leave no plain text.
    execute(QStringLiteral("PRAGMA secure_delete = ON;"));
    execute(schemaScript);
    if (options.foreignKeyIndexes)
        execute(foreignKeyIndexScript);
    migrate();
    createSearchIndex();
    if (layout != s_layoutVersion)
        execute(QStringLiteral("PRAGMA user_version = %1").arg(s_layoutVersion));
    if (nodes().isEmpty())
        addNode(std::nullopt, QStringLiteral("folder"), QStringLiteral("Inbox"));
}

Database::~Database() = default;

void Database::open(const QString &filePath, bool readOnly)
{
    sqlite3 *connection = nullptr;
    const int flags = readOnly ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
    const int result = sqlite3_open_v2(filePath.toUtf8().constData(), &connection, flags, nullptr);
    // SQLite hands back a connection even when opening fails; it carries the error.
    m_connection.reset(connection);
    if (result != SQLITE_OK) {
        if (!connection)
            throw DatabaseError(result, QString::fromUtf8(sqlite3_errstr(result)));
        throw DatabaseError::fromConnection(connection);
    }
    // Another connection (a search, a lock change) may hold the file for a moment: wait for
    // it rather than fail the read or the write.
    sqlite3_busy_timeout(connection, 5000);
    registerMatchRank(connection);
}

void Database::migrate()
{
    for (const Migration &migration : migrations) {
        const QString table = QString::fromLatin1(migration.table);
        const QString definition = QString::fromLatin1(migration.definition);
        QStringList existing;
        Statement columns(handle(), QStringLiteral("PRAGMA table_info(") + table + QLatin1Char(')'));
        while (columns.next())
            existing.append(columns.text(1));
        const QString name = definition.section(QLatin1Char(' '), 0, 0);
        if (!existing.contains(name))
            execute(QStringLiteral("ALTER TABLE ") + table + QStringLiteral(" ADD COLUMN ") + definition);
    }
}

void Database::createSearchIndex()
{
    bool existed = false;
    {
        Statement probe(handle(), QStringLiteral("SELECT name FROM sqlite_master WHERE name='message_search'"));
        existed = probe.next();
    }
    execute(searchIndexScript);
    // Removed rows must not linger in the index's pages either.
    execute(QStringLiteral("INSERT INTO message_search(message_search, rank) VALUES('secure-delete', 1)"));
    if (!existed)
        execute(searchBackfillScript);
}
