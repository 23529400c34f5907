#include "vault/vault_key.h"

#include <openssl/crypto.h>
#include <openssl/rand.h>

#include <QtGlobal>

#include <cstring>

VaultKey VaultKey::random()
{
    VaultKey key;
    // OpenSSL fails here only when the system has no entropy source at all. A predictable
    // key would silently defeat every lock, so stop instead.
    if (RAND_bytes(key.m_bytes.data(), size) != 1)
        qFatal("The system's random generator failed");
    return key;
}

std::optional<VaultKey> VaultKey::fromBytes(const QByteArray &bytes)
{
    if (bytes.size() != size)
        return std::nullopt;
    VaultKey key;
    std::memcpy(key.m_bytes.data(), bytes.constData(), size);
    return key;
}

VaultKey &VaultKey::operator=(const VaultKey &other)
{
    m_bytes = other.m_bytes;
    return *this;
}

VaultKey::~VaultKey()
{
    OPENSSL_cleanse(m_bytes.data(), m_bytes.size());
}

bool VaultKey::operator==(const VaultKey &other) const
{
    // Constant time, so that comparing keys says nothing about where they differ.
    return CRYPTO_memcmp(m_bytes.data(), other.m_bytes.data(), size) == 0;
}
