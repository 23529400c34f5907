#pragma once

#include "platform/error.h"

#include <QByteArray>

class VaultKey;

/// A sealed box could not be made or opened.
class SealedBoxError : public CorvaneError
{
public:
    enum class Case {
        Malformed, ///< too short to hold a nonce and a tag
        AuthenticationFailed, ///< damaged, or sealed under another key
        CipherFailed, ///< the cryptographic library itself failed
    };

    explicit SealedBoxError(Case which);

    Case kind() const noexcept { return m_case; }

private:
    Case m_case;
};

/// AES-256-GCM in combined form: a 12-byte random nonce, the ciphertext and the 16-byte tag
/// in one byte string. This is the stored form of every sealed value and sealed image.
namespace SealedBox {

constexpr int nonceSize = 12;
constexpr int tagSize = 16;

/// Encrypts and authenticates `plaintext` under `key` with a fresh random nonce.
/// Throws SealedBoxError.
QByteArray seal(const QByteArray &plaintext, const VaultKey &key);

/// Checks and decrypts a combined box. Throws SealedBoxError when the box is too short or
/// fails authentication; nothing of a forged box is returned.
QByteArray open(const QByteArray &box, const VaultKey &key);

} // namespace SealedBox
