#pragma once

#include "storage/records.h"

#include <QHash>
#include <QList>
#include <QSet>
#include <QString>

#include <optional>

/// The folders as last loaded, indexed for the walks that every view and every reply makes:
/// up the parent chain (names, prompts, scripts, locks) and down into a subtree. Built once
/// per reload, so each walk costs the depth of the tree, not its size.
///
/// The stored parent links are not trusted to form a tree: every upward walk stops at a
/// node it has already visited, at a root and at a parent that is not loaded.
class FolderTree
{
public:
    FolderTree() = default;
    explicit FolderTree(QList<Node> nodes);

    /// All nodes, oldest first.
    const QList<Node> &nodes() const { return m_nodes; }
    const Node *find(qint64 id) const;
    const Node *find(std::optional<qint64> id) const { return id ? find(*id) : nullptr; }

    /// Whether any folder lies directly inside `id`.
    bool hasChildren(qint64 id) const { return m_children.contains(id); }

    /// `id` and every node below it.
    QSet<qint64> subtreeIDs(qint64 id) const;

    /// The nearest node, from `id` itself upwards, that carries a script.
    const Node *cartridgeFolder(std::optional<qint64> id) const;

    /// The nearest node, from `node` itself upwards, that the user locked.
    const Node *lockedFolder(const Node &node) const;

    /// The assistant's name for a folder: the nearest non-blank folder name, trimmed, else
    /// the global name trimmed, else "Corvane".
    QString effectiveAgentName(const Node *node, const QString &globalAgentName) const;
    /// The name a folder would have without its own: its parent's effective name.
    QString inheritedAgentName(const Node *node, const QString &globalAgentName) const;

    /// The folder chain of a chat, root first, ending with the chat's own folder.
    QList<const Node *> chain(qint64 nodeID) const;

private:
    /// Calls `visit` for `start` and each ancestor until it returns true or the walk ends.
    template <typename Visit>
    const Node *walkUp(const Node *start, Visit visit) const;

    QList<Node> m_nodes;
    QHash<qint64, qsizetype> m_index;
    QMultiHash<qint64, qint64> m_children;
};
