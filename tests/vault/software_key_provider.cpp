#include "software_key_provider.h"

#include "platform/error.h"
#include "vault/p256_key.h"

#include <openssl/crypto.h>

// A handle is the enrolment it was made under, one byte, then the private key's DER.

QByteArray SoftwareKeyProvider::handleFor(const QByteArray &privateKeyDer)
{
    return char(0) + privateKeyDer;
}

KeyProvider::Key SoftwareKeyProvider::createKey()
{
    const P256Key key = P256Key::generate();
    QByteArray der = key.privateKeyDer();
    Key made{m_enrolment + der, key.rawPublicKey()};
    OPENSSL_cleanse(der.data(), size_t(der.size()));
    return made;
}

QCoro::Task<QByteArray> SoftwareKeyProvider::sharedSecret(QByteArray handle,
                                                          QByteArray peerPublicKey,
                                                          QString reason, QString cancelTitle)
{
    m_lastReason = reason;
    m_lastCancelTitle = cancelTitle;
    if (m_cancelsCheck)
        throw CorvaneError(QStringLiteral("Authentication canceled"));
    if (handle.isEmpty() || handle.at(0) != m_enrolment)
        throw CorvaneError(QStringLiteral("Key no longer valid"));
    const std::optional<P256Key> own = P256Key::fromPrivateKeyDer(handle.mid(1));
    const std::optional<P256Key> peer = P256Key::fromRawPublicKey(peerPublicKey);
    std::optional<QByteArray> secret = own && peer ? own->sharedSecret(*peer) : std::nullopt;
    if (!secret)
        throw CorvaneError(QStringLiteral("Key agreement failed"));
    co_return *secret;
}
