#include "sidebar_model.h"

#include <QHash>

SidebarModel::SidebarModel(QObject *parent)
    : QAbstractListModel(parent)
{
}

void SidebarModel::setSource(ChatTree *source)
{
    if (m_source == source)
        return;
    if (m_source)
        disconnect(m_source, nullptr, this, nullptr);
    m_source = source;
    if (m_source) {
        connect(m_source, &ChatTree::treeChanged, this, &SidebarModel::rebuild);
        connect(m_source, &ChatTree::selectionChanged, this, &SidebarModel::updateSelection);
    }
    rebuild();
    Q_EMIT sourceChanged();
}

QList<SidebarModel::Row> SidebarModel::buildRows() const
{
    QList<Row> rows;
    if (!m_source)
        return rows;
    const QList<Node> &nodes = m_source->nodes();
    QHash<qint64, QList<const Node *>> childFolders; // parent id -> folders, oldest first
    QList<const Node *> roots;
    QSet<qint64> known;
    for (const Node &node : nodes)
        known.insert(node.id);
    for (const Node &node : nodes) {
        // A folder whose parent is missing is shown at the top level rather than lost.
        if (node.parentID && known.contains(*node.parentID) && *node.parentID != node.id)
            childFolders[*node.parentID].append(&node);
        else
            roots.append(&node);
    }
    QHash<qint64, QList<const Chat *>> chatsOf; // folder id -> chats, newest first
    for (const Chat &chat : m_source->chats())
        chatsOf[chat.nodeID].append(&chat);

    QSet<qint64> visited; // guards against a cycle in stored parent links
    const auto addFolder = [&](const auto &self, const Node &node, int depth) -> void {
        if (visited.contains(node.id))
            return;
        visited.insert(node.id);
        Row row;
        row.isFolder = true;
        row.id = node.id;
        row.name = node.name;
        row.depth = depth;
        row.isLocked = node.isLocked;
        row.isSealed = node.isSealed;
        row.lockedAway = m_source->isLockedAway(node);
        row.hasChildren = !row.lockedAway && m_source->folderHasContents(node.id);
        rows.append(row);
        if (row.lockedAway || m_collapsed.contains(node.id))
            return;
        for (const Node *child : childFolders.value(node.id))
            self(self, *child, depth + 1);
        for (const Chat *chat : chatsOf.value(node.id)) {
            if (m_source->isLockedAway(*chat))
                continue;
            Row chatRow;
            chatRow.id = chat->id;
            chatRow.name = chat->title;
            chatRow.depth = depth + 1;
            chatRow.isSealed = chat->isSealed;
            rows.append(chatRow);
        }
    };
    for (const Node *root : roots)
        addFolder(addFolder, *root, 0);
    return rows;
}

void SidebarModel::rebuild()
{
    beginResetModel();
    m_rows = buildRows();
    m_selectedChat = m_source ? m_source->selectedChatID() : -1;
    m_selectedFolder = m_source ? m_source->selectedNodeID() : -1;
    endResetModel();
}

bool SidebarModel::isSelected(const Row &row) const
{
    return row.isFolder ? row.id == m_selectedFolder : row.id == m_selectedChat;
}

void SidebarModel::updateSelection()
{
    if (!m_source)
        return;
    const qint64 oldChat = m_selectedChat;
    const qint64 oldFolder = m_selectedFolder;
    m_selectedChat = m_source->selectedChatID();
    m_selectedFolder = m_source->selectedNodeID();
    const QList<int> roles{IsSelectedRole};
    for (int i = 0; i < m_rows.size(); ++i) {
        const Row &row = m_rows[i];
        const bool changed = row.isFolder ? (oldFolder != m_selectedFolder && (row.id == oldFolder || row.id == m_selectedFolder))
                                          : (oldChat != m_selectedChat && (row.id == oldChat || row.id == m_selectedChat));
        if (changed)
            Q_EMIT dataChanged(index(i), index(i), roles);
    }
}

void SidebarModel::setCollapsed(qint64 folderID, bool collapsed)
{
    if (m_collapsed.contains(folderID) == collapsed)
        return;
    const int folderRow = rowOf(QStringLiteral("folder"), folderID);
    if (collapsed)
        m_collapsed.insert(folderID);
    else
        m_collapsed.remove(folderID);
    if (folderRow < 0)
        return; // hidden inside another collapsed folder: only remembered
    // A folder's contents are the rows right after it that lie deeper than it.
    QList<Row> rows = buildRows();
    const qsizetype delta = rows.size() - m_rows.size();
    if (delta < 0) {
        beginRemoveRows({}, folderRow + 1, folderRow + int(-delta));
        m_rows = std::move(rows);
        endRemoveRows();
    } else if (delta > 0) {
        beginInsertRows({}, folderRow + 1, folderRow + int(delta));
        m_rows = std::move(rows);
        endInsertRows();
    }
    Q_EMIT dataChanged(index(folderRow), index(folderRow), {IsCollapsedRole});
}

int SidebarModel::rowOf(const QString &kind, qint64 id) const
{
    const bool folder = kind == QLatin1String("folder");
    for (int i = 0; i < m_rows.size(); ++i)
        if (m_rows[i].isFolder == folder && m_rows[i].id == id)
            return i;
    return -1;
}

int SidebarModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : int(m_rows.size());
}

QVariant SidebarModel::data(const QModelIndex &index, int role) const
{
    if (!checkIndex(index, CheckIndexOption::IndexIsValid | CheckIndexOption::ParentIsInvalid))
        return {};
    const Row &row = m_rows[index.row()];
    switch (role) {
    case Qt::DisplayRole:
    case NameRole:
        return row.name;
    case KindRole:
        return row.isFolder ? QStringLiteral("folder") : QStringLiteral("chat");
    case ItemIDRole:
        return row.id;
    case DepthRole:
        return row.depth;
    case HasChildrenRole:
        return row.hasChildren;
    case IsCollapsedRole:
        return row.isFolder && m_collapsed.contains(row.id);
    case IsSelectedRole:
        return isSelected(row);
    case IsLockedRole:
        return row.isLocked;
    case IsSealedRole:
        return row.isSealed;
    case LockedAwayRole:
        return row.lockedAway;
    }
    return {};
}

QHash<int, QByteArray> SidebarModel::roleNames() const
{
    return {{KindRole, "kind"},
            {ItemIDRole, "itemID"},
            {NameRole, "name"},
            {DepthRole, "depth"},
            {HasChildrenRole, "hasChildren"},
            {IsCollapsedRole, "isCollapsed"},
            {IsSelectedRole, "isSelected"},
            {IsLockedRole, "isLocked"},
            {IsSealedRole, "isSealed"},
            {LockedAwayRole, "lockedAway"}};
}
