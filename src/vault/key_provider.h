#pragma once

#include <QByteArray>
#include <QString>

#include <QCoro/QCoroTask>

/// A store of P-256 key-agreement keys whose private half never leaves it and may be used
/// only after the user passes a biometric check (the Secure Enclave with Touch ID on a Mac).
/// The vault seals its key to such a key; the store itself knows nothing of vaults.
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

    /// Makes a new key without asking the user. Throws a CorvaneError when the store cannot.
    virtual Key createKey() = 0;

    /// Asks the user with `reason` (a cancel button reading `cancelTitle`), then returns the
    /// 32-byte ECDH shared secret of the key behind `handle` with `peerPublicKey` (raw, 64
    /// bytes). Throws a CorvaneError when the check fails or is cancelled, or the key is no
    /// longer usable.
    virtual QCoro::Task<QByteArray> sharedSecret(QByteArray handle, QByteArray peerPublicKey,
                                                 QString reason, QString cancelTitle) = 0;
};
