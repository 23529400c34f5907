#include "vault/key_derivation.h"

#include "vault/sealed_box.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/kdf.h>
#include <openssl/params.h>

#include <array>
#include <memory>

namespace {

struct KdfFree
{
    void operator()(EVP_KDF *kdf) const { EVP_KDF_free(kdf); }
    void operator()(EVP_KDF_CTX *context) const { EVP_KDF_CTX_free(context); }
};

// Runs the named KDF into a 32-byte buffer that is wiped once it has become a VaultKey.
std::optional<VaultKey> derive(const char *name, const OSSL_PARAM *params)
{
    const std::unique_ptr<EVP_KDF, KdfFree> kdf(EVP_KDF_fetch(nullptr, name, nullptr));
    const std::unique_ptr<EVP_KDF_CTX, KdfFree> context(kdf ? EVP_KDF_CTX_new(kdf.get()) : nullptr);
    QByteArray out(VaultKey::size, Qt::Uninitialized);
    std::optional<VaultKey> key;
    if (context
        && EVP_KDF_derive(context.get(), reinterpret_cast<unsigned char *>(out.data()),
                          size_t(out.size()), params) == 1)
        key = VaultKey::fromBytes(out);
    OPENSSL_cleanse(out.data(), size_t(out.size()));
    return key;
}

// OSSL_PARAM wants non-const pointers; OpenSSL only reads these buffers.
void *readOnly(QByteArrayView bytes)
{
    // An empty view may have a null pointer, which OpenSSL takes for "not given".
    static char empty = 0;
    return bytes.isEmpty() ? &empty : const_cast<char *>(bytes.data());
}

char sha256[] = "SHA256";

} // namespace

namespace KeyDerivation {

std::optional<VaultKey> pbkdf2Sha256(QByteArrayView password, QByteArrayView salt,
                                     std::uint32_t rounds)
{
    std::uint64_t iterations = rounds;
    // Plain PKCS #5 rules: the counts and lengths that SP 800-132 would refuse are the
    // stored record's business, not ours.
    int pkcs5 = 1;
    const std::array params{
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_PASSWORD, readOnly(password),
                                          size_t(password.size())),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_SALT, readOnly(salt), size_t(salt.size())),
        OSSL_PARAM_construct_uint64(OSSL_KDF_PARAM_ITER, &iterations),
        OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, sha256, 0),
        OSSL_PARAM_construct_int(OSSL_KDF_PARAM_PKCS5, &pkcs5),
        OSSL_PARAM_construct_end(),
    };
    return derive("PBKDF2", params.data());
}

VaultKey hkdfSha256(QByteArrayView inputKeyMaterial, QByteArrayView info)
{
    // No salt parameter: RFC 5869 reads an absent salt as HashLen zero bytes, which is
    // exactly what HMAC makes of an empty one.
    const std::array params{
        OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, sha256, 0),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_KEY, readOnly(inputKeyMaterial),
                                          size_t(inputKeyMaterial.size())),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_INFO, readOnly(info), size_t(info.size())),
        OSSL_PARAM_construct_end(),
    };
    std::optional<VaultKey> key = derive("HKDF", params.data());
    if (!key)
        throw SealedBoxError(SealedBoxError::Case::CipherFailed);
    return *key;
}

} // namespace KeyDerivation
