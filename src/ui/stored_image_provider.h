#pragma once

#include <QPointer>
#include <QQuickImageProvider>

class ChatImages;

/// Serves stored images to the window as "image://stored/<file name>", decrypted while their
/// folder is open. An image that cannot be read comes back empty, and the view says so.
class StoredImageProvider : public QQuickImageProvider
{
public:
    /// The scheme's host: "image://stored/…".
    static constexpr char id[] = "stored";

    explicit StoredImageProvider(ChatImages *images);

    QImage requestImage(const QString &name, QSize *size, const QSize &requestedSize) override;

private:
    QPointer<ChatImages> m_images;
};
