#pragma once

#include "app/lock_sheet.h"
#include "vault/vault.h"
#include "vault/vault_record.h"

#include <QObject>
#include <QSet>
#include <QString>

#include <QCoro/QCoroTask>

#include <atomic>
#include <memory>
#include <optional>

class ChatTree;
class Database;
class KeyProvider;
class QTimer;
class StatusBanner;

/// Locked folders: the vault record, which locked folders are open in this run, the lock
/// dialog the window is asked to show, and the flows behind those dialogs: setting up the
/// vault, locking, opening, changing and resetting the password, removing a lock, and closing
/// everything again. The vault key is held by the database, and only while a locked folder is
/// open or a lock change is under way.
///
/// Locking re-encrypts every row below the folder on a worker thread with a connection of its
/// own, in one transaction, while the folder is already hidden; the window takes no edits
/// meanwhile (`isSealing`).
///
/// "Unlock with this computer" seals the vault key once more, to a key of the KeyProvider (the
/// computer's TPM after polkit's check); it is offered only while the provider says it can work.
class FolderLocks : public QObject
{
    Q_OBJECT
    Q_PROPERTY(bool hasVault READ hasVault NOTIFY vaultChanged)
    Q_PROPERTY(bool isUnlocked READ isUnlocked NOTIFY keyChanged)
    Q_PROPERTY(bool isWorking READ isWorking NOTIFY workingChanged)
    Q_PROPERTY(bool isSealing READ isSealing NOTIFY workingChanged)
    Q_PROPERTY(int sheet READ sheetKind NOTIFY lockSheetChanged)
    Q_PROPERTY(int sheetPurpose READ sheetPurpose NOTIFY lockSheetChanged)
    Q_PROPERTY(qint64 sheetFolderID READ sheetFolderID NOTIFY lockSheetChanged)
    Q_PROPERTY(QString recoveryKey READ recoveryKey NOTIFY lockSheetChanged)
    Q_PROPERTY(int lockedFolderCount READ lockedFolderCount NOTIFY lockedFoldersChanged)
    Q_PROPERTY(bool canUnlockWithComputer READ canUnlockWithComputer NOTIFY computerUnlockChanged)
    Q_PROPERTY(bool unlocksWithComputer READ unlocksWithComputer NOTIFY vaultChanged)
    Q_PROPERTY(int minimumPasswordLength MEMBER minimumPasswordLength CONSTANT)
    Q_PROPERTY(int autoLockMinutes MEMBER autoLockMinutes CONSTANT)

public:
    static constexpr int minimumPasswordLength = 6;
    static constexpr int autoLockMinutes = 10;
    /// `sheet` when no dialog is asked for.
    static constexpr int noSheet = -1;

    /// Reads the stored vault record. One that does not decode leaves no vault, silently, as
    /// if no folder had ever been locked.
    /// `keyProvider` may be null: no unlocking with this computer then. Whether it can work
    /// here is asked at once, in the background (`computerUnlockChanged`).
    FolderLocks(Database &database, QString databasePath, ChatTree &tree, StatusBanner &status,
                std::unique_ptr<KeyProvider> keyProvider, QObject *parent = nullptr);
    ~FolderLocks() override;

    const std::optional<VaultRecord> &vault() const { return m_vault; }
    bool hasVault() const { return m_vault.has_value(); }
    bool isUnlocked() const;
    /// Whether the locked folder `id` was opened in this run.
    bool isOpen(qint64 id) const { return m_unlockedFolderIDs.contains(id); }
    /// The folder whose lock is changing now; its contents are hidden meanwhile.
    std::optional<qint64> sealingFolderID() const;
    bool isWorking() const { return m_working > 0; }
    bool isSealing() const { return m_sealing.has_value(); }
    /// The folders the user locked, open or not.
    int lockedFolderCount() const;
    /// This computer can keep a seal of the vault key (a TPM, and polkit to ask the user).
    bool canUnlockWithComputer() const { return m_canUnlockWithComputer; }
    /// The vault key is also sealed to this computer.
    bool unlocksWithComputer() const { return m_vault && m_vault->touchID; }

    const std::optional<LockSheet> &lockSheet() const { return m_lockSheet; }
    int sheetKind() const { return m_lockSheet ? int(m_lockSheet->kind) : noSheet; }
    int sheetPurpose() const { return m_lockSheet ? int(m_lockSheet->purpose.kind) : 0; }
    qint64 sheetFolderID() const;
    const QString &recoveryKey() const { return m_recoveryKey; }

