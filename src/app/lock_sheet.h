#pragma once

#include <QObject>

/// What an unlock is for: showing a locked folder's chats, locking a further folder (which
/// needs the key), or switching on unlocking by fingerprint.
struct UnlockPurpose
{
    Q_GADGET

public:
    enum Kind { Open, Lock, TouchID };
    Q_ENUM(Kind)

    Kind kind = Open;
    qint64 folderID = 0; ///< the folder to open or lock; unused for TouchID

    bool operator==(const UnlockPurpose &) const = default;
};

/// The lock dialog the window is asked to show.
struct LockSheet
{
    Q_GADGET

public:
    enum Kind { SetUp, Unlock, RecoveryKey, ResetPassword, ChangePassword };
    Q_ENUM(Kind)

    Kind kind = Unlock;
    UnlockPurpose purpose; ///< for Unlock and ResetPassword
    qint64 folderID = 0; ///< for SetUp: the folder to lock once the vault exists

    bool operator==(const LockSheet &) const = default;
};
