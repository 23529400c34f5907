#pragma once

#include "vault/recovery_key.h"
#include "vault/vault_key.h"
#include "vault/vault_record.h"

#include <QString>

#include <QCoro/QCoroTask>

#include <cstdint>
#include <optional>

/// Stateless operations on the vault key: making a vault, opening it by password or recovery
/// key, and rewrapping it for a new password. The Touch ID seal is in key_seal.h.
///
/// A wrong password or recovery key is not an error: the opening operations return no key.
/// Nothing here logs, and no error text carries a key or a password.
namespace Vault {

inline constexpr int saltSize = 16;
/// Written into every new record. Opening uses the record's own count.
inline constexpr std::uint32_t passwordRounds = 600'000;
/// A wrapped vault key: nonce, ciphertext and tag (12 + 32 + 16).
inline constexpr int wrappedKeySize = 60;

/// A new vault: the record to save, the key, and the recovery key to show once.
struct NewVault
{
    VaultRecord record;
    VaultKey key;
    QString recovery;
};

/// Makes a new vault key wrapped under `password` and a new recovery key. `rounds` is
/// lowered only by tests. Throws SealedBoxError when sealing fails. Blocks for the derivation.
NewVault create(const QString &password, std::uint32_t rounds = passwordRounds);

/// The vault key, or absent when `password` is wrong or the record damaged. Stops the
/// program when `record.rounds` lies outside 0 to 4294967295. Blocks for the derivation.
std::optional<VaultKey> openWithPassword(const QString &password, const VaultRecord &record);

/// The vault key from a typed recovery key (any case, dashes and spaces anywhere), or absent
/// when it does not parse or does not open `record.byRecoveryKey`.
std::optional<VaultKey> openWithRecoveryKey(const QString &recoveryKey, const VaultRecord &record);

/// `record` with a fresh salt and `key` wrapped under `newPassword`; the recovery wrapping
/// and the Touch ID seal are kept as they are. Throws SealedBoxError. Blocks.
VaultRecord changingPassword(const VaultKey &key, const QString &newPassword,
                             const VaultRecord &record, std::uint32_t rounds = passwordRounds);

/// PBKDF2-HMAC-SHA-256 of the password's UTF-8 bytes (taken as typed, no normalisation),
/// absent when the derivation refuses the input (zero rounds).
std::optional<VaultKey> passwordKey(const QString &password, const QByteArray &salt,
                                    std::uint32_t rounds);

/// HKDF-SHA-256 of the 20 recovery bytes, empty salt, info "corvane recovery key".
VaultKey recoveryWrappingKey(const QByteArray &recoverySecret);

/// create() on a worker thread; the caller's thread keeps running while it derives.
QCoro::Task<NewVault> createAsync(QString password, std::uint32_t rounds = passwordRounds);
/// openWithPassword() on a worker thread.
QCoro::Task<std::optional<VaultKey>> openWithPasswordAsync(QString password, VaultRecord record);
/// changingPassword() on a worker thread.
QCoro::Task<VaultRecord> changingPasswordAsync(VaultKey key, QString newPassword,
                                               VaultRecord record,
                                               std::uint32_t rounds = passwordRounds);

} // namespace Vault
