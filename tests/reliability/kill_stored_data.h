#pragma once

// What the database file holds, read through a connection of its own with the vault key, and
// the rules every row must keep whatever moment a kill chose: a folder is sealed exactly when
// it or a folder above it is locked, a chat and its messages are sealed exactly when their
// folder is, every text of a sealed row opens with the key and no text of a plain row does,
// and the search index holds exactly the plain messages that are shown.

#include "storage/database.h"
#include "storage/statement.h"
#include "vault/sealed_box.h"
#include "vault/vault_error.h"

#include <QHash>
#include <QSet>
#include <QStringList>

#include <optional>

struct KillStoredData
{
    QHash<QString, qint64> texts; ///< every message's text → its chat
    QSet<qint64> chatIDs;
    QSet<qint64> nodeIDs;
    QStringList imageNames;
    bool hasSealedRows = false;
    /// Rules broken, one line each.
    QStringList faults;

    /// Reads the file at `path`; `key` opens sealed texts (none: there is no vault).
    static KillStoredData read(const QString &path, const std::optional<VaultKey> &key)
    {
        KillStoredData d;
        Database db(path, Database::Options{.foreignKeyIndexes = true, .readOnly = true});
        db.setVaultKey(key);

        // A stored value in the state its row says: sealed texts open with the key and plain
        // ones do not. Answers the plain text.
        const auto textOf = [&](const QString &stored, bool sealed, const QString &where) -> QString {
            if (stored.isEmpty())
                return stored;
            if (sealed && !key) {
                d.faults << where + QStringLiteral(": sealed without a vault");
                return {};
            }
            if (!key)
                return stored;
            try {
                const QString opened = db.reveal(stored, true);
                if (!sealed && !opened.isEmpty())
                    d.faults << where + QStringLiteral(": ciphertext in a plain row");
                if (sealed && opened.isEmpty())
                    d.faults << where + QStringLiteral(": plain text in a sealed row");
                return sealed ? opened : stored;
            } catch (const SealedBoxError &) {
                if (sealed)
                    d.faults << where + QStringLiteral(": does not open with the key");
            }
            return sealed ? QString() : stored;
        };
        const auto where = [](const char *table, qint64 id, const QString &column) {
            return QStringLiteral("%1 %2 %3").arg(QLatin1String(table)).arg(id).arg(column);
        };

        // Folders.
        struct NodeRow
        {
            std::optional<qint64> parent;
            bool locked;
            bool sealed;
        };
        QHash<qint64, NodeRow> nodes;
        const QStringList nodeTexts = {"prompt", "agent_name", "cartridge_source", "cartridge_name",
                                       "cartridge_agent_name"};
        {
            Statement query(db.handle(), QStringLiteral("SELECT id, parent_id, locked, sealed, name, ")
                                             + nodeTexts.join(QStringLiteral(", ")) + QStringLiteral(" FROM nodes"));
            while (query.next()) {
                const qint64 id = query.integer(0);
                const NodeRow row{query.isNull(1) ? std::nullopt : std::optional<qint64>(query.integer(1)),
                                  query.flag(2), query.flag(3)};
                nodes.insert(id, row);
                d.nodeIDs.insert(id);
                d.hasSealedRows |= row.sealed;
                // A locked folder's own name stays readable.
                textOf(query.text(4), row.sealed && !row.locked, where("node", id, QStringLiteral("name")));
                for (int i = 0; i < nodeTexts.size(); ++i)
                    textOf(query.text(5 + i), row.sealed, where("node", id, nodeTexts[i]));
            }
        }
        for (auto it = nodes.cbegin(); it != nodes.cend(); ++it) {
            bool underLock = false;
            std::optional<qint64> at = it.key();
            for (int depth = 0; at && depth <= nodes.size(); ++depth) {
                const auto row = nodes.constFind(*at);
                if (row == nodes.cend())
                    break;
                underLock |= row->locked;
                at = row->parent;
            }
            if (it->sealed != underLock)
                d.faults << QStringLiteral("node %1: sealed %2 under a lock %3").arg(it.key()).arg(it->sealed).arg(underLock);
        }

        // Chats.
        QHash<qint64, bool> chatSealed;
        const QStringList chatTexts = {"title", "prompt", "cartridge_source", "cartridge_name", "cartridge_agent_name",
                                       "cartridge_state", "cartridge_state_for", "summary"};
        {
            Statement query(db.handle(), QStringLiteral("SELECT id, node_id, sealed, ")
                                             + chatTexts.join(QStringLiteral(", ")) + QStringLiteral(" FROM chats"));
            while (query.next()) {
                const qint64 id = query.integer(0);
                const bool sealed = query.flag(2);
                chatSealed.insert(id, sealed);
                d.chatIDs.insert(id);
                d.hasSealedRows |= sealed;
                const auto node = nodes.constFind(query.integer(1));
                if (node != nodes.cend() && node->sealed != sealed)
                    d.faults << QStringLiteral("chat %1: sealed %2 in a folder sealed %3").arg(id).arg(sealed).arg(node->sealed);
                for (int i = 0; i < chatTexts.size(); ++i)
                    textOf(query.text(3 + i), sealed, where("chat", id, chatTexts[i]));
            }
        }

        // Messages, and which of them the search index must hold.
        QSet<qint64> indexed;
        const QStringList messageTexts = {"body", "metadata", "image_description", "display", "data"};
        {
            Statement query(db.handle(), QStringLiteral("SELECT id, chat_id, hidden, image, role, ")
                                             + messageTexts.join(QStringLiteral(", ")) + QStringLiteral(" FROM messages"));
            while (query.next()) {
                const qint64 id = query.integer(0);
                const qint64 chat = query.integer(1);
                const bool sealed = chatSealed.value(chat);
                if (!query.flag(2) && !sealed)
                    indexed.insert(id);
                if (!query.text(3).isEmpty())
                    d.imageNames << query.text(3);
                const QString body = textOf(query.text(5), sealed, where("message", id, messageTexts[0]));
                for (int i = 1; i < messageTexts.size(); ++i)
                    textOf(query.text(5 + i), sealed, where("message", id, messageTexts[i]));
                // Every text the workload stores is new; replies may repeat.
                if (query.text(4) == QLatin1String("user") && d.texts.contains(body))
                    d.faults << QStringLiteral("message %1: its text is stored twice").arg(id);
                d.texts.insert(body, chat);
            }
        }
        QSet<qint64> inIndex;
        {
            Statement query(db.handle(), QStringLiteral("SELECT rowid FROM message_search"));
            while (query.next())
                inIndex.insert(query.integer(0));
        }
        if (inIndex != indexed)
            d.faults << QStringLiteral("search index: %1 rows missing, %2 rows too many")
                            .arg((indexed - inIndex).size())
                            .arg((inIndex - indexed).size());
        return d;
    }
};
