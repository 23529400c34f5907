#include "app/folder_tree.h"

#include "app/settings_rules.h"

FolderTree::FolderTree(QList<Node> nodes)
    : m_nodes(std::move(nodes))
{
    m_index.reserve(m_nodes.size());
    for (qsizetype i = 0; i < m_nodes.size(); ++i) {
        m_index.insert(m_nodes[i].id, i);
        if (m_nodes[i].parentID)
            m_children.insert(*m_nodes[i].parentID, m_nodes[i].id);
    }
}

const Node *FolderTree::find(qint64 id) const
{
    const auto it = m_index.constFind(id);
    return it == m_index.cend() ? nullptr : &m_nodes[*it];
}

QSet<qint64> FolderTree::subtreeIDs(qint64 id) const
{
    // Everything whose parent chain reaches `id`; the set itself stops a cycle.
    QSet<qint64> found{id};
    QList<qint64> pending{id};
    while (!pending.isEmpty()) {
        const qint64 parent = pending.takeLast();
        for (auto it = m_children.constFind(parent); it != m_children.cend() && it.key() == parent; ++it) {
            if (!found.contains(it.value())) {
                found.insert(it.value());
                pending.append(it.value());
            }
        }
    }
    return found;
}

template <typename Visit>
const Node *FolderTree::walkUp(const Node *start, Visit visit) const
{
    QSet<qint64> visited;
    for (const Node *node = start; node && !visited.contains(node->id); node = find(node->parentID)) {
        visited.insert(node->id);
        if (visit(*node))
            return node;
    }
    return nullptr;
}

const Node *FolderTree::cartridgeFolder(std::optional<qint64> id) const
{
    return walkUp(find(id), [](const Node &node) { return !node.cartridgeSource.isEmpty(); });
}

const Node *FolderTree::lockedFolder(const Node &node) const
{
    return walkUp(&node, [](const Node &candidate) { return candidate.isLocked; });
}

QString FolderTree::effectiveAgentName(const Node *node, const QString &globalAgentName) const
{
    if (const Node *named = walkUp(node, [](const Node &n) { return !Settings::trimmed(n.agentName).isEmpty(); }))
        return Settings::trimmed(named->agentName);
    const QString global = Settings::trimmed(globalAgentName);
    return global.isEmpty() ? Settings::defaultAgentName : global;
}

QString FolderTree::inheritedAgentName(const Node *node, const QString &globalAgentName) const
{
    return effectiveAgentName(node ? find(node->parentID) : nullptr, globalAgentName);
}

QList<const Node *> FolderTree::chain(qint64 nodeID) const
{
    QList<const Node *> chain;
    walkUp(find(nodeID), [&chain](const Node &node) {
        chain.prepend(&node);
        return false;
    });
    return chain;
}
