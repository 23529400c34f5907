#pragma once

#include <QByteArray>
#include <QString>

#include <optional>
#include <string_view>

namespace Vault {

/// Crockford's base-32 alphabet; a character's position is its 5-bit value. I, L, O and U are
/// left out so that a key copied by hand cannot be misread.
inline constexpr std::string_view recoveryAlphabet = "0123456789ABCDEFGHJKMNPQRSTVWXYZ";

/// Number of secret bytes behind a recovery key (160 bits, 32 characters).
inline constexpr int recoverySecretSize = 20;

/// The shown form of `bytes`: 5 bits per character, most significant first, leftover bits
/// dropped, in dash-separated groups of four ("XXXX-XXXX-…" for 20 bytes).
QString formatRecoveryKey(const QByteArray &bytes);

/// The 20 secret bytes of a typed recovery key, or absent when it is not one. Forgiving about
/// what people do when copying: any case, dashes, spaces, line breaks and punctuation anywhere,
/// O for 0 and I or L for 1. Letters outside the alphabet (U, accented letters) are refused.
std::optional<QByteArray> parseRecoveryKey(const QString &text);

} // namespace Vault
