#pragma once

#include "vault/vault_key.h"

#include <QByteArray>
#include <QString>

#include <QCoro/QCoroTask>

class KeyProvider;

/// The vault key sealed to a key in a KeyProvider: only that provider, after a biometric
/// check, can agree on the secret that opens it. Kept inside the VaultRecord.
struct TouchIDSeal
{
    QByteArray enclaveKey; ///< the provider's handle of its private key, opaque here
    QByteArray ephemeralPublicKey; ///< raw one-time P-256 public key used at sealing (64 bytes)
    QByteArray sealedKey; ///< the vault key sealed under the Touch ID wrapping key (60 bytes)

    bool operator==(const TouchIDSeal &other) const = default;
};

namespace Vault {

/// Shown by the system after its own words, hence the lower-case start.
inline constexpr char16_t touchIDReason[] = u"unlock your locked folders";
inline constexpr char16_t touchIDCancelTitle[] = u"Use Password";

/// HKDF-SHA-256 of an ECDH shared secret with an empty salt and the info "corvane touch id".
VaultKey touchIDWrappingKey(const QByteArray &sharedSecret);

/// Seals `key` to a new key of `provider`, through a one-time P-256 key. Asks the user
/// nothing. Throws what the provider throws, or VaultError / SealedBoxError. `provider` must
/// outlive the task.
QCoro::Task<TouchIDSeal> touchIDSeal(VaultKey key, KeyProvider *provider);

/// Opens `seal` with `provider`, which asks the user first; `provider` must outlive the task.
/// Throws when the check fails or is cancelled, and VaultError::touchIDFailed when the seal
/// does not open (damaged, or the provider's key changed with the enrolled fingers).
QCoro::Task<VaultKey> openWithTouchID(TouchIDSeal seal, KeyProvider *provider);

} // namespace Vault
