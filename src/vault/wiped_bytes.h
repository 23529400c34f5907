#pragma once

#include <QByteArray>

#include <openssl/crypto.h>

/// A working copy of secret bytes (password, recovery secret, shared secret, opened key) that
/// overwrites itself however the scope is left.
struct WipedBytes
{
    QByteArray bytes;

    ~WipedBytes() { OPENSSL_cleanse(bytes.data(), size_t(bytes.size())); }
};
