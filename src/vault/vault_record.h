#pragma once

#include "vault/key_seal.h"

#include <QByteArray>

#include <optional>

/// What is stored of the vault: its key wrapped three ways, never the key itself. Kept as JSON
/// text in the settings under "vault".
struct VaultRecord
{
    QByteArray salt; ///< 16 random bytes for the password derivation
    qint64 rounds = 0; ///< PBKDF2 iterations; opening always uses this stored count
    QByteArray byPassword; ///< the vault key sealed under the password key (60 bytes)
    QByteArray byRecoveryKey; ///< the vault key sealed under the recovery wrapping key (60 bytes)
    std::optional<TouchIDSeal> touchID; ///< absent until Touch ID is turned on

    bool operator==(const VaultRecord &other) const = default;

    /// Compact JSON with the keys "salt", "rounds", "byPassword", "byRecoveryKey" and, when
    /// there is a seal, "touchID"; bytes as padded standard base64.
    QByteArray toJson() const;

    /// The record in `json`, or absent when it is not a JSON object holding the first four
    /// keys with values of the right kinds. A missing or null "touchID" means no seal.
    static std::optional<VaultRecord> fromJson(const QByteArray &json);
};
