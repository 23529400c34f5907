#include "app/folder_locks.h"

#include "app/chat_tree.h"
#include "app/settings_rules.h"
#include "app/status_banner.h"
#include "platform/worker_thread.h"
#include "storage/database.h"
#include "vault/key_provider.h"

#include <QPointer>
#include <QTimer>

#include <algorithm>

namespace {

/// Ends a flow that resumes after the locks are gone (the application quit meanwhile).
void throwIfGone(const QPointer<FolderLocks> &locks)
{
    if (!locks)
        throw CancelledError();
}

} // namespace

FolderLocks::FolderLocks(Database &database, QString databasePath, ChatTree &tree, StatusBanner &status,
                         std::unique_ptr<KeyProvider> keyProvider, QObject *parent)
    : QObject(parent)
    , m_database(database)
    , m_databasePath(std::move(databasePath))
    , m_tree(tree)
    , m_status(status)
    , m_progressTimer(new QTimer(this))
    , m_keyProvider(std::move(keyProvider))
{
    if (const auto text = database.setting(Settings::vaultKey))
        m_vault = VaultRecord::fromJson(text->toUtf8());
    m_progressTimer->setInterval(100);
    connect(m_progressTimer, &QTimer::timeout, this, &FolderLocks::showSealingProgress);
    connect(&tree, &ChatTree::treeChanged, this, &FolderLocks::lockedFoldersChanged);
    probeKeyProvider();
}

FolderLocks::~FolderLocks()
{
    // Quitting locks everything: the key leaves memory with the database's copy.
    m_database.setVaultKey(std::nullopt);
}

bool FolderLocks::isUnlocked() const
{
    return m_database.hasVaultKey();
}

int FolderLocks::lockedFolderCount() const
{
    return int(std::ranges::count_if(m_tree.nodes(), &Node::isLocked));
}

std::optional<qint64> FolderLocks::sealingFolderID() const
{
    return m_sealing ? std::optional<qint64>(m_sealing->folderID) : std::nullopt;
}

qint64 FolderLocks::sheetFolderID() const
{
    if (!m_lockSheet)
        return -1;
    return m_lockSheet->kind == LockSheet::SetUp ? m_lockSheet->folderID : m_lockSheet->purpose.folderID;
}

QString FolderLocks::folderName(qint64 id) const
{
    const auto node = std::ranges::find(m_tree.nodes(), id, &Node::id);
    return node == m_tree.nodes().end() ? QString() : node->name;
}

// ---- dialogs

void FolderLocks::showSheet(LockSheet sheet, QString recoveryKey)
{
    m_lockSheet = sheet;
    m_recoveryKey = std::move(recoveryKey);
    Q_EMIT lockSheetChanged();
}

void FolderLocks::dismissLockSheet()
{
    if (!m_lockSheet)
        return;
    m_lockSheet.reset();
    m_recoveryKey.clear();
    Q_EMIT lockSheetChanged();
}

void FolderLocks::lockFolder(qint64 folderID)
{
    const auto node = std::ranges::find(m_tree.nodes(), folderID, &Node::id);
    if (node == m_tree.nodes().end() || node->isSealed || m_sealing)
        return;
    if (!m_vault)
        showSheet({.kind = LockSheet::SetUp, .purpose = {}, .folderID = folderID});
    else if (!isUnlocked())
        showSheet({.kind = LockSheet::Unlock, .purpose = {.kind = UnlockPurpose::Lock, .folderID = folderID}});
    else
        run(setFolderLocked(folderID, true).then([](bool) {}));
}

void FolderLocks::requestUnlock(qint64 folderID)
{
    showSheet({.kind = LockSheet::Unlock, .purpose = {.kind = UnlockPurpose::Open, .folderID = folderID}});
}

void FolderLocks::requestPasswordChange()
{
    if (m_vault)
        showSheet({.kind = LockSheet::ChangePassword, .purpose = {}, .folderID = 0});
}

void FolderLocks::requestPasswordReset()
{
    if (!m_vault)
        return;
    // Reset from the unlock dialog goes on with what that dialog was for.
    const bool fromUnlock = m_lockSheet && m_lockSheet->kind == LockSheet::Unlock;
    const UnlockPurpose purpose = fromUnlock ? m_lockSheet->purpose : UnlockPurpose{.kind = UnlockPurpose::Open, .folderID = -1};
    showSheet({.kind = LockSheet::ResetPassword, .purpose = purpose});
}

void FolderLocks::submitSetUp(const QString &password, bool withComputer)
{
    if (!m_lockSheet || m_lockSheet->kind != LockSheet::SetUp)
        return;
    const qint64 folderID = m_lockSheet->folderID;
    run(createVault(password, folderID, withComputer && m_canUnlockWithComputer).then([this, alive = QPointer<FolderLocks>(this)](std::optional<QString> key) {
        if (alive && key)
            showSheet({.kind = LockSheet::RecoveryKey, .purpose = {}, .folderID = 0}, *key);
    }));
}

