#pragma once

#include <QByteArray>

#include <memory>
#include <optional>

typedef struct evp_pkey_st EVP_PKEY;

/// A P-256 key for ECDH key agreement, held by OpenSSL: a private key made here, or a peer's
/// public key read from its raw form.
class P256Key
{
public:
    /// Bytes of the raw public key: X and Y, 32 each, without the SEC 1 prefix byte.
    static constexpr int rawPublicKeySize = 64;

    /// A fresh private key from the system's random generator.
    static P256Key generate();
    /// The public key in `raw`, or absent when it is not a point on the curve.
    static std::optional<P256Key> fromRawPublicKey(const QByteArray &raw);
    /// A private key from its DER encoding (SEC 1 or PKCS #8), or absent.
    static std::optional<P256Key> fromPrivateKeyDer(const QByteArray &der);

    QByteArray rawPublicKey() const;
    /// The private key as SEC 1 DER. Secret: the caller wipes it.
    QByteArray privateKeyDer() const;

    /// The ECDH shared secret (the 32-byte X coordinate) of this private key with `peer`'s
    /// public key, or absent when OpenSSL refuses them.
    std::optional<QByteArray> sharedSecret(const P256Key &peer) const;

private:
    struct Free
    {
        void operator()(EVP_PKEY *key) const;
    };

    explicit P256Key(EVP_PKEY *key);

    std::unique_ptr<EVP_PKEY, Free> m_key;
};
