#include "vault/p256_key.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/params.h>
#include <openssl/x509.h>

#include <QtGlobal>

namespace {

constexpr char curveName[] = "prime256v1";
constexpr unsigned char uncompressedPrefix = 0x04;

struct ContextFree
{
    void operator()(EVP_PKEY_CTX *context) const { EVP_PKEY_CTX_free(context); }
};
using Context = std::unique_ptr<EVP_PKEY_CTX, ContextFree>;

bool isP256(EVP_PKEY *key)
{
    char group[32] = {};
    return EVP_PKEY_is_a(key, "EC")
        && EVP_PKEY_get_utf8_string_param(key, OSSL_PKEY_PARAM_GROUP_NAME, group, sizeof group,
                                          nullptr) == 1
        && qstrcmp(group, curveName) == 0;
}

} // namespace

void P256Key::Free::operator()(EVP_PKEY *key) const
{
    EVP_PKEY_free(key);
}

P256Key::P256Key(EVP_PKEY *key)
    : m_key(key)
{
}

P256Key P256Key::generate()
{
    EVP_PKEY *key = EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", curveName);
    // Fails only without an entropy source; a key made anyway would be predictable.
    if (!key)
        qFatal("Could not generate a P-256 key");
    return P256Key(key);
}

std::optional<P256Key> P256Key::fromRawPublicKey(const QByteArray &raw)
{
    if (raw.size() != rawPublicKeySize)
        return std::nullopt;
    QByteArray encoded = char(uncompressedPrefix) + raw;
    OSSL_PARAM params[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_PKEY_PARAM_GROUP_NAME,
                                         const_cast<char *>(curveName), 0),
        OSSL_PARAM_construct_octet_string(OSSL_PKEY_PARAM_PUB_KEY, encoded.data(),
                                          size_t(encoded.size())),
        OSSL_PARAM_construct_end(),
    };
    const Context context(EVP_PKEY_CTX_new_from_name(nullptr, "EC", nullptr));
    EVP_PKEY *key = nullptr;
    if (!context || EVP_PKEY_fromdata_init(context.get()) != 1
        || EVP_PKEY_fromdata(context.get(), &key, EVP_PKEY_PUBLIC_KEY, params) != 1)
        return std::nullopt;
    P256Key result(key);
    // A point off the curve would leak bits of our private key through the shared secret.
    const Context check(EVP_PKEY_CTX_new_from_pkey(nullptr, key, nullptr));
    if (!check || EVP_PKEY_public_check(check.get()) != 1)
        return std::nullopt;
    return result;
}

std::optional<P256Key> P256Key::fromPrivateKeyDer(const QByteArray &der)
{
    const auto *cursor = reinterpret_cast<const unsigned char *>(der.constData());
    EVP_PKEY *key = d2i_AutoPrivateKey(nullptr, &cursor, long(der.size()));
    if (!key)
        return std::nullopt;
    P256Key result(key);
    if (!isP256(key))
        return std::nullopt;
    return result;
}

QByteArray P256Key::rawPublicKey() const
{
    QByteArray encoded(rawPublicKeySize + 1, Qt::Uninitialized);
    size_t length = 0;
    if (EVP_PKEY_get_octet_string_param(m_key.get(), OSSL_PKEY_PARAM_ENCODED_PUBLIC_KEY,
                                        reinterpret_cast<unsigned char *>(encoded.data()),
                                        size_t(encoded.size()), &length) != 1
        || length != size_t(encoded.size()) || encoded.at(0) != char(uncompressedPrefix))
        qFatal("A P-256 key has no uncompressed public key");
    return encoded.mid(1);
}

QByteArray P256Key::privateKeyDer() const
{
    unsigned char *der = nullptr;
    const int length = i2d_PrivateKey(m_key.get(), &der);
    if (length <= 0)
        return {};
    QByteArray result(reinterpret_cast<const char *>(der), length);
    OPENSSL_clear_free(der, size_t(length));
    return result;
}

std::optional<QByteArray> P256Key::sharedSecret(const P256Key &peer) const
{
    const Context context(EVP_PKEY_CTX_new_from_pkey(nullptr, m_key.get(), nullptr));
    size_t length = 0;
    if (!context || EVP_PKEY_derive_init(context.get()) != 1
        || EVP_PKEY_derive_set_peer(context.get(), peer.m_key.get()) != 1
        || EVP_PKEY_derive(context.get(), nullptr, &length) != 1)
        return std::nullopt;
    QByteArray secret(qsizetype(length), Qt::Uninitialized);
    if (EVP_PKEY_derive(context.get(), reinterpret_cast<unsigned char *>(secret.data()), &length)
        != 1) {
        OPENSSL_cleanse(secret.data(), size_t(secret.size()));
        return std::nullopt;
    }
    secret.truncate(qsizetype(length));
    return secret;
}
