// The folder tree: loading, selection, inheritance of names and prompts, and the commands of
// the sidebar. Every command ends by reloading from the database; a database error goes to
// the status banner and leaves the loaded tree as it was.
#include "app/app_model.h"

#include "app/settings_rules.h"
#include "platform/error.h"
#include "storage/database.h"

namespace {

const QString s_newFolderName = QStringLiteral("New folder");
const QString s_newChatTitle = QStringLiteral("New chat");

std::optional<Node> copyOf(const Node *node)
{
    return node ? std::optional<Node>(*node) : std::nullopt;
}

} // namespace

void AppModel::reload(bool withMessages)
{
    QList<Node> nodes;
    QList<Chat> chats;
    if (!tryDatabase([&] {
            nodes = m_database->nodes();
            chats = m_database->chats();
        }))
        return;
    hideDeleted(nodes, chats);
    m_tree = FolderTree(std::move(nodes));
    m_foldersWithChats.clear();
    for (Chat &chat : chats) {
        m_foldersWithChats.insert(chat.nodeID);
        if (const Node *folder = m_tree.cartridgeFolder(chat.nodeID))
            chat.cartridgeFolderID = folder->id;
    }
    m_chats = std::move(chats);

    // A selection whose row is gone is dropped rather than left pointing at nothing.
    const bool chatGone = m_selectedChatID && !selectedChat();
    const bool nodeGone = m_selectedNodeID && !m_tree.find(*m_selectedNodeID);
    if (chatGone)
        clearChatSelection();
    if (nodeGone)
        m_selectedNodeID.reset();
    Q_EMIT treeChanged();
    if (chatGone || nodeGone)
        Q_EMIT selectionChanged();
    if (withMessages && !chatGone)
        loadMessages();
}

void AppModel::hideDeleted(QList<Node> &nodes, QList<Chat> &chats) const
{
    if (m_deletions.isEmpty())
        return;
    QSet<qint64> hiddenNodes;
    QSet<qint64> hiddenChats;
    const FolderTree all(nodes);
    for (const DeletionQueue::Entry &entry : m_deletions.entries()) {
        if (entry.kind == DeletionQueue::Kind::folder)
            hiddenNodes.unite(all.subtreeIDs(entry.id));
        else
            hiddenChats.insert(entry.id);
    }
    nodes.removeIf([&](const Node &node) { return hiddenNodes.contains(node.id); });
    chats.removeIf([&](const Chat &chat) { return hiddenChats.contains(chat.id) || hiddenNodes.contains(chat.nodeID); });
}

void AppModel::selectFirstOpenChat()
{
    const auto first = std::ranges::find_if(m_chats, [](const Chat &c) { return !c.isSealed; });
    if (first != m_chats.end())
        selectChat(first->id);
}

void AppModel::loadMessages()
{
    if (!m_selectedChatID) {
        m_messages.clear();
        Q_EMIT messagesChanged();
        return;
    }
    tryDatabase([this] {
        m_messages = m_database->messages(*m_selectedChatID);
        Q_EMIT messagesChanged();
    });
}

void AppModel::clearChatSelection()
{
    m_selectedChatID.reset();
    m_messages.clear();
    removePendingImage();
    Q_EMIT messagesChanged();
}

// ---- queries

std::optional<Node> AppModel::selectedNode() const
{
    return copyOf(m_tree.find(m_selectedNodeID));
}

std::optional<Chat> AppModel::selectedChat() const
{
    if (!m_selectedChatID)
        return std::nullopt;
    const auto it = std::ranges::find(m_chats, *m_selectedChatID, &Chat::id);
    return it == m_chats.end() ? std::nullopt : std::optional<Chat>(*it);
}

QList<Message> AppModel::visibleMessages() const
{
    QList<Message> visible;
    std::ranges::copy_if(m_messages, std::back_inserter(visible), [](const Message &m) { return !m.hidden; });
    return visible;
}

bool AppModel::folderHasContents(qint64 id) const
{
    return m_tree.hasChildren(id) || m_foldersWithChats.contains(id);
}

bool AppModel::chatHasMessages(qint64 id)
{
    bool has = false;
    tryDatabase([&] { has = m_database->hasMessages(id); });
    return has;
}

QSet<qint64> AppModel::subtreeIDs(qint64 id) const
{
    return m_tree.subtreeIDs(id);
}

std::optional<Node> AppModel::cartridgeFolder(std::optional<qint64> nodeID) const
{
    return copyOf(m_tree.cartridgeFolder(nodeID));
}

QString AppModel::effectiveAgentName(const std::optional<Node> &node) const
{
    return m_tree.effectiveAgentName(node ? m_tree.find(node->id) : nullptr, m_globalAgentName);
}

QString AppModel::inheritedAgentName(const std::optional<Node> &node) const
{
    return m_tree.inheritedAgentName(node ? m_tree.find(node->id) : nullptr, m_globalAgentName);
}

