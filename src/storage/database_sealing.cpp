// Sealed columns: encryption of the texts of chats in locked folders under the vault key.
// Whether a stored value is ciphertext is told only by its row's sealed flag (the chat's
// flag for messages); the values carry no marker.
#include "storage/database.h"

#include "storage/statement.h"
#include "vault/sealed_box.h"
#include "vault/vault_error.h"

#include <openssl/crypto.h>

namespace {

// Columns re-encrypted when a chat changes state, in this order.
const QStringList chatColumns = {
    QStringLiteral("title"), QStringLiteral("prompt"), QStringLiteral("cartridge_source"),
    QStringLiteral("cartridge_name"), QStringLiteral("cartridge_agent_name"),
    QStringLiteral("cartridge_state"), QStringLiteral("cartridge_state_for"),
    QStringLiteral("summary"),
};

// Node columns re-encrypted when a folder changes state; the name goes with the flags.
const QStringList nodeColumns = {
    QStringLiteral("prompt"), QStringLiteral("agent_name"), QStringLiteral("cartridge_source"),
    QStringLiteral("cartridge_name"), QStringLiteral("cartridge_agent_name"),
};

const QStringList messageColumns = {
    QStringLiteral("body"), QStringLiteral("metadata"), QStringLiteral("image_description"),
    QStringLiteral("display"), QStringLiteral("data"),
};

// Standard base64 with padding and nothing else (no line breaks, no white space). Anything
// looser would let plain text that happens to decode pass for ciphertext.
bool isStrictBase64(const QByteArray &text)
{
    if (text.isEmpty() || text.size() % 4 != 0)
        return false;
    const qsizetype padding = text.endsWith("==") ? 2 : text.endsWith('=') ? 1 : 0;
    for (qsizetype i = 0; i < text.size() - padding; ++i) {
        const char c = text.at(i);
        const bool valid = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9')
            || c == '+' || c == '/';
        if (!valid)
            return false;
    }
    return true;
}

void wipe(QByteArray &bytes)
{
    OPENSSL_cleanse(bytes.data(), bytes.size());
}

} // namespace

QString Database::seal(const QString &text, bool sealed)
{
    // An empty value stays empty, so that "nothing here" needs no key to read.
    if (!sealed || text.isEmpty())
        return text;
    if (!m_vaultKey)
        throw VaultError::locked();
    QByteArray plain = text.toUtf8();
    QByteArray box;
    try {
        box = SealedBox::seal(plain, *m_vaultKey);
    } catch (...) {
        wipe(plain);
        throw;
    }
    wipe(plain);
    return QString::fromLatin1(box.toBase64());
}

QString Database::reveal(const QString &text, bool sealed)
{
    if (!sealed || text.isEmpty())
        return text;
    if (!m_vaultKey)
        throw VaultError::locked();
    const QByteArray encoded = text.toLatin1();
    // Characters outside Latin-1 turn into '?', which is not base64 either.
    if (!isStrictBase64(encoded))
        return QString();
    QByteArray plain = SealedBox::open(QByteArray::fromBase64(encoded), *m_vaultKey);
    // Invalid UTF-8 sequences become U+FFFD.
    const QString result = QString::fromUtf8(plain);
    wipe(plain);
    return result;
}

QString Database::revealOrEmpty(const QString &text, bool sealed)
{
    try {
        return reveal(text, sealed);
    } catch (const VaultError &) {
    } catch (const SealedBoxError &) {
    }
    return QString();
}

void Database::reseal(const QString &table, qint64 id, const QStringList &columns, bool from, bool to)
{
    QList<DBValue> values;
    {
        Statement query(handle(), QStringLiteral("SELECT ") + columns.join(QStringLiteral(", "))
                                      + QStringLiteral(" FROM ") + table + QStringLiteral(" WHERE id=?"));
        query.bind({DBValue::integer(id)});
        if (!query.next())
            return;
        for (int i = 0; i < columns.size(); ++i)
            values.append(DBValue::text(seal(reveal(query.text(i), from), to)));
    }
    QStringList assignments;
    for (const QString &column : columns)
        assignments.append(column + QStringLiteral("=?"));
    values.append(DBValue::integer(id));
    execute(QStringLiteral("UPDATE ") + table + QStringLiteral(" SET ")
                + assignments.join(QStringLiteral(", ")) + QStringLiteral(" WHERE id=?"),
            values);
}

