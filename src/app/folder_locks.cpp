#include "app/folder_locks.h"

#include "app/settings_rules.h"
#include "storage/database.h"

FolderLocks::FolderLocks(Database &database, QObject *parent)
    : QObject(parent)
{
    if (const auto text = database.setting(Settings::vaultKey))
        m_vault = VaultRecord::fromJson(text->toUtf8());
}

void FolderLocks::requestUnlock(qint64 folderID)
{
    requestLockSheet({.kind = LockSheet::Unlock, .purpose = {.kind = UnlockPurpose::Open, .folderID = folderID}});
}

void FolderLocks::requestLockSheet(LockSheet sheet)
{
    m_lockSheet = sheet;
    Q_EMIT lockSheetChanged();
}

void FolderLocks::dismissLockSheet()
{
    if (!m_lockSheet)
        return;
    m_lockSheet.reset();
    Q_EMIT lockSheetChanged();
}

void FolderLocks::resetAfterErase()
{
    m_vault.reset();
    m_unlockedFolderIDs.clear();
    dismissLockSheet();
}
