#include "vault/key_seal.h"

#include "vault/key_derivation.h"
#include "vault/key_provider.h"
#include "vault/p256_key.h"
#include "vault/sealed_box.h"
#include "vault/vault_error.h"
#include "vault/wiped_bytes.h"

namespace Vault {

VaultKey touchIDWrappingKey(const QByteArray &sharedSecret)
{
    return KeyDerivation::hkdfSha256(sharedSecret, "corvane touch id");
}

QCoro::Task<TouchIDSeal> touchIDSeal(VaultKey key, KeyProvider *provider)
{
    QCoro::Task<KeyProvider::Key> making = provider->createKey();
    KeyProvider::Key providerKey = co_await making;
    const std::optional<P256Key> providerPublic = P256Key::fromRawPublicKey(providerKey.publicKey);
    if (!providerPublic)
        throw VaultError::touchIDFailed();
    const P256Key ephemeral = P256Key::generate();
    std::optional<QByteArray> secret = ephemeral.sharedSecret(*providerPublic);
    if (!secret)
        throw VaultError::touchIDFailed();
    const WipedBytes shared{std::move(*secret)};
    const WipedBytes plain{QByteArray(reinterpret_cast<const char *>(key.data()), VaultKey::size)};
    co_return TouchIDSeal{
        std::move(providerKey.handle),
        ephemeral.rawPublicKey(),
        SealedBox::seal(plain.bytes, touchIDWrappingKey(shared.bytes)),
    };
}

QCoro::Task<VaultKey> openWithTouchID(TouchIDSeal seal, KeyProvider *provider)
{
    // Checked before the prompt: a damaged seal should not ask for a finger first.
    if (!P256Key::fromRawPublicKey(seal.ephemeralPublicKey))
        throw VaultError::touchIDFailed();
    QCoro::Task<QByteArray> agreement = provider->sharedSecret(
        seal.enclaveKey, seal.ephemeralPublicKey, QString::fromUtf16(touchIDReason),
        QString::fromUtf16(touchIDCancelTitle));
    // Plain locals around co_await: g++ 12 miscompiles temporaries and braced initialisers
    // inside a co_await expression.
    QByteArray secret = co_await agreement;
    const WipedBytes shared{std::move(secret)};
    std::optional<VaultKey> key;
    try {
        const WipedBytes plain{SealedBox::open(seal.sealedKey, touchIDWrappingKey(shared.bytes))};
        key = VaultKey::fromBytes(plain.bytes);
    } catch (const SealedBoxError &) {
    }
    if (!key)
        throw VaultError::touchIDFailed();
    co_return *key;
}

} // namespace Vault
