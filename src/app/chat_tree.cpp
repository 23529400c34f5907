// Loading the tree, the selection, and what chats inherit from their folders.
#include "app/chat_tree.h"

#include "app/app_settings.h"
#include "app/settings_rules.h"
#include "app/status_banner.h"
#include "storage/database.h"

namespace {

std::optional<Node> copyOf(const Node *node)
{
    return node ? std::optional<Node>(*node) : std::nullopt;
}

} // namespace

ChatTree::ChatTree(Database &database, const AppSettings &settings, StatusBanner &status, Rules rules,
                   QObject *parent)
    : QObject(parent)
    , m_database(database)
    , m_settings(settings)
    , m_status(status)
    , m_rules(std::move(rules))
{
    m_deletions.load(m_database);
    reload();
}

ChatTree::~ChatTree()
{
    cancelPurge();
}

void ChatTree::reload()
{
    QList<Node> nodes;
    QList<Chat> chats;
    if (!m_status.attempt([&] {
            nodes = m_database.nodes();
            chats = m_database.chats();
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
    const bool chatGone = m_selectedChatID != none && !selectedChat();
    const bool nodeGone = m_selectedNodeID != none && !m_tree.find(m_selectedNodeID);
    if (chatGone)
        m_selectedChatID = none;
    if (nodeGone)
        m_selectedNodeID = none;
    Q_EMIT treeChanged();
    if (chatGone || nodeGone)
        Q_EMIT selectionChanged();
    if (chatGone)
        Q_EMIT chatOpened();
}

void ChatTree::hideDeleted(QList<Node> &nodes, QList<Chat> &chats) const
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

std::optional<Chat> ChatTree::chat(qint64 id) const
{
    const auto it = std::ranges::find(m_chats, id, &Chat::id);
    return it == m_chats.end() ? std::nullopt : std::optional<Chat>(*it);
}

std::optional<Node> ChatTree::selectedNode() const
{
    return copyOf(m_tree.find(m_selectedNodeID));
}

void ChatTree::setSelection(qint64 chatID, qint64 nodeID)
{
    m_selectedChatID = chatID;
    m_selectedNodeID = nodeID;
    Q_EMIT selectionChanged();
}

// ---- queries

bool ChatTree::folderHasContents(qint64 id) const
{
    return m_tree.hasChildren(id) || m_foldersWithChats.contains(id);
}

bool ChatTree::chatHasMessages(qint64 id)
{
    bool has = false;
    m_status.attempt([&] { has = m_database.hasMessages(id); });
    return has;
}

std::optional<Node> ChatTree::cartridgeFolder(std::optional<qint64> nodeID) const
{
    return copyOf(m_tree.cartridgeFolder(nodeID));
}

QString ChatTree::cartridgeSource(const Chat &chat) const
{
    if (!chat.cartridgeSource.isEmpty())
        return chat.cartridgeSource;
    const Node *folder = m_tree.cartridgeFolder(chat.nodeID);
    return folder ? folder->cartridgeSource : QString();
}

QString ChatTree::effectiveAgentName(const std::optional<Node> &node) const
{
    return m_tree.effectiveAgentName(node ? m_tree.find(node->id) : nullptr, m_settings.globalAgentName());
}

QString ChatTree::inheritedAgentName(const std::optional<Node> &node) const
{
    return m_tree.inheritedAgentName(node ? m_tree.find(node->id) : nullptr, m_settings.globalAgentName());
}

QString ChatTree::effectiveAgentName(const Chat &chat) const
{
    // A name a running script set wins, then the chat's own script's name, both as given.
    if (const auto it = m_cartridgeAgentNames.constFind(chat.id); it != m_cartridgeAgentNames.cend())
        return *it;
    if (!chat.cartridgeAgentName.isEmpty())
        return chat.cartridgeAgentName;
    return inheritedAgentName(chat);
}

QString ChatTree::inheritedAgentName(const Chat &chat) const
{
    return m_tree.effectiveAgentName(m_tree.find(chat.nodeID), m_settings.globalAgentName());
}

QString ChatTree::effectivePrompt(const Chat &chat) const
{
    QStringList parts{QStringLiteral("Your name is ") + effectiveAgentName(chat) + QLatin1Char('.'),
                      m_settings.globalPrompt()};
    for (const Node *folder : m_tree.chain(chat.nodeID))
        parts.append(folder->prompt);
    parts.append(chat.prompt);
    parts.removeIf([](const QString &part) { return Settings::trimmed(part).isEmpty(); });
    return parts.join(QStringLiteral("\n\n"));
}

// ---- locked folders

std::optional<Node> ChatTree::lockedFolder(const Node &node) const
{
    const Node *loaded = m_tree.find(node.id);
    return copyOf(m_tree.lockedFolder(loaded ? *loaded : node));
}

bool ChatTree::isLockedAway(const Node &node) const
{
    // A folder being locked is away already, with everything below it.
    if (const auto sealing = m_rules.sealingFolder()) {
        const QList<const Node *> chain = m_tree.chain(node.id);
        if (std::ranges::any_of(chain, [&](const Node *n) { return n->id == *sealing; }))
            return true;
    }
    if (!node.isSealed)
        return false;
    // A sealed folder with no locked folder above it cannot be opened: it stays away.
    const Node *locked = m_tree.lockedFolder(node);
    return !locked || !m_rules.isOpen(locked->id);
}

bool ChatTree::isLockedAway(const Chat &chat) const
{
    const Node *node = m_tree.find(chat.nodeID);
    if (!chat.isSealed)
        return node && m_rules.sealingFolder() && isLockedAway(*node);
    return !node || isLockedAway(*node);
}

void ChatTree::hideLockedAway()
{
    const auto chat = selectedChat();
    const bool chatAway = chat && isLockedAway(*chat);
    qint64 nodeID = m_selectedNodeID;
    if (const Node *node = m_tree.find(m_selectedNodeID); node && isLockedAway(*node)) {
        // The folder that keeps it away stays selected: the one locked, or the one locking.
        const Node *locked = m_tree.lockedFolder(*node);
        const Node *sealing = m_tree.find(m_rules.sealingFolder());
        nodeID = locked ? locked->id : sealing ? sealing->id : none;
    }
    if (!chatAway && nodeID == m_selectedNodeID)
        return;
    setSelection(chatAway ? none : m_selectedChatID, nodeID);
    if (chatAway)
        Q_EMIT chatOpened();
}

bool ChatTree::raiseUnlockIfLockedAway(std::optional<qint64> nodeID)
{
    const Node *node = m_tree.find(nodeID);
    if (!node || !isLockedAway(*node))
        return false;
    if (const Node *locked = m_tree.lockedFolder(*node))
        m_rules.requestUnlock(locked->id);
    return true;
}
