#pragma once

#include "storage/records.h"
#include "vault/vault_key.h"

#include <QList>
#include <QString>
#include <QStringList>

#include <QSet>

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <utility>

struct sqlite3;

/// Where a search looks.
struct SearchScope
{
    /// Only chats in these folders; absent: every folder.
    std::optional<QSet<qint64>> folderIDs;
    /// Only these sealed chats; absent: every one. Sealed chats are read only with the key.
    std::optional<QSet<qint64>> sealedChatIDs;
};

/// The SQLite file that holds every folder, chat, message and setting, and the one object
/// through which the application reads and writes it. Sealed columns (those of chats in
/// locked folders) are encrypted and decrypted here, so callers always see plain records.
///
/// Used from one thread at a time: the application's connection from the main thread, a
/// reading connection (`Options::readOnly`) from the thread that searches. SQLite failures throw DatabaseError; reading or writing a
/// sealed value while no vault key is held throws VaultError::locked(); a sealed value that
/// fails authentication throws SealedBoxError.
class Database
{
public:
    struct Options
    {
        /// Indexes on the foreign-key columns `messages.chat_id`, `chats.node_id` and
        /// `nodes.parent_id`. Without them every cascade delete and every chat load scans
        /// whole tables. The application always uses the default; turning them off exists
        /// only so that benchmarks can measure what they buy.
        bool foreignKeyIndexes = true;
        /// Opens an existing file only to read it, without the schema work that writes: a
        /// second connection for searches on another thread.
        bool readOnly = false;
    };

    /// Opens (creating when missing) the database at `filePath` and brings it up to date:
    /// connection settings, schema, column migrations, search index, a first "Inbox" folder.
    /// Throws DatabaseError; a failure at any step leaves nothing open.
    explicit Database(const QString &filePath);
    Database(const QString &filePath, Options options);
    ~Database();

    Database(const Database &) = delete;
    Database &operator=(const Database &) = delete;

    /// The connection, for tests and benchmarks that look beneath this class.
    sqlite3 *handle() const { return m_connection.get(); }

    /// The vault key while locked folders are open; absent otherwise.
    const std::optional<VaultKey> &vaultKey() const { return m_vaultKey; }
    bool hasVaultKey() const { return m_vaultKey.has_value(); }
    void setVaultKey(std::optional<VaultKey> key) { m_vaultKey = std::move(key); }

    // Statements ---------------------------------------------------------------------------

    /// Runs one statement with `args` bound to its "?" parameters. A text with a ";" and no
    /// arguments runs as a script, every statement in turn. A statement that returns rows is
    /// an error here: queries go through the typed reads below.
    void execute(const QString &sql, const QList<DBValue> &args = {});
    /// The id of the row the last INSERT on this connection added.
    qint64 lastInsertedID() const;
    /// Runs `work` between "BEGIN IMMEDIATE" and "COMMIT". When anything in it throws,
    /// "ROLLBACK" leaves the file as it was and the first failure is rethrown.
    void inTransaction(const std::function<void()> &work);

    // Settings -----------------------------------------------------------------------------

    /// The stored value, or absent when the key has no row (never the empty string for that).
    std::optional<QString> setting(const QString &key);
    /// Stores `value` under `key`, replacing an earlier value.
    void setSetting(const QString &key, const QString &value);

    // Reads --------------------------------------------------------------------------------

    /// All folders, oldest first. Sealed texts that cannot be decrypted (no key, damaged)
    /// read as the empty string; the rows are still returned.
    QList<Node> nodes();
    /// All chats, newest first, with the same treatment of sealed texts as `nodes()`.
    QList<Chat> chats();
    /// The chat's messages in the order they were added; empty for an unknown chat.
    QList<Message> messages(qint64 chatID);
    bool hasMessages(qint64 chatID);
    /// The ids of the chat's messages, oldest first.
    QList<qint64> messageIDs(qint64 chatID);
    /// Every attached image file name.
    QStringList imageNames();
    /// Image file names of sealed (true) or plain (false) chats.
    QStringList imageNames(bool sealed);

    /// Chats whose title contains `term`, then messages whose shown text or image
    /// description contains `term` as a phrase (SearchText), best first: plain chats through
    /// the full-text index, then, while the vault key is held, sealed chats in memory. The
    /// title hits come first, plain then sealed, then the message hits, plain then sealed. At
    /// most 30 plain titles and 100 messages of each kind.
    QList<SearchHit> search(const QString &term, const SearchScope &scope = {});
    /// The title hits and the message hits of sealed chats, newest chat first, read and
    /// decrypted one message at a time; needs the vault key.
    std::pair<QList<SearchHit>, QList<SearchHit>> searchSealed(const QString &term, const SearchScope &scope = {});
    /// Stops the search running on this connection, from any thread: it throws DatabaseError
    /// with SQLite's interrupt code. Searches started later run normally.
    void interrupt();

    // Writes -------------------------------------------------------------------------------

    /// Adds a folder (kind "folder") or other node; it inherits the parent's sealed state.
    /// Returns the new id.
    qint64 addNode(std::optional<qint64> parentID, const QString &kind, const QString &name);
    /// Adds a chat to a folder; it inherits the folder's sealed state. Returns the new id.
    qint64 addChat(qint64 nodeID, const QString &title);
    /// Stores a message with `metadata`, its texts sealed when its chat is sealed, and
    /// returns its id. An empty `createdAt` stands for now; `id` and `imageDescription` are
    /// not written.
    qint64 addMessage(const Message &message, const QString &metadata = {});
    void renameNode(qint64 nodeID, const QString &name);
    void setNodePrompt(qint64 nodeID, const QString &prompt);
    void setNodeAgentName(qint64 nodeID, const QString &agentName);
    /// A folder's script: its source, title and the assistant name it asked for, all
    /// empty to remove it. Sealed with the folder's state.
    void setNodeCartridge(qint64 nodeID, const QString &source, const QString &name, const QString &agentName);

