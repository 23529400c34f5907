#pragma once

#include <QHashFunctions>
#include <QMetaType>
#include <QString>

/// One downloadable model file of the built-in catalogue: what it is called, where it lives on
/// the hosting service, and the exact size and digest a copy must have to be accepted.
struct ModelSpec
{
    /// What the file is for. The order is part of the catalogue's contract.
    enum class Role {
        Chat,
        Transcription,
        Vision,
    };

    /// Stable identifier, stored in settings and used to pair projectors.
    QString id;
    /// Display name.
    QString name;
    /// Name of the file inside the models folder.
    QString fileName;
    /// Location relative to the hosting service's base address:
    /// repository + "/resolve/" + commit + "/" + remote file name.
    QString url;
    /// Exact size in bytes.
    qint64 byteCount = 0;
    /// Expected SHA-256, 64 lower-case hexadecimal digits.
    QString sha256;
    Role role = Role::Chat;

    friend bool operator==(const ModelSpec &, const ModelSpec &) = default;
};

inline size_t qHash(const ModelSpec &spec, size_t seed = 0)
{
    return qHashMulti(seed, spec.id, spec.name, spec.fileName, spec.url, spec.byteCount, spec.sha256,
                      static_cast<int>(spec.role));
}

Q_DECLARE_METATYPE(ModelSpec)
