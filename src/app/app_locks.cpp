// Locked folders as the tree sees them: which chats are locked away, and asking the window
// for the unlock dialog when a command needs a folder that is locked.
#include "app/app_model.h"

std::optional<Node> AppModel::lockedFolder(const Node &node) const
{
    const Node *loaded = m_tree.find(node.id);
    const Node *locked = m_tree.lockedFolder(loaded ? *loaded : node);
    return locked ? std::optional<Node>(*locked) : std::nullopt;
}

bool AppModel::isLockedAway(const Chat &chat) const
{
    if (!chat.isSealed)
        return false;
    const Node *node = m_tree.find(chat.nodeID);
    if (!node)
        return true;
    if (!node->isSealed)
        return false;
    // A sealed folder with no locked folder above it cannot be opened: it stays away.
    const Node *locked = m_tree.lockedFolder(*node);
    return !locked || !m_unlockedFolderIDs.contains(locked->id);
}

bool AppModel::raiseUnlockIfLockedAway(std::optional<qint64> nodeID)
{
    const Node *node = m_tree.find(nodeID);
    if (!node || !node->isSealed)
        return false;
    const Node *locked = m_tree.lockedFolder(*node);
    if (locked && m_unlockedFolderIDs.contains(locked->id))
        return false;
    if (locked)
        requestLockSheet({.kind = LockSheet::Unlock,
                          .purpose = {.kind = UnlockPurpose::Open, .folderID = locked->id}});
    return true;
}

void AppModel::requestLockSheet(LockSheet sheet)
{
    m_lockSheet = sheet;
    Q_EMIT lockSheetChanged();
}

void AppModel::dismissLockSheet()
{
    if (!m_lockSheet)
        return;
    m_lockSheet.reset();
    Q_EMIT lockSheetChanged();
}