    /// Sets text columns of a chat (sealed with the chat's state) and then `extra` columns
    /// (bound as given) in one UPDATE. Column names must come from fixed lists.
    void setChatFields(const QList<std::pair<QString, QString>> &texts,
                       const QList<std::pair<QString, DBValue>> &extra, qint64 chatID);
    void setChatSummary(const QString &text, qint64 throughID, qint64 chatID);
    /// A message's text after the user edited it, sealed with the message's chat.
    void setMessageBody(qint64 messageID, const QString &body);
    /// What the vision model saw in a message's image, sealed with the message's chat.
    void setMessageImageDescription(qint64 messageID, const QString &description);
    /// The chat's summary and the id of the last message it covers (0 when none).
    std::pair<QString, qint64> chatSummary(qint64 chatID);

    /// Saves a script's state for a chat, marked with the fingerprint of the script source.
    void setCartridgeState(const QString &state, const QString &source, qint64 chatID);
    /// The chat's saved script state when `source` wrote it (or it carries no owner);
    /// the empty string when another script wrote it.
    QString cartridgeState(const QString &source, qint64 chatID);

    /// Moves a chat to another folder, re-encrypting it when the folder's sealed state
    /// differs. All or nothing: a failure leaves the database as it was.
    void moveChat(qint64 chatID, qint64 nodeID);

    /// Merges up to `pages` pages of the search index's segments toward one; answers whether
    /// there was anything left to merge. A merged index removes rows several times faster.
    bool mergeSearchIndex(int pages);

    /// Deletes the listed messages in one transaction, all or none. Deleting is paid for in
    /// the search index, so large deletions go through this in slices.
    void deleteMessages(const QList<qint64> &ids);

    /// Deletes everything and leaves only an empty "Inbox" folder. The caller wraps it in a
    /// transaction.
    void clearAllData();
    /// Erases the file at `filePath` through a connection of its own, so that it can run on a
    /// worker thread while the application's connection stays idle: `clearAllData` in one
    /// transaction, then "VACUUM" so that no freed page keeps old text, then a checkpoint.
    /// Throws DatabaseError; a failure inside the transaction leaves every row in place.
    static void eraseFile(const QString &filePath);

    // Sealed storage -----------------------------------------------------------------------

    bool isChatSealed(qint64 chatID);
    bool isNodeSealed(qint64 nodeID);
    bool isMessageSealed(qint64 messageID);

    /// One text column of one row, decrypted when `sealed`; the empty string when there is
    /// no such row. `table` and `column` must come from fixed lists.
    QString field(const QString &table, const QString &column, qint64 id, bool sealed);

    /// `text` in its stored form: unchanged when not `sealed` or empty, otherwise the base64
    /// text of its sealed box under the vault key.
    QString seal(const QString &text, bool sealed);
    /// The plain text of a stored value. Text that is not base64 reveals as the empty string.
    QString reveal(const QString &text, bool sealed);
    /// Re-encrypts the listed columns of one row from one sealed state to another.
    void reseal(const QString &table, qint64 id, const QStringList &columns, bool from, bool to);
    /// Gives a chat and all its messages the sealed state `to`; the search index follows.
    void resealChat(qint64 chatID, bool to);

    /// Locks (`locked` true) or unlocks one folder: it and everything below it take the new
    /// sealed state, their texts re-encrypted, their messages out of or back in the search
    /// index, all in one transaction. A folder inside a locked folder cannot be locked by
    /// itself, and unlocking a folder the user did not lock changes nothing. Inner locks are
    /// absorbed. `progress` hears how many of the subtree's messages are done. Needs the
    /// vault key (VaultError::locked() otherwise); any failure rolls everything back. Leaves
    /// the scrub marker (`scrubPendingKey`) in the same transaction: the caller scrubs.
    void setFolderLocked(qint64 folderID, bool locked,
                         const std::function<void(qint64 done, qint64 total)> &progress = {});
    /// `setFolderLocked` through a connection of its own holding `key`, so that it can run on
    /// a worker thread while the application's connection only reads, then `scrubFile`.
    static void setFolderLockedInFile(const QString &filePath, const VaultKey &key, qint64 folderID, bool locked,
                                      const std::function<void(qint64 done, qint64 total)> &progress = {});
    /// Leaves no former plain text in the file, its write-ahead log or the search index:
    /// merges the index (its 'secure-delete' purges removed rows), rewrites the file, and
    /// truncates the log; then drops the scrub marker. A scrub cut short by quitting is done
    /// again at the next start (`needsScrub`).
    static void scrubFile(const QString &filePath);
    /// A lock change was committed and its scrub has not finished.
    bool needsScrub() { return setting(scrubPendingKey).has_value(); }
    static inline const QString scrubPendingKey = QStringLiteral("scrub_pending");

private:
    struct Closer
    {
        void operator()(sqlite3 *connection) const;
    };

    void open(const QString &filePath, bool readOnly);
    void migrate();
    void createSearchIndex();
    bool flag(const QString &sql, qint64 id);
    QString revealOrEmpty(const QString &text, bool sealed);

    QList<SearchHit> searchIndex(const QString &term, const std::optional<QSet<qint64>> &folderIDs);

    std::unique_ptr<sqlite3, Closer> m_connection;
    std::optional<VaultKey> m_vaultKey;
    std::atomic<bool> m_interrupted = false;
};
