#pragma once

#include <QString>

/// Lower-case hexadecimal SHA-256 of the UTF-8 bytes of `text` (64 characters). It ties a
/// chat's saved script state to the exact script source without storing the source twice.
QString fingerprint(const QString &text);
