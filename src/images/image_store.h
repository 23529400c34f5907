#pragma once

#include "platform/error.h"
#include "vault/vault_key.h"

#include <QByteArray>
#include <QCache>
#include <QImage>
#include <QString>
#include <QStringList>

#include <optional>

/// An image that could not be taken in or kept.
class ImageStoreError : public CorvaneError
{
public:
    enum class Case {
        Unreadable, ///< "That file could not be read as an image"
        Unwritable, ///< "The image could not be saved"
    };

    static ImageStoreError unreadable() { return {Case::Unreadable, QStringLiteral("That file could not be read as an image")}; }
    static ImageStoreError unwritable() { return {Case::Unwritable, QStringLiteral("The image could not be saved")}; }

    Case kind() const noexcept { return m_case; }

private:
    ImageStoreError(Case kind, QString description)
        : CorvaneError(std::move(description))
        , m_case(kind)
    {
    }

    Case m_case;
};

/// The images folder: every image attached to a message, normalised once on import (at most
/// 1,024 pixels on the longer side, orientation applied, transparency flattened onto white,
/// JPEG at quality 85) and kept as one file named by a random UUID. Images of chats in locked
/// folders are encrypted with the vault key and start with `sealedMarker`, so a file tells by
/// its content whether it is sealed. The only code that reads or writes the folder.
///
/// Reading or writing a sealed image without the key throws VaultError::locked(); a damaged
/// sealed file throws SealedBoxError; file-system failures throw SystemError.
class ImageStore
{
public:
    /// What a sealed file starts with.
    static constexpr QByteArrayView sealedMarker{"CORVANE-SEALED\n"};
    /// The longest side of a stored image, in pixels.
    static constexpr int maxPixelSize = 1024;

    explicit ImageStore(QString directory);

    const QString &directory() const { return m_directory; }
    const std::optional<VaultKey> &vaultKey() const { return m_vaultKey; }
    /// Holds or forgets the vault key; a different key (or none) empties the decoded images,
    /// so that no sealed picture outlives its key.
    void setVaultKey(std::optional<VaultKey> key);

    /// The JPEG bytes of the image file at `path`, normalised. Touches nothing of the store, so
    /// it can run on any thread. Throws ImageStoreError.
    static QByteArray normalized(const QString &path);
    /// The same for a picture already decoded (one pasted from the clipboard).
    static QByteArray normalized(QImage picture);
    /// Keeps normalised JPEG bytes under a new name, sealed with `key` when given; answers the
    /// name. Touches only the folder, so it can run on any thread.
    static QString store(const QString &directory, const QByteArray &jpeg, const std::optional<VaultKey> &key);
    /// `normalized` and `store` with this store's key when `sealed`.
    QString import(const QString &path, bool sealed);

    /// The JPEG bytes of a stored image, decrypted when sealed.
    QByteArray data(const QString &name) const;
    /// The decoded image for display, from the cache when it is there; none when it cannot be
    /// read or decoded.
    std::optional<QImage> image(const QString &name);
    /// Context tokens the image takes when sent to the model: one per 32 × 32 patch, at least
    /// 16, plus 8; 1,032 when it cannot be read.
    int estimatedTokens(const QString &name) const;

    /// Deletes the file; errors are ignored.
    void remove(const QString &name);
    /// Deletes every file whose name is not in `keeping`; errors are ignored.
    void prune(const QStringList &keeping);
    /// The files in `directory` now. Listed before the names to keep are read, so that a file
    /// made meanwhile is never among those `pruneFiles` deletes.
    static QStringList fileNames(const QString &directory);
    /// Deletes those of `files` in `directory` whose name is not in `keeping`; errors are
    /// ignored. Touches nothing else, so it can run on any thread.
    static void pruneFiles(const QString &directory, const QStringList &files, const QStringList &keeping);
    /// Seals the files named in `sealed` and reveals those named in `open` that are not in that
    /// state yet. The first failure stops and is thrown.
    void match(const QStringList &sealed, const QStringList &open);
    /// `match` in `directory` with `key`, touching nothing else, so that it can run on any
    /// thread. The caller empties the decoded images afterwards (`forgetDecoded`).
    static void matchFiles(const QString &directory, const std::optional<VaultKey> &key, const QStringList &sealed,
                           const QStringList &open);
    /// Empties the decoded images.
    void forgetDecoded() { m_cache.clear(); }

private:
    static void write(const QString &path, const QByteArray &content);
    static QByteArray read(const QString &path, const std::optional<VaultKey> &key);
    QString pathOf(const QString &name) const;

    QString m_directory;
    std::optional<VaultKey> m_vaultKey;
    QCache<QString, QImage> m_cache{64};
};