QString AppModel::effectiveAgentName(const Chat &chat) const
{
    // A name a running script set wins, then the chat's own script's name, both as given.
    if (const auto it = m_cartridgeAgentNames.constFind(chat.id); it != m_cartridgeAgentNames.cend())
        return *it;
    if (!chat.cartridgeAgentName.isEmpty())
        return chat.cartridgeAgentName;
    return inheritedAgentName(chat);
}

QString AppModel::inheritedAgentName(const Chat &chat) const
{
    return m_tree.effectiveAgentName(m_tree.find(chat.nodeID), m_globalAgentName);
}

QString AppModel::effectivePrompt(const Chat &chat) const
{
    QStringList parts{QStringLiteral("Your name is ") + effectiveAgentName(chat) + QLatin1Char('.'),
                      m_globalPrompt};
    for (const Node *folder : m_tree.chain(chat.nodeID))
        parts.append(folder->prompt);
    parts.append(chat.prompt);
    parts.removeIf([](const QString &part) { return Settings::trimmed(part).isEmpty(); });
    return parts.join(QStringLiteral("\n\n"));
}

// ---- commands

void AppModel::selectChat(qint64 id)
{
    const auto chat = std::ranges::find(m_chats, id, &Chat::id);
    if (chat != m_chats.end() && isLockedAway(*chat))
        return;
    if (m_selectedChatID != id)
        removePendingImage();
    m_selectedChatID = id;
    m_chatOpenedAt = QDateTime::currentDateTimeUtc();
    m_selectedNodeID = chat != m_chats.end() ? std::optional<qint64>(chat->nodeID) : std::nullopt;
    Q_EMIT selectionChanged();
    loadMessages();
}

std::optional<Node> AppModel::addFolder(std::optional<qint64> parentID)
{
    if (raiseUnlockIfLockedAway(parentID))
        return std::nullopt;
    qint64 id = 0;
    if (!tryDatabase([&] { id = m_database->addNode(parentID, QStringLiteral("folder"), s_newFolderName); }))
        return std::nullopt;
    reload();
    return copyOf(m_tree.find(id));
}

void AppModel::addChat(std::optional<qint64> nodeID)
{
    if (!nodeID)
        nodeID = m_selectedNodeID;
    if (!nodeID && !nodes().isEmpty())
        nodeID = nodes().first().id;
    if (!nodeID || raiseUnlockIfLockedAway(nodeID))
        return;
    qint64 id = 0;
    if (!tryDatabase([&] { id = m_database->addChat(*nodeID, s_newChatTitle); }))
        return;
    reload();
    selectChat(id);
}

void AppModel::renameNode(qint64 id, const QString &name)
{
    const QString trimmed = Settings::trimmed(name);
    if (trimmed.isEmpty())
        return;
    if (tryDatabase([&] { m_database->renameNode(id, trimmed); }))
        reload();
}

void AppModel::renameChat(qint64 id, const QString &title)
{
    const QString trimmed = Settings::trimmed(title);
    if (trimmed.isEmpty())
        return;
    if (tryDatabase([&] { m_database->setChatFields({{QStringLiteral("title"), trimmed}}, {}, id); }))
        reload();
}

void AppModel::moveSelectedChat(qint64 folderID)
{
    if (!m_selectedChatID)
        return;
    const qint64 chatID = *m_selectedChatID;
    if (!tryDatabase([&] { m_database->moveChat(chatID, folderID); }))
        return;
    matchImages();
    m_cartridgeAgentNames.remove(chatID);
    reload();
    m_selectedNodeID = folderID;
    Q_EMIT selectionChanged();
    restartTicks();
}

void AppModel::setNodePrompt(qint64 id, const QString &text)
{
    if (tryDatabase([&] { m_database->setNodePrompt(id, text); }))
        reload();
}

void AppModel::setNodeAgentName(qint64 id, const QString &text)
{
    if (tryDatabase([&] { m_database->setNodeAgentName(id, text); }))
        reload();
}

void AppModel::setChatPrompt(qint64 id, const QString &text)
{
    if (tryDatabase([&] { m_database->setChatFields({{QStringLiteral("prompt"), text}}, {}, id); }))
        reload();
}

void AppModel::setChatAutoSpeakReplies(qint64 id, bool enabled)
{
    if (tryDatabase([&] {
            m_database->execute(QStringLiteral("UPDATE chats SET auto_speak_replies=? WHERE id=?"),
                                {DBValue::integer(enabled ? 1 : 0), DBValue::integer(id)});
        }))
        reload();
}

// ---- seams to the image store and the script timers

void AppModel::removePendingImage()
{
    // Attaching images is not possible yet, so there is no unsent image file to delete.
    m_pendingImage.reset();
}

void AppModel::pruneImages()
{
    // No image files are stored yet, so none can be left without a message.
}

void AppModel::matchImages()
{
    // No image files are stored yet, so none needs encrypting or decrypting.
}

void AppModel::restartTicks()
{
    // Scripts do not run on timers yet, so there is no timer to restart.
}
