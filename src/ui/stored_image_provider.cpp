#include "stored_image_provider.h"

#include "app/chat_images.h"
#include "images/image_store.h"

StoredImageProvider::StoredImageProvider(ChatImages *images)
    : QQuickImageProvider(QQuickImageProvider::Image)
    , m_images(images)
{
}

QImage StoredImageProvider::requestImage(const QString &name, QSize *size, const QSize &requestedSize)
{
    const std::optional<QImage> image = m_images ? m_images->store().image(name) : std::nullopt;
    if (!image)
        return QImage();
    if (size)
        *size = image->size();
    if (requestedSize.isValid() && !requestedSize.isEmpty())
        return image->scaled(requestedSize, Qt::KeepAspectRatio, Qt::SmoothTransformation);
    return *image;
}