void Database::resealChat(qint64 chatID, bool to)
{
    const bool from = isChatSealed(chatID);
    if (from == to)
        return;
    // The flag goes first, so that the index triggers already see the new state when the
    // messages are rewritten below: sealed messages leave the index, plain ones return.
    execute(QStringLiteral("UPDATE chats SET sealed=? WHERE id=?"),
            {DBValue::flag(to), DBValue::integer(chatID)});
    reseal(QStringLiteral("chats"), chatID, chatColumns, from, to);
    QList<qint64> messageIDs;
    {
        Statement query(handle(), QStringLiteral("SELECT id FROM messages WHERE chat_id=?"));
        query.bind({DBValue::integer(chatID)});
        while (query.next())
            messageIDs.append(query.integer(0));
    }
    for (qint64 id : std::as_const(messageIDs))
        reseal(QStringLiteral("messages"), id, messageColumns, from, to);
}

void Database::setFolderLocked(qint64 folderID, bool locked,
                               const std::function<void(qint64 done, qint64 total)> &progress)
{
    if (!m_vaultKey)
        throw VaultError::locked();
    const auto flags = [this](qint64 id) -> std::pair<bool, bool> {
        Statement query(handle(), QStringLiteral("SELECT locked, sealed FROM nodes WHERE id=?"));
        query.bind({DBValue::integer(id)});
        if (!query.next())
            return {false, false};
        return {query.integer(0) != 0, query.integer(1) != 0};
    };
    {
        Statement query(handle(), QStringLiteral("SELECT 1 FROM nodes WHERE id=?"));
        query.bind({DBValue::integer(folderID)});
        if (!query.next())
            return;
    }
    const auto [isLocked, isSealed] = flags(folderID);
    if ((locked && isSealed) || (!locked && !isLocked))
        return;

    QList<qint64> nodeIDs;
    {
        Statement query(handle(), QStringLiteral("WITH RECURSIVE sub(id) AS (SELECT ? UNION SELECT n.id FROM nodes n "
                                                 "JOIN sub ON n.parent_id=sub.id)\nSELECT id FROM sub"));
        query.bind({DBValue::integer(folderID)});
        while (query.next())
            nodeIDs.append(query.integer(0));
    }
    const auto ids = [this](const QString &sql, qint64 id) {
        QList<qint64> result;
        Statement query(handle(), sql);
        query.bind({DBValue::integer(id)});
        while (query.next())
            result.append(query.integer(0));
        return result;
    };
    qint64 total = 0;
    for (qint64 node : std::as_const(nodeIDs)) {
        Statement query(handle(), QStringLiteral("SELECT count(*) FROM messages WHERE chat_id IN "
                                                 "(SELECT id FROM chats WHERE node_id=?)"));
        query.bind({DBValue::integer(node)});
        if (query.next())
            total += query.integer(0);
    }

    inTransaction([&] {
        qint64 done = 0;
        for (qint64 node : std::as_const(nodeIDs)) {
            const auto [oldLocked, oldSealed] = flags(node);
            const QString name = field(QStringLiteral("nodes"), QStringLiteral("name"), node, oldSealed && !oldLocked);
            reseal(QStringLiteral("nodes"), node, nodeColumns, oldSealed, locked);
            const bool isTarget = node == folderID;
            execute(QStringLiteral("UPDATE nodes SET name=?, locked=?, sealed=? WHERE id=?"),
                    {DBValue::text(seal(name, locked && !isTarget)), DBValue::flag(locked && isTarget),
                     DBValue::flag(locked), DBValue::integer(node)});
            for (qint64 chat : ids(QStringLiteral("SELECT id FROM chats WHERE node_id=?"), node)) {
                done += messageIDs(chat).size();
                resealChat(chat, locked);
                if (progress)
                    progress(done, total);
            }
        }
        setSetting(scrubPendingKey, QStringLiteral("1"));
    });
}

void Database::setFolderLockedInFile(const QString &filePath, const VaultKey &key, qint64 folderID, bool locked,
                                     const std::function<void(qint64 done, qint64 total)> &progress)
{
    {
        Database db(filePath);
        db.setVaultKey(key);
        db.setFolderLocked(folderID, locked, progress);
    }
    scrubFile(filePath);
}

void Database::scrubFile(const QString &filePath)
{
    Database db(filePath);
    db.execute(QStringLiteral("INSERT INTO message_search(message_search) VALUES('optimize')"));
    db.execute(QStringLiteral("VACUUM"));
    db.execute(QStringLiteral("DELETE FROM settings WHERE key=?"), {DBValue::text(scrubPendingKey)});
    db.execute(QStringLiteral("PRAGMA wal_checkpoint(TRUNCATE);"));
}
