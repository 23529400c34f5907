// Unlocking with this computer: the vault key sealed to a key of the KeyProvider.
#include "app/folder_locks.h"

#include "app/status_banner.h"
#include "storage/database.h"
#include "vault/key_provider.h"
#include "vault/key_seal.h"

#include <QPointer>

QCoro::Task<> FolderLocks::probeKeyProvider()
{
    if (!m_keyProvider)
        co_return;
    const QPointer<FolderLocks> alive(this);
    const bool available = co_await m_keyProvider->isAvailable();
    if (!alive || available == m_canUnlockWithComputer)
        co_return;
    m_canUnlockWithComputer = available;
    Q_EMIT computerUnlockChanged();
}

void FolderLocks::submitUnlockWithComputer()
{
    if (!m_lockSheet || m_lockSheet->kind != LockSheet::Unlock)
        return;
    run(unlockWithTouchID(m_lockSheet->purpose).then([](bool) {}));
}

void FolderLocks::setUnlockWithComputer(bool on)
{
    if (!m_vault || on == unlocksWithComputer())
        return;
    if (on && !isUnlocked())
        showSheet({.kind = LockSheet::Unlock, .purpose = {.kind = UnlockPurpose::TouchID, .folderID = -1}});
    else
        run(setTouchID(on).then([](bool) {}));
}

QCoro::Task<bool> FolderLocks::unlockWithTouchID(UnlockPurpose purpose)
{
    if (!m_vault || !m_vault->touchID || !m_keyProvider)
        co_return false;
    const QPointer<FolderLocks> alive(this);
    std::optional<VaultKey> key;
    try {
        QCoro::Task<VaultKey> opening = Vault::openWithTouchID(*m_vault->touchID, m_keyProvider.get());
        key = co_await opening;
    } catch (const PresenceDeclined &) {
        // The user said no to the system's check: the password is still there to use.
    } catch (const std::exception &error) {
        if (alive)
            m_status.showError(error);
    }
    if (!alive || !key)
        co_return false;
    co_await didUnlock(std::move(*key), purpose);
    co_return true;
}

QCoro::Task<bool> FolderLocks::setTouchID(bool enabled)
{
    if (!m_vault || (enabled && (!isUnlocked() || !m_keyProvider)))
        co_return false;
    const QPointer<FolderLocks> alive(this);
    std::optional<TouchIDSeal> seal;
    if (enabled) {
        try {
            QCoro::Task<TouchIDSeal> sealing = Vault::touchIDSeal(*m_database.vaultKey(), m_keyProvider.get());
            seal = co_await sealing;
        } catch (const std::exception &error) {
            if (alive)
                m_status.showError(error);
            co_return false;
        }
        if (!alive || !m_vault)
            co_return false;
    }
    // The record as it is now (the password may have changed meanwhile); only the seal changes.
    VaultRecord record = *m_vault;
    record.touchID = std::move(seal);
    if (!m_status.attempt([&] { saveVault(record); }))
        co_return false;
    m_status.show(enabled ? QStringLiteral("Unlock with this computer is on")
                          : QStringLiteral("Unlock with this computer is off"));
    co_return true;
}