void FolderLocks::submitUnlock(const QString &password)
{
    if (!m_lockSheet || m_lockSheet->kind != LockSheet::Unlock)
        return;
    run(unlock(password, m_lockSheet->purpose).then([](bool) {}));
}

void FolderLocks::submitReset(const QString &recoveryKey, const QString &newPassword)
{
    if (!m_lockSheet || m_lockSheet->kind != LockSheet::ResetPassword)
        return;
    run(resetPassword(recoveryKey, newPassword, m_lockSheet->purpose).then([](bool) {}));
}

void FolderLocks::submitPasswordChange(const QString &current, const QString &newPassword)
{
    run(changePassword(current, newPassword).then([](bool) {}));
}

void FolderLocks::closeFolder(qint64 folderID)
{
    if (m_unlockedFolderIDs.remove(folderID))
        hideLockedAway();
}

void FolderLocks::lockAll()
{
    // Desktops may report one event several times.
    if (m_unlockedFolderIDs.isEmpty() && !isUnlocked())
        return;
    m_unlockedFolderIDs.clear();
    hideLockedAway();
}

void FolderLocks::removeLock(qint64 folderID)
{
    run(setFolderLocked(folderID, false).then([](bool) {}));
}

void FolderLocks::run(QCoro::Task<> task)
{
    setWorking(+1);
    task.then([this, alive = QPointer<FolderLocks>(this)] {
        if (alive)
            setWorking(-1);
    });
}

void FolderLocks::setWorking(int delta)
{
    m_working += delta;
    Q_EMIT workingChanged();
}

// ---- the key and the record

void FolderLocks::saveVault(const VaultRecord &record)
{
    m_database.setSetting(Settings::vaultKey, QString::fromUtf8(record.toJson()));
    m_vault = record;
    Q_EMIT vaultChanged();
}

void FolderLocks::setKey(std::optional<VaultKey> key)
{
    const bool was = isUnlocked();
    m_database.setVaultKey(std::move(key));
    if (was != isUnlocked())
        Q_EMIT keyChanged();
}

void FolderLocks::forgetKeyIfAllLocked()
{
    if (!isUnlocked() || !m_unlockedFolderIDs.isEmpty() || m_sealing)
        return;
    Q_EMIT keyForgotten();
    setKey(std::nullopt);
}

void FolderLocks::hideLockedAway()
{
    forgetKeyIfAllLocked();
    // Read once more, so that no sealed text decrypted with the key stays in memory.
    m_tree.reload();
    m_tree.hideLockedAway();
}

// ---- flows

QCoro::Task<std::optional<QString>> FolderLocks::createVault(QString password, qint64 folderID, bool touchID)
{
    if (m_vault || (touchID && !m_keyProvider))
        co_return std::nullopt;
    const QPointer<FolderLocks> alive(this);
    QString recovery;
    try {
        Vault::NewVault made = co_await Vault::createAsync(password);
        throwIfGone(alive);
        if (touchID) {
            QCoro::Task<TouchIDSeal> sealing = Vault::touchIDSeal(made.key, m_keyProvider.get());
            TouchIDSeal seal = co_await sealing;
            made.record.touchID = std::move(seal);
            throwIfGone(alive);
        }
        saveVault(made.record);
        setKey(made.key);
        recovery = made.recovery;
    } catch (const std::exception &error) {
        if (alive)
            m_status.showError(error);
        co_return std::nullopt;
    }
    const bool locked = co_await setFolderLocked(folderID, true);
    if (!alive)
        co_return std::nullopt;
    if (!locked) {
        // Nothing of a set-up that could not lock its folder stays behind.
        m_status.attempt([this] {
            m_database.execute(QStringLiteral("DELETE FROM settings WHERE key=?"), {DBValue::text(Settings::vaultKey)});
        });
        m_vault.reset();
        Q_EMIT vaultChanged();
        setKey(std::nullopt);
        co_return std::nullopt;
    }
    co_return recovery;
}

QCoro::Task<bool> FolderLocks::unlock(QString password, UnlockPurpose purpose)
{
    if (!m_vault)
        co_return false;
    const QPointer<FolderLocks> alive(this);
    std::optional<VaultKey> key = co_await Vault::openWithPasswordAsync(password, *m_vault);
    if (!alive)
        co_return false;
    if (!key) {
        Q_EMIT passwordRejected();
        co_return false;
    }
    co_await didUnlock(std::move(*key), purpose);
    co_return true;
}

QCoro::Task<bool> FolderLocks::resetPassword(QString recoveryKey, QString newPassword, UnlockPurpose purpose)
{
    if (!m_vault)
        co_return false;
    std::optional<VaultKey> key = Vault::openWithRecoveryKey(recoveryKey, *m_vault);
    if (!key) {
        Q_EMIT recoveryKeyRejected();
        co_return false;
    }
    const QPointer<FolderLocks> alive(this);
    const bool saved = co_await savePassword(*key, newPassword);
    if (!alive || !saved)
        co_return false;
    co_await didUnlock(std::move(*key), purpose);
    co_return true;
}

