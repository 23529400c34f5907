#pragma once

#include <QtGlobal>

/// What an unlock is for: showing a locked folder's chats, locking a further folder (which
/// needs the key), or switching on unlocking by fingerprint.
struct UnlockPurpose
{
    enum Kind { Open, Lock, TouchID };

    Kind kind = Open;
    qint64 folderID = 0; ///< the folder to open or lock; unused for TouchID

    bool operator==(const UnlockPurpose &) const = default;
};

/// The lock dialog the window is asked to show.
struct LockSheet
{
    enum Kind { SetUp, Unlock, RecoveryKey, ResetPassword, ChangePassword };

    Kind kind = Unlock;
    UnlockPurpose purpose; ///< for Unlock and ResetPassword
    qint64 folderID = 0; ///< for SetUp: the folder to lock once the vault exists

    bool operator==(const LockSheet &) const = default;
};
