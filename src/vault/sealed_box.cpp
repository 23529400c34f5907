#include "vault/sealed_box.h"

#include "vault/vault_key.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <memory>

namespace {

struct ContextFree
{
    void operator()(EVP_CIPHER_CTX *context) const { EVP_CIPHER_CTX_free(context); }
};
using Context = std::unique_ptr<EVP_CIPHER_CTX, ContextFree>;

Context newContext()
{
    Context context(EVP_CIPHER_CTX_new());
    if (!context)
        throw SealedBoxError(SealedBoxError::Case::CipherFailed);
    return context;
}

void check(int result)
{
    if (result != 1)
        throw SealedBoxError(SealedBoxError::Case::CipherFailed);
}

unsigned char *bytes(QByteArray &array)
{
    return reinterpret_cast<unsigned char *>(array.data());
}

const unsigned char *bytes(const QByteArray &array)
{
    return reinterpret_cast<const unsigned char *>(array.constData());
}

struct WipeUnlessKept
{
    QByteArray &buffer;
    bool keep = false;
    ~WipeUnlessKept()
    {
        if (!keep)
            OPENSSL_cleanse(buffer.data(), buffer.size());
    }
};

QString describe(SealedBoxError::Case which)
{
    switch (which) {
    case SealedBoxError::Case::Malformed:
        return QStringLiteral("Locked data is damaged and cannot be read");
    case SealedBoxError::Case::AuthenticationFailed:
        return QStringLiteral("Locked data could not be verified: it is damaged or was locked with another key");
    case SealedBoxError::Case::CipherFailed:
        return QStringLiteral("Encryption failed");
    }
    return {};
}

} // namespace

SealedBoxError::SealedBoxError(Case which)
    : CorvaneError(describe(which))
    , m_case(which)
{
}

namespace SealedBox {

QByteArray seal(const QByteArray &plaintext, const VaultKey &key)
{
    QByteArray box(nonceSize + plaintext.size() + tagSize, Qt::Uninitialized);
    unsigned char *nonce = bytes(box);
    unsigned char *ciphertext = nonce + nonceSize;
    if (RAND_bytes(nonce, nonceSize) != 1)
        throw SealedBoxError(SealedBoxError::Case::CipherFailed);

    const Context context = newContext();
    check(EVP_EncryptInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, nullptr, nullptr));
    check(EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_SET_IVLEN, nonceSize, nullptr));
    check(EVP_EncryptInit_ex(context.get(), nullptr, nullptr, key.data(), nonce));
    int written = 0;
    check(EVP_EncryptUpdate(context.get(), ciphertext, &written, bytes(plaintext),
                            static_cast<int>(plaintext.size())));
    int finalWritten = 0;
    check(EVP_EncryptFinal_ex(context.get(), ciphertext + written, &finalWritten));
    if (written + finalWritten != plaintext.size())
        throw SealedBoxError(SealedBoxError::Case::CipherFailed);
    check(EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_GET_TAG, tagSize,
                              ciphertext + plaintext.size()));
    return box;
}

QByteArray open(const QByteArray &box, const VaultKey &key)
{
    if (box.size() < nonceSize + tagSize)
        throw SealedBoxError(SealedBoxError::Case::Malformed);
    const int length = static_cast<int>(box.size()) - nonceSize - tagSize;
    const unsigned char *nonce = bytes(box);
    const unsigned char *ciphertext = nonce + nonceSize;
    // OpenSSL wants a writable tag buffer.
    QByteArray tag = box.right(tagSize);

    const Context context = newContext();
    check(EVP_DecryptInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, nullptr, nullptr));
    check(EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_SET_IVLEN, nonceSize, nullptr));
    check(EVP_DecryptInit_ex(context.get(), nullptr, nullptr, key.data(), nonce));
    QByteArray plaintext(length, Qt::Uninitialized);
    // Decrypted bytes of a box that fails authentication must not linger in memory.
    WipeUnlessKept wipe{plaintext};
    int written = 0;
    check(EVP_DecryptUpdate(context.get(), bytes(plaintext), &written, ciphertext, length));
    check(EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_SET_TAG, tagSize, tag.data()));
    int finalWritten = 0;
    if (EVP_DecryptFinal_ex(context.get(), bytes(plaintext) + written, &finalWritten) != 1)
        throw SealedBoxError(SealedBoxError::Case::AuthenticationFailed);
    wipe.keep = true;
    return plaintext;
}

} // namespace SealedBox
