#pragma once

#include "vault/vault_key.h"

#include <QByteArrayView>

#include <cstdint>
#include <optional>

/// The two key derivations behind the vault's wrapping keys, both with SHA-256 and 32 bytes
/// out. Every intermediate buffer is wiped; only the returned key holds the result.
namespace KeyDerivation {

/// PBKDF2-HMAC-SHA-256 of `password` (bytes as given) with `salt` and `rounds` iterations.
/// Absent when OpenSSL refuses the input (zero rounds).
std::optional<VaultKey> pbkdf2Sha256(QByteArrayView password, QByteArrayView salt,
                                     std::uint32_t rounds);

/// HKDF-SHA-256 (RFC 5869) of `inputKeyMaterial` with an empty salt and `info`.
VaultKey hkdfSha256(QByteArrayView inputKeyMaterial, QByteArrayView info);

} // namespace KeyDerivation
