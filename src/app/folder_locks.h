#pragma once

#include "app/lock_sheet.h"
#include "vault/vault_record.h"

#include <QObject>
#include <QSet>

#include <optional>

class Database;

/// Locked folders as the rest of the application sees them: the stored vault record, which
/// locked folders are open in this run, and the lock dialog the window is asked to show.
class FolderLocks : public QObject
{
    Q_OBJECT

public:
    /// Reads the stored vault record. One that does not decode leaves no vault, silently, as
    /// if no folder had ever been locked.
    explicit FolderLocks(Database &database, QObject *parent = nullptr);

    /// The wrapped key of locked folders; absent before the first folder is locked.
    const std::optional<VaultRecord> &vault() const { return m_vault; }
    /// Whether the locked folder `id` was unlocked in this run.
    bool isUnlocked(qint64 id) const { return m_unlockedFolderIDs.contains(id); }
    const QSet<qint64> &unlockedFolderIDs() const { return m_unlockedFolderIDs; }

    const std::optional<LockSheet> &lockSheet() const { return m_lockSheet; }
    /// Asks the window for the password of the locked folder `folderID`, to open it.
    void requestUnlock(qint64 folderID);
    void dismissLockSheet();

    /// Forgets the vault and every unlocked folder after erasing all data.
    void resetAfterErase();

Q_SIGNALS:
    void lockSheetChanged();

private:
    void requestLockSheet(LockSheet sheet);

    std::optional<VaultRecord> m_vault;
    QSet<qint64> m_unlockedFolderIDs;
    std::optional<LockSheet> m_lockSheet;
};
