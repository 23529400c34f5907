#pragma once

#include "app/folder_tree.h"
#include "platform/cancellation.h"
#include "storage/deletion_queue.h"
#include "storage/records.h"

#include <QHash>
#include <QObject>
#include <QSet>
#include <QVariantMap>

#include <QCoro/QCoroTask>

#include <functional>
#include <optional>

class AppSettings;
class Database;
class StatusBanner;

/// The folder tree and its chats as last loaded, the selection, what chats inherit from their
/// folders, and the sidebar's commands. Every command ends by reloading from the database; a
/// database error goes to the banner and leaves the loaded tree as it was.
///
/// Deleting hides a folder or chat at once through the deletion queue, which every reload
/// leaves out; its rows are removed afterwards in the background (chat_tree_deletion.cpp).
class ChatTree : public QObject
{
    Q_OBJECT
    Q_PROPERTY(qint64 selectedChatID READ selectedChatID NOTIFY selectionChanged)
    Q_PROPERTY(qint64 selectedNodeID READ selectedNodeID NOTIFY selectionChanged)

public:
    /// The id of no folder or chat, as the window passes and reads it.
    static constexpr qint64 none = -1;

    /// What the tree asks of the rest of the application.
    struct Rules
    {
        /// Whether nothing may be written now: another connection writes (rows are sealed).
        std::function<bool()> editsBlocked;
        /// Whether nothing may be deleted now: a reply is being generated, or edits are blocked.
        std::function<bool()> deletionBlocked;
        /// Whether the locked folder with this id was opened in this run.
        std::function<bool(qint64)> isOpen;
        /// The folder whose lock is changing now: it is hidden with everything below it.
        std::function<std::optional<qint64>()> sealingFolder;
        /// Asks for the password of a locked folder.
        std::function<void(qint64)> requestUnlock;
    };

    /// Loads the deletion queue and the tree.
    ChatTree(Database &database, const AppSettings &settings, StatusBanner &status, Rules rules,
             QObject *parent = nullptr);
    ~ChatTree() override;

    // ---- what is loaded
    const QList<Node> &nodes() const { return m_tree.nodes(); }
    /// Every chat, newest first, without those that are being deleted.
    const QList<Chat> &chats() const { return m_chats; }
    std::optional<Chat> chat(qint64 id) const;
    qint64 selectedChatID() const { return m_selectedChatID; }
    qint64 selectedNodeID() const { return m_selectedNodeID; }
    std::optional<Node> selectedNode() const;
    std::optional<Chat> selectedChat() const { return chat(m_selectedChatID); }
    /// Re-reads folders and chats and drops a selection whose row is gone.
    void reload();

    // ---- queries
    bool folderHasContents(qint64 id) const;
    bool chatHasMessages(qint64 id);
    /// `id` and every folder below it.
    QSet<qint64> subtreeIDs(qint64 id) const { return m_tree.subtreeIDs(id); }
    /// The nearest folder, from `nodeID` upwards, whose script its chats run.
    std::optional<Node> cartridgeFolder(std::optional<qint64> nodeID) const;
    /// The script that runs in `chat`: its own, else its folder's; empty when none.
    QString cartridgeSource(const Chat &chat) const;
    QString effectiveAgentName(const std::optional<Node> &node) const;
    QString inheritedAgentName(const std::optional<Node> &node) const;
    QString effectiveAgentName(const Chat &chat) const;
    QString inheritedAgentName(const Chat &chat) const;
    /// The chat's system prompt: its assistant's name, the global prompt, each folder's
    /// prompt from the root down and the chat's own, blank parts left out.
    QString effectivePrompt(const Chat &chat) const;
    /// Assistant names that running scripts set, by chat id; never stored.
    QHash<qint64, QString> &cartridgeAgentNames() { return m_cartridgeAgentNames; }

    // ---- locked folders
    /// The nearest folder, from `node` upwards, that the user locked.
    std::optional<Node> lockedFolder(const Node &node) const;
    /// A sealed folder whose locked folder is not open in this run: its contents stay hidden.
    bool isLockedAway(const Node &node) const;
    /// A sealed chat whose locked folder is not open in this run.
    bool isLockedAway(const Chat &chat) const;
    /// Drops the selection of a chat that is locked away, and moves the folder selection out
    /// of a closed locked folder onto that folder.
    void hideLockedAway();

