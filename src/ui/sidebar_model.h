#pragma once

#include "app/chat_tree.h"

#include <QAbstractListModel>
#include <QPointer>
#include <QSet>
#include <QtQml/qqmlregistration.h>

/// The sidebar's rows: the folder tree flattened in tree order. Each folder is followed by
/// its sub-folders (oldest first, each with its own contents) and then by its chats (newest
/// first). The contents of a collapsed folder, and of a folder that is locked away, are left
/// out. Which folders are collapsed is view state kept here, never stored.
class SidebarModel : public QAbstractListModel
{
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(ChatTree *source READ source WRITE setSource NOTIFY sourceChanged)

public:
    enum Role {
        KindRole = Qt::UserRole + 1, ///< "folder" or "chat"
        ItemIDRole, ///< the folder's or chat's id
        NameRole, ///< folder name or chat title
        DepthRole, ///< 0 for a top-level folder; a chat is one deeper than its folder
        HasChildrenRole, ///< a folder with rows that expanding it would show
        IsCollapsedRole, ///< a folder whose contents are hidden
        IsSelectedRole, ///< the selected chat, or the selected folder
        IsLockedRole, ///< a folder the user locked
        IsSealedRole, ///< encrypted: inside a locked folder
        LockedAwayRole, ///< a sealed folder that is not unlocked in this run; its chats are hidden
    };
    Q_ENUM(Role)

    explicit SidebarModel(QObject *parent = nullptr);

    ChatTree *source() const { return m_source; }
    void setSource(ChatTree *source);

    int rowCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

    /// Hides or shows a folder's contents.
    Q_INVOKABLE void setCollapsed(qint64 folderID, bool collapsed);
    Q_INVOKABLE void toggleCollapsed(qint64 folderID) { setCollapsed(folderID, !m_collapsed.contains(folderID)); }
    /// The row of a folder or chat, -1 when it is not shown.
    Q_INVOKABLE int rowOf(const QString &kind, qint64 id) const;

Q_SIGNALS:
    void sourceChanged();

private:
    struct Row
    {
        bool isFolder = false;
        qint64 id = 0;
        QString name;
        int depth = 0;
        bool hasChildren = false;
        bool isLocked = false;
        bool isSealed = false;
        bool lockedAway = false;
    };

    QList<Row> buildRows() const;
    void rebuild();
    void updateSelection();
    bool isSelected(const Row &row) const;

    QPointer<ChatTree> m_source;
    QList<Row> m_rows;
    QSet<qint64> m_collapsed;
    qint64 m_selectedChat = -1;
    qint64 m_selectedFolder = -1;
};
