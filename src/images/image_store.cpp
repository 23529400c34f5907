#include "images/image_store.h"

#include "vault/sealed_box.h"
#include "vault/vault_error.h"

#include <QBuffer>
#include <QColorSpace>
#include <QDir>
#include <QFileInfo>
#include <QFile>
#include <QImageReader>
#include <QImageWriter>
#include <QPainter>
#include <QSaveFile>
#include <QUuid>

#include <cmath>

namespace {

bool startsSealed(const QByteArray &content)
{
    return content.startsWith(ImageStore::sealedMarker);
}

/// The first bytes of a file, enough to tell sealed from plain.
QByteArray head(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        throw SystemError(file.errorString());
    return file.read(ImageStore::sealedMarker.size());
}

QByteArray readAll(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        throw SystemError(file.errorString());
    return file.readAll();
}

} // namespace

ImageStore::ImageStore(QString directory)
    : m_directory(std::move(directory))
{
}

void ImageStore::setVaultKey(std::optional<VaultKey> key)
{
    if (key != m_vaultKey)
        m_cache.clear();
    m_vaultKey = std::move(key);
}

QByteArray ImageStore::normalized(const QString &path)
{
    QImageReader reader(path);
    // EXIF orientation is applied to the pixels, so the picture stands as it was taken.
    reader.setAutoTransform(true);
    if (!reader.canRead())
        throw ImageStoreError::unreadable();
    return normalized(reader.read());
}

QByteArray ImageStore::normalized(QImage picture)
{
    if (picture.isNull())
        throw ImageStoreError::unreadable();
    if (std::max(picture.width(), picture.height()) > maxPixelSize)
        picture = picture.scaled(maxPixelSize, maxPixelSize, Qt::KeepAspectRatio, Qt::SmoothTransformation);

    // Drawn over white in sRGB: transparency is flattened, and every stored image has one
    // colour space.
    QImage flat(picture.size(), QImage::Format_RGB32);
    flat.setColorSpace(QColorSpace::SRgb);
    flat.fill(Qt::white);
    if (picture.colorSpace().isValid() && picture.colorSpace() != QColorSpace::SRgb)
        picture.convertToColorSpace(QColorSpace::SRgb);
    {
        QPainter painter(&flat);
        if (!painter.isActive())
            throw ImageStoreError::unwritable();
        painter.drawImage(0, 0, picture);
    }
    QByteArray jpeg;
    QBuffer buffer(&jpeg);
    buffer.open(QIODevice::WriteOnly);
    QImageWriter writer(&buffer, "jpeg");
    writer.setQuality(85);
    if (!writer.write(flat))
        throw ImageStoreError::unwritable();
    return jpeg;
}

QString ImageStore::store(const QString &directory, const QByteArray &jpeg, const std::optional<VaultKey> &key)
{
    const QString name = QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper() + QStringLiteral(".jpg");
    const QByteArray content = key ? sealedMarker.toByteArray() + SealedBox::seal(jpeg, *key) : jpeg;
    write(QDir(directory).filePath(name), content);
    return name;
}

QString ImageStore::import(const QString &path, bool sealed)
{
    if (sealed && !m_vaultKey)
        throw VaultError::locked();
    return store(m_directory, normalized(path), sealed ? m_vaultKey : std::nullopt);
}

QByteArray ImageStore::data(const QString &name) const
{
    return read(pathOf(name), m_vaultKey);
}

QByteArray ImageStore::read(const QString &path, const std::optional<VaultKey> &key)
{
    const QByteArray content = readAll(path);
    if (!startsSealed(content))
        return content;
    if (!key)
        throw VaultError::locked();
    return SealedBox::open(content.sliced(sealedMarker.size()), *key);
}

std::optional<QImage> ImageStore::image(const QString &name)
{
    if (const QImage *cached = m_cache.object(name))
        return *cached;
    QImage decoded;
    try {
        decoded = QImage::fromData(data(name), "JPEG");
    } catch (const std::exception &) {
        return std::nullopt;
    }
    if (decoded.isNull())
        return std::nullopt;
    m_cache.insert(name, new QImage(decoded));
    return decoded;
}

int ImageStore::estimatedTokens(const QString &name) const
{
    QSize size;
    try {
        QByteArray jpeg = data(name);
        QBuffer buffer(&jpeg);
        buffer.open(QIODevice::ReadOnly);
        size = QImageReader(&buffer, "jpeg").size();
    } catch (const std::exception &) {
    }
    if (!size.isValid() || size.isEmpty())
        return 1032;
    const int patches = int(std::ceil(size.width() / 32.0) * std::ceil(size.height() / 32.0));
    return std::max(patches, 16) + 8;
}

void ImageStore::remove(const QString &name)
{
    m_cache.remove(name);
    QFile::remove(pathOf(name));
}

void ImageStore::prune(const QStringList &keeping)
{
    pruneFiles(m_directory, fileNames(m_directory), keeping);
    m_cache.clear();
}

QStringList ImageStore::fileNames(const QString &directory)
{
    return QDir(directory).entryList(QDir::Files | QDir::Hidden | QDir::NoDotAndDotDot);
}

void ImageStore::pruneFiles(const QString &directory, const QStringList &files, const QStringList &keeping)
{
    const QSet<QString> kept(keeping.cbegin(), keeping.cend());
    const QDir folder(directory);
    for (const QString &name : files) {
        if (!kept.contains(name))
            QFile::remove(folder.filePath(name));
    }
}

void ImageStore::match(const QStringList &sealed, const QStringList &open)
{
    matchFiles(m_directory, m_vaultKey, sealed, open);
    m_cache.clear();
}

void ImageStore::matchFiles(const QString &directory, const std::optional<VaultKey> &key, const QStringList &sealed,
                            const QStringList &open)
{
    const QDir folder(directory);
    // A picture whose file is gone has nothing to seal or open; it must not keep the others
    // from being matched.
    for (const QString &name : sealed) {
        const QString path = folder.filePath(name);
        if (!QFileInfo::exists(path))
            continue;
        if (!startsSealed(head(path))) {
            if (!key)
                throw VaultError::locked();
            write(path, sealedMarker.toByteArray() + SealedBox::seal(read(path, key), *key));
        }
    }
    for (const QString &name : open) {
        const QString path = folder.filePath(name);
        if (QFileInfo::exists(path) && startsSealed(head(path)))
            write(path, read(path, key));
    }
}

void ImageStore::write(const QString &path, const QByteArray &content)
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size() || !file.commit())
        throw SystemError(file.errorString());
}

QString ImageStore::pathOf(const QString &name) const
{
    return QDir(m_directory).filePath(name);
}