QCoro::Task<bool> FolderLocks::changePassword(QString current, QString newPassword)
{
    if (!m_vault)
        co_return false;
    const QPointer<FolderLocks> alive(this);
    const std::optional<VaultKey> key = co_await Vault::openWithPasswordAsync(current, *m_vault);
    if (!alive)
        co_return false;
    if (!key) {
        Q_EMIT passwordRejected();
        co_return false;
    }
    const bool saved = co_await savePassword(*key, newPassword);
    if (!alive || !saved)
        co_return false;
    dismissLockSheet();
    m_status.show(QStringLiteral("Password changed"));
    co_return true;
}

QCoro::Task<bool> FolderLocks::savePassword(VaultKey key, QString newPassword)
{
    const QPointer<FolderLocks> alive(this);
    try {
        const VaultRecord record = co_await Vault::changingPasswordAsync(key, newPassword, *m_vault);
        throwIfGone(alive);
        saveVault(record);
    } catch (const std::exception &error) {
        if (alive)
            m_status.showError(error);
        co_return false;
    }
    co_return true;
}

QCoro::Task<> FolderLocks::didUnlock(VaultKey key, UnlockPurpose purpose)
{
    setKey(std::move(key));
    dismissLockSheet();
    // An earlier lock change may have left images behind its rows; the key can catch up now.
    Q_EMIT rowsResealed();
    switch (purpose.kind) {
    case UnlockPurpose::Open:
        if (purpose.folderID >= 0)
            m_unlockedFolderIDs.insert(purpose.folderID);
        break;
    case UnlockPurpose::Lock: {
        const QPointer<FolderLocks> alive(this);
        co_await setFolderLocked(purpose.folderID, true);
        if (!alive)
            co_return;
        break;
    }
    case UnlockPurpose::TouchID: {
        const QPointer<FolderLocks> alive(this);
        co_await setTouchID(true);
        if (!alive)
            co_return;
        break;
    }
    }
    hideLockedAway();
}

QCoro::Task<bool> FolderLocks::setFolderLocked(qint64 folderID, bool locked)
{
    if (!m_vault || !isUnlocked() || m_sealing)
        co_return false;
    const QPointer<FolderLocks> alive(this);
    m_sealing = Sealing{.folderID = folderID,
                        .locking = locked,
                        .name = folderName(folderID),
                        .percent = std::make_shared<std::atomic<int>>(0)};
    // What is being locked leaves the window before a row is touched.
    m_tree.reload();
    m_tree.hideLockedAway();
    showSealingProgress();
    m_progressTimer->start();
    Q_EMIT workingChanged();

    bool done = true;
    try {
        auto work = [path = m_databasePath, key = *m_database.vaultKey(), folderID, locked,
                     percent = m_sealing->percent] {
            Database::setFolderLockedInFile(path, key, folderID, locked, [&percent](qint64 done, qint64 total) {
                percent->store(total > 0 ? int(done * 100 / total) : 100);
            });
            return true;
        };
        co_await onWorkerThread<bool>(std::move(work));
        throwIfGone(alive);
    } catch (const std::exception &error) {
        if (!alive)
            co_return false;
        m_status.showError(error);
        done = false;
    }
    m_progressTimer->stop();
    const QString name = m_sealing->name;
    m_sealing.reset();
    Q_EMIT workingChanged();
    if (done) {
        // The rows changed under the tree. Whoever stops work on sealed chats when the key
        // goes below judges by the tree, so it must show the new state first.
        m_tree.reload();
        Q_EMIT rowsResealed();
        if (!locked)
            m_unlockedFolderIDs.remove(folderID);
        m_status.show(locked ? QStringLiteral("“%1” locked").arg(name) : QStringLiteral("“%1” is no longer locked").arg(name));
    }
    hideLockedAway();
    co_return done;
}

void FolderLocks::showSealingProgress()
{
    if (!m_sealing)
        return;
    const QString verb = m_sealing->locking ? QStringLiteral("Locking") : QStringLiteral("Unlocking");
    m_status.show(QStringLiteral("%1 “%2”… %3%").arg(verb, m_sealing->name).arg(m_sealing->percent->load()));
}

QCoro::Task<> FolderLocks::scrubIfNeeded()
{
    bool pending = false;
    m_status.attempt([&] { pending = m_database.needsScrub(); });
    if (!pending)
        co_return;
    auto work = [path = m_databasePath] {
        Database::scrubFile(path);
        return true;
    };
    const QPointer<FolderLocks> alive(this);
    try {
        co_await onWorkerThread<bool>(std::move(work));
    } catch (const std::exception &error) {
        if (alive)
            m_status.showError(error);
    }
}

void FolderLocks::resetAfterErase()
{
    m_vault.reset();
    m_unlockedFolderIDs.clear();
    setKey(std::nullopt);
    dismissLockSheet();
    Q_EMIT vaultChanged();
}