    // ---- what the window asks for
    /// Locks a plain folder: sets up the vault first, or asks for the password when the key
    /// is not held.
    Q_INVOKABLE void lockFolder(qint64 folderID);
    /// Asks for the password of the locked folder `folderID`, to open it.
    Q_INVOKABLE void requestUnlock(qint64 folderID);
    Q_INVOKABLE void requestPasswordChange();
    /// The reset dialog, for the purpose of the unlock dialog it replaces (else to open nothing).
    Q_INVOKABLE void requestPasswordReset();
    Q_INVOKABLE void dismissLockSheet();
    /// The set-up dialog's "Lock folder": makes the vault and locks the folder it was for,
    /// sealing the key to this computer as well when `withComputer`.
    Q_INVOKABLE void submitSetUp(const QString &password, bool withComputer = false);
    /// The unlock dialog's confirming button, for the dialog's purpose.
    Q_INVOKABLE void submitUnlock(const QString &password);
    /// The unlock dialog's "Unlock with this computer", for the dialog's purpose.
    Q_INVOKABLE void submitUnlockWithComputer();
    /// The settings toggle: turning it on needs the key, so without it the password is asked
    /// for first; turning it off only drops the seal.
    Q_INVOKABLE void setUnlockWithComputer(bool on);
    Q_INVOKABLE void submitReset(const QString &recoveryKey, const QString &newPassword);
    Q_INVOKABLE void submitPasswordChange(const QString &current, const QString &newPassword);
    /// Closes an open locked folder again.
    Q_INVOKABLE void closeFolder(qint64 folderID);
    /// Closes every open locked folder and forgets the key.
    Q_INVOKABLE void lockAll();
    /// Makes a locked folder plain again; it must be open.
    Q_INVOKABLE void removeLock(qint64 folderID);

    // ---- the flows, awaitable
    /// Makes the vault with `password`, holds its key and locks `folderID`; answers the
    /// recovery key text to show once, nothing on an error (then nothing is stored). With
    /// `touchID` the key is sealed to this computer too, and a failure there fails it all.
    QCoro::Task<std::optional<QString>> createVault(QString password, qint64 folderID, bool touchID = false);
    /// Opens the vault with `password` for `purpose`; false for a wrong password.
    QCoro::Task<bool> unlock(QString password, UnlockPurpose purpose);
    /// Opens the vault with a typed recovery key, gives it `newPassword` and goes on as an
    /// unlock for `purpose`; false when the key does not open the vault.
    QCoro::Task<bool> resetPassword(QString recoveryKey, QString newPassword, UnlockPurpose purpose);
    /// False for a wrong current password.
    QCoro::Task<bool> changePassword(QString current, QString newPassword);
    /// Opens the vault through this computer's seal for `purpose`. False when the user
    /// declined the check (silently) or the seal did not open (said in the banner).
    QCoro::Task<bool> unlockWithTouchID(UnlockPurpose purpose);
    /// Seals the held key to this computer (replacing an earlier seal), or drops the seal.
    QCoro::Task<bool> setTouchID(bool enabled);
    /// Seals (`locked`) or reveals a folder and everything below it. Needs a vault and the key.
    QCoro::Task<bool> setFolderLocked(qint64 folderID, bool locked);

    /// Forgets the key when nothing is open, and drops the selection of what is locked away.
    void hideLockedAway();
    /// Finishes the scrub of a lock change that quitting cut short.
    QCoro::Task<> scrubIfNeeded();

    /// Forgets the vault and every open folder after erasing all data.
    void resetAfterErase();

Q_SIGNALS:
    void lockSheetChanged();
    void vaultChanged();
    void keyChanged();
    void workingChanged();
    /// The tree was reloaded: folders may have been locked, unlocked or deleted.
    void lockedFoldersChanged();
    void passwordRejected();
    void recoveryKeyRejected();
    /// The key is about to be forgotten: work on sealed chats must stop.
    void keyForgotten();
    /// Rows were sealed or revealed, or a folder was opened, and the key is still held: what
    /// is stored beside the rows (images) is brought in line now.
    void rowsResealed();
    void computerUnlockChanged();

private:
    void showSheet(LockSheet sheet, QString recoveryKey = {});
    void saveVault(const VaultRecord &record);
    void setKey(std::optional<VaultKey> key);
    QCoro::Task<> didUnlock(VaultKey key, UnlockPurpose purpose);
    /// Wraps `key` for `newPassword` and stores the record; an error goes to the banner.
    QCoro::Task<bool> savePassword(VaultKey key, QString newPassword);
    void forgetKeyIfAllLocked();
    QString folderName(qint64 id) const;
    /// Runs a flow started from the window, counted in `isWorking`.
    void run(QCoro::Task<> task);
    void setWorking(int delta);
    void showSealingProgress();
    QCoro::Task<> probeKeyProvider();

    Database &m_database;
    QString m_databasePath;
    ChatTree &m_tree;
    StatusBanner &m_status;
    std::optional<VaultRecord> m_vault;
    QSet<qint64> m_unlockedFolderIDs;
    std::optional<LockSheet> m_lockSheet;
    QString m_recoveryKey;
    int m_working = 0;
    struct Sealing
    {
        qint64 folderID;
        bool locking;
        QString name;
        std::shared_ptr<std::atomic<int>> percent;
    };
    std::optional<Sealing> m_sealing;
    QTimer *m_progressTimer;
    std::unique_ptr<KeyProvider> m_keyProvider;
    bool m_canUnlockWithComputer = false;
};
