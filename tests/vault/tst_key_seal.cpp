// The key seal: sealing the vault key to a provider's key and opening it again.
#include "support/await_task.h"
#include "vault/key_provider.h"
#include "vault/key_seal.h"
#include "vault/p256_key.h"
#include "vault/vault.h"
#include "vault/vault_error.h"

#include <QTest>

namespace {

/// Keys in ordinary memory, the handle being the private key's DER itself: it protects
/// nothing, and the application never uses it. It can act out a cancelled check.
class SoftwareKeyProvider : public KeyProvider
{
public:
    bool cancels = false;

    QCoro::Task<bool> isAvailable() override { co_return true; }

    QCoro::Task<Key> createKey() override
    {
        const P256Key key = P256Key::generate();
        co_return Key{key.privateKeyDer(), key.rawPublicKey()};
    }

    QCoro::Task<QByteArray> sharedSecret(QByteArray handle, QByteArray peerPublicKey, QString, QString) override
    {
        if (cancels)
            throw PresenceDeclined();
        const std::optional<P256Key> own = P256Key::fromPrivateKeyDer(handle);
        const std::optional<P256Key> peer = P256Key::fromRawPublicKey(peerPublicKey);
        const std::optional<QByteArray> secret = own && peer ? own->sharedSecret(*peer) : std::nullopt;
        if (!secret)
            throw CorvaneError(QStringLiteral("Key agreement failed"));
        co_return *secret;
    }
};

std::optional<VaultKey> openSeal(const TouchIDSeal &seal, KeyProvider &provider)
{
    return awaitTask(Vault::openWithTouchID(seal, &provider));
}

} // namespace

class TestKeySeal : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void opensSealMadeIndependently()
    {
        // Made with Python's cryptography package: P-256 ECDH of a fixed ephemeral key with a
        // fixed provider key, HKDF-SHA-256, AES-256-GCM under the nonce 00 01 … 0b.
        const TouchIDSeal seal{
            QByteArray::fromHex(
                "308187020100301306072a8648ce3d020106082a8648ce3d030107046d306b0201010420123456"
                "7890abcdef1234567890abcdef1234567890abcdef1234567890abcdefa14403420004471c3e75"
                "8c4904285bba7e53118ed0f524adeb0757d25bd2f8e7b0d76dfa714cdd520f7aca8a8b917acc37"
                "f51de8f0c9bbe3ad858382e702dc25a12d09f7a858"),
            QByteArray::fromHex("5f697b6fa1e70a2ebba3788c38c5256b1602e2197c55b6a44601b3fc66a57ea9"
                                "65a92f96a8651d1f59cc5a7db253b64ef5b36bbeaa9015008c43e88bc4b94dec"),
            QByteArray::fromHex("000102030405060708090a0b6550eb3e61336506b8523a66dbdc6f6c99475a2b"
                                "6f9a179b259ade20d8bafa716807fc115a7e8f2abf74abec275d762c"),
        };
        SoftwareKeyProvider provider;
        QCOMPARE(openSeal(seal, provider),
                 VaultKey::fromBytes(QByteArray::fromHex(
                     "404142434445464748494a4b4c4d4e4f505152535455565758595a5b5c5d5e5f")));
    }

    void sealOpensToItsKey()
    {
        SoftwareKeyProvider provider;
        const VaultKey key = VaultKey::random();
        const TouchIDSeal first = awaitTask(Vault::touchIDSeal(key, &provider));
        const TouchIDSeal second = awaitTask(Vault::touchIDSeal(key, &provider));
        QVERIFY(first.ephemeralPublicKey != second.ephemeralPublicKey);
        QVERIFY(first.sealedKey != second.sealedKey);
        QCOMPARE(openSeal(first, provider), std::optional(key));
        QCOMPARE(openSeal(second, provider), std::optional(key));
    }

    void failuresThrow_data()
    {
        QTest::addColumn<QString>("failure");
        QTest::addColumn<bool>("isVaultError"); // else the provider's own error
        QTest::newRow("check cancelled") << "cancel" << false;
        QTest::newRow("sealed key changed") << "sealedKey" << true;
        QTest::newRow("ephemeral key off the curve") << "ephemeral" << true;
        QTest::newRow("ephemeral key cut short") << "short" << true;
        QTest::newRow("sealed to another key") << "other" << true;
    }

    void failuresThrow()
    {
        QFETCH(QString, failure);
        QFETCH(bool, isVaultError);
        SoftwareKeyProvider provider;
        TouchIDSeal seal = awaitTask(Vault::touchIDSeal(VaultKey::random(), &provider));
        provider.cancels = failure == "cancel";
        if (failure == "sealedKey")
            seal.sealedKey[40] = char(seal.sealedKey.at(40) ^ 1);
        else if (failure == "ephemeral")
            seal.ephemeralPublicKey[63] = char(seal.ephemeralPublicKey.at(63) ^ 1);
        else if (failure == "short")
            seal.ephemeralPublicKey.chop(1);
        else if (failure == "other")
            seal.sealedKey = awaitTask(Vault::touchIDSeal(VaultKey::random(), &provider)).sealedKey;

        try {
            openSeal(seal, provider);
            QFAIL("a broken seal opened");
        } catch (const VaultError &error) {
            QVERIFY(isVaultError);
            QCOMPARE(error.kind(), VaultError::Case::TouchIDFailed);
        } catch (const CorvaneError &) {
            QVERIFY(!isVaultError);
        }
    }
};

QTEST_GUILESS_MAIN(TestKeySeal)
#include "tst_key_seal.moc"
