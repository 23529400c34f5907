#pragma once

#include "platform/error.h"

#include <QByteArray>
#include <QString>

#include <QCoro/QCoroTask>

/// A store of P-256 key-agreement keys whose private half never leaves it and may be used
/// only after the user proves they are there (here: the computer's TPM, after polkit has asked
/// for a fingerprint or the login password). The vault seals its key to such a key; the store
/// itself knows nothing of vaults.
class KeyProvider
{
public:
    /// A key made by the store: an opaque handle that only this store can use, and the raw
    /// public key (X and Y, 32 bytes each).
    struct Key
    {
        QByteArray handle;
        QByteArray publicKey;
    };

    virtual ~KeyProvider() = default;

    /// Whether keys can be made and used here now. Never throws; may take a moment (a device
    /// or a system service is asked), so it is awaited.
    virtual QCoro::Task<bool> isAvailable() = 0;

    /// Makes a new key without asking the user. Throws a CorvaneError when the store cannot.
    virtual QCoro::Task<Key> createKey() = 0;

    /// Asks the user with `reason` (a cancel button reading `cancelTitle`), then returns the
    /// 32-byte ECDH shared secret of the key behind `handle` with `peerPublicKey` (raw, 64
    /// bytes). Throws PresenceDeclined when the user refused or dismissed the check, and another
    /// CorvaneError when the check could not be made or the key is no longer usable.
    virtual QCoro::Task<QByteArray> sharedSecret(QByteArray handle, QByteArray peerPublicKey,
                                                 QString reason, QString cancelTitle) = 0;
};

/// The user refused or dismissed the check of a KeyProvider. Not a failure to report: whoever
/// asked simply stays locked, and the password is still there.
class PresenceDeclined : public CorvaneError
{
public:
    PresenceDeclined()
        : CorvaneError(QStringLiteral("Unlocking was cancelled"))
    {
    }
};
