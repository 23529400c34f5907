#pragma once

#include <QByteArray>

#include <array>
#include <optional>

/// The 256-bit symmetric key that encrypts locked folders. It lives only in memory while
/// locked folders are open, and every copy overwrites its bytes when it goes away.
class VaultKey
{
public:
    static constexpr int size = 32;

    /// A fresh key from the system's cryptographic random generator.
    static VaultKey random();
    /// The key in `bytes`, or absent when `bytes` is not exactly 32 bytes long.
    static std::optional<VaultKey> fromBytes(const QByteArray &bytes);

    VaultKey(const VaultKey &other) = default;
    VaultKey &operator=(const VaultKey &other);
    ~VaultKey();

    const unsigned char *data() const { return m_bytes.data(); }

    bool operator==(const VaultKey &other) const;

private:
    VaultKey() = default;

    std::array<unsigned char, size> m_bytes{};
};
