#include "vault/vault.h"

#include "vault/key_derivation.h"
#include "vault/sealed_box.h"
#include "vault/wiped_bytes.h"

#include "platform/worker_thread.h"

#include <openssl/rand.h>

#include <limits>

namespace {

QByteArray randomBytes(int count)
{
    QByteArray bytes(count, Qt::Uninitialized);
    // Without an entropy source every salt and recovery key would be predictable.
    if (RAND_bytes(reinterpret_cast<unsigned char *>(bytes.data()), count) != 1)
        qFatal("The system's random generator failed");
    return bytes;
}

QByteArray wrap(const VaultKey &key, const VaultKey &wrappingKey)
{
    const WipedBytes plain{QByteArray(reinterpret_cast<const char *>(key.data()), VaultKey::size)};
    return SealedBox::seal(plain.bytes, wrappingKey);
}

std::optional<VaultKey> unwrap(const QByteArray &wrapped, const VaultKey &wrappingKey)
{
    try {
        const WipedBytes plain{SealedBox::open(wrapped, wrappingKey)};
        return VaultKey::fromBytes(plain.bytes);
    } catch (const SealedBoxError &) {
        return std::nullopt;
    }
}

} // namespace

namespace Vault {

std::optional<VaultKey> passwordKey(const QString &password, const QByteArray &salt,
                                    std::uint32_t rounds)
{
    const WipedBytes utf8{password.toUtf8()};
    return KeyDerivation::pbkdf2Sha256(utf8.bytes, salt, rounds);
}

VaultKey recoveryWrappingKey(const QByteArray &recoverySecret)
{
    return KeyDerivation::hkdfSha256(recoverySecret, "corvane recovery key");
}

/// Wraps `key` for `password` under a fresh salt, into `record`.
static void wrapForPassword(VaultRecord &record, const VaultKey &key, const QString &password, std::uint32_t rounds)
{
    record.salt = randomBytes(saltSize);
    record.rounds = rounds;
    const std::optional<VaultKey> byPassword = passwordKey(password, record.salt, rounds);
    if (!byPassword)
        throw SealedBoxError(SealedBoxError::Case::CipherFailed);
    record.byPassword = wrap(key, *byPassword);
}

NewVault create(const QString &password, std::uint32_t rounds)
{
    VaultKey key = VaultKey::random();
    const WipedBytes recoverySecret{randomBytes(recoverySecretSize)};
    VaultRecord record;
    wrapForPassword(record, key, password, rounds);
    record.byRecoveryKey = wrap(key, recoveryWrappingKey(recoverySecret.bytes));
    return NewVault{std::move(record), std::move(key), formatRecoveryKey(recoverySecret.bytes)};
}

std::optional<VaultKey> openWithPassword(const QString &password, const VaultRecord &record)
{
    // Only a tampered or corrupted record holds such a count; it is a fault, not a wrong
    // password, and carrying on would derive with a count nobody wrote.
    if (record.rounds < 0 || record.rounds > std::numeric_limits<std::uint32_t>::max())
        qFatal("The vault record has an impossible round count");
    const std::optional<VaultKey> key = passwordKey(password, record.salt, std::uint32_t(record.rounds));
    if (!key)
        return std::nullopt;
    return unwrap(record.byPassword, *key);
}

std::optional<VaultKey> openWithRecoveryKey(const QString &recoveryKey, const VaultRecord &record)
{
    std::optional<QByteArray> parsed = parseRecoveryKey(recoveryKey);
    if (!parsed)
        return std::nullopt;
    const WipedBytes secret{std::move(*parsed)};
    return unwrap(record.byRecoveryKey, recoveryWrappingKey(secret.bytes));
}

VaultRecord changingPassword(const VaultKey &key, const QString &newPassword,
                             const VaultRecord &record, std::uint32_t rounds)
{
    VaultRecord changed = record;
    wrapForPassword(changed, key, newPassword, rounds);
    return changed;
}

QCoro::Task<NewVault> createAsync(QString password, std::uint32_t rounds)
{
    auto work = [password = std::move(password), rounds] { return create(password, rounds); };
    co_return co_await onWorkerThread<NewVault>(std::move(work));
}

QCoro::Task<std::optional<VaultKey>> openWithPasswordAsync(QString password, VaultRecord record)
{
    auto work = [password = std::move(password), record = std::move(record)] {
        return openWithPassword(password, record);
    };
    co_return co_await onWorkerThread<std::optional<VaultKey>>(std::move(work));
}

QCoro::Task<VaultRecord> changingPasswordAsync(VaultKey key, QString newPassword,
                                               VaultRecord record, std::uint32_t rounds)
{
    auto work = [key, newPassword = std::move(newPassword), record = std::move(record), rounds] {
        return changingPassword(key, newPassword, record, rounds);
    };
    co_return co_await onWorkerThread<VaultRecord>(std::move(work));
}

} // namespace Vault