    // ---- commands
    /// Selects a chat and its folder; a chat that is locked away is not selected.
    Q_INVOKABLE void selectChat(qint64 id);
    /// Selects a folder; the chat selection stays.
    Q_INVOKABLE void selectNode(qint64 id);
    /// Selects the newest chat that is not sealed, as at start.
    void selectFirstOpenChat();
    /// Adds "New folder" under `parentID` (`none`: at the top) and answers its id, or `none`
    /// when the parent is locked away (the unlock sheet is raised instead) or on an error.
    Q_INVOKABLE qint64 addFolder(qint64 parentID);
    /// Adds "New chat" to `folderID` (`none`: the selected folder, else the first) and
    /// selects it.
    Q_INVOKABLE void addChat(qint64 folderID);
    Q_INVOKABLE void renameNode(qint64 id, const QString &name);
    Q_INVOKABLE void renameChat(qint64 id, const QString &title);
    /// Deletes a chat with its messages; it leaves every view before this returns.
    Q_INVOKABLE void deleteChat(qint64 id);
    /// Deletes a folder with everything below it, the same way.
    Q_INVOKABLE void deleteFolder(qint64 id);
    /// Moves the selected chat into another folder and selects that folder.
    Q_INVOKABLE void moveSelectedChat(qint64 folderID);
    Q_INVOKABLE void setNodePrompt(qint64 id, const QString &text);
    Q_INVOKABLE void setNodeAgentName(qint64 id, const QString &text);
    Q_INVOKABLE void setChatPrompt(qint64 id, const QString &text);
    Q_INVOKABLE void setChatAutoSpeakReplies(qint64 id, bool enabled);

    /// A folder's own fields for its settings sheet: name, prompt, agentName,
    /// inheritedAgentName, isLocked, isSealed, hasContents, cartridgeName; empty for an
    /// unknown id.
    Q_INVOKABLE QVariantMap folderDetails(qint64 id) const;
    /// A chat's fields for its settings sheet: title, prompt, autoSpeakReplies, agentName,
    /// cartridgeName, isSealed; empty for an unknown id.
    Q_INVOKABLE QVariantMap chatDetails(qint64 id) const;

    // ---- the background removal of deleted rows
    /// Deleted folders and chats whose rows are still being removed.
    bool isPurging() const { return m_purgeCancel.has_value(); }
    /// Starts removing queued rows unless that runs already or nothing is queued.
    void startPurge();
    void cancelPurge();

    /// Starts over on the emptied database after erasing all data.
    void resetAfterErase();

Q_SIGNALS:
    void treeChanged();
    void selectionChanged();
    /// The selected chat was set, set again or dropped: its messages are to be read afresh.
    void chatOpened();
    /// A folder or chat was queued for deletion: work on what is going must stop.
    void deletionQueued();
    /// A chat moved to another folder.
    void chatMoved(qint64 chatID);
    /// The background removal ended: everything queued is gone, or a failure stopped it and
    /// is shown in the banner.
    void purgeFinished();

private:
    /// Leaves out of freshly read rows the folders and chats in the deletion queue, with
    /// everything below those folders.
    void hideDeleted(QList<Node> &nodes, QList<Chat> &chats) const;
    void setSelection(qint64 chatID, qint64 nodeID);
    /// When `nodeID` lies in a locked folder that is not open, raises the unlock sheet for
    /// it and answers true.
    bool raiseUnlockIfLockedAway(std::optional<qint64> nodeID);
    /// Runs a database change and reloads when it succeeded.
    template <typename Work>
    void change(Work &&work);
    /// Removes the rows of the deletion queue, oldest entry first, in slices of about 40 ms.
    QCoro::Task<> purgeDeletions(CancellationToken cancel);

    Database &m_database;
    const AppSettings &m_settings;
    StatusBanner &m_status;
    Rules m_rules;

    FolderTree m_tree;
    QList<Chat> m_chats;
    QSet<qint64> m_foldersWithChats; ///< so that the sidebar's per-folder question is cheap
    qint64 m_selectedChatID = none;
    qint64 m_selectedNodeID = none;
    QHash<qint64, QString> m_cartridgeAgentNames;
    DeletionQueue m_deletions;
    /// Cancels the running purge; absent when none runs.
    std::optional<CancellationToken> m_purgeCancel;
};
