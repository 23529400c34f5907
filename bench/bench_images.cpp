// Images at the sizes people have: taking in a 12-megapixel photo (4000 × 3000 JPEG) off the
// main thread as the composer does, with the longest main-thread gap meanwhile, and sealing
// then revealing 1,000 stored images as locking and unlocking their folder does.
//
// Usage: bench_images
#include "bench_support.h"
#include "images/image_store.h"
#include "platform/worker_thread.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QGuiApplication>
#include <QImageWriter>
#include <QPainter>
#include <QTemporaryDir>
#include <QTimer>

#include <QCoro/QCoroTask>

#include <cstdio>
#include <random>

namespace {

/// A busy picture, so that the JPEG is as large as a real photo's.
QImage photo(QSize size)
{
    QImage image(size, QImage::Format_RGB32);
    std::mt19937 random(7);
    QPainter painter(&image);
    for (int i = 0; i < 4000; ++i) {
        painter.fillRect(int(random() % size.width()), int(random() % size.height()), 40 + int(random() % 300),
                         40 + int(random() % 300), QColor::fromRgb(random() & 0xffffff));
    }
    return image;
}

} // namespace

int main(int argc, char *argv[])
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(argc, argv);
    QTemporaryDir dir;
    QDir(dir.path()).mkpath(QStringLiteral("Images"));
    const QString images = dir.filePath(QStringLiteral("Images"));
    const QString source = dir.filePath(QStringLiteral("photo.jpg"));
    QImageWriter writer(source, "jpeg");
    writer.setQuality(92);
    if (!writer.write(photo({4000, 3000})))
        return 1;

    // Taking the photo in, off the main thread, while a 2 ms timer watches the event loop.
    QList<double> imports;
    qint64 longestGap = 0;
    for (int run = 0; run < 5; ++run) {
        QElapsedTimer sinceTurn;
        sinceTurn.start();
        QTimer ticker;
        ticker.setInterval(2);
        QObject::connect(&ticker, &QTimer::timeout, [&] { longestGap = std::max(longestGap, sinceTurn.restart()); });
        ticker.start();
        QElapsedTimer timer;
        timer.start();
        const auto import = [&]() -> QCoro::Task<> {
            auto work = [source, images] { return ImageStore::store(images, ImageStore::normalized(source), std::nullopt); };
            QCoro::Task<QString> running = onWorkerThread<QString>(std::move(work));
            co_await std::move(running);
        };
        QCoro::waitFor(import());
        imports << double(timer.nsecsElapsed()) / 1e6;
    }
    std::printf("| Operation | median | longest main-thread gap |\n|---|---:|---:|\n");
    std::printf("| import a 4000 × 3000 photo (%.1f MB), off the main thread (5 runs) | %.0f ms | %lld ms |\n",
                double(QFileInfo(source).size()) / 1e6, median(imports), static_cast<long long>(longestGap));

    // 1,000 stored images, sealed and revealed again.
    QDir(images).removeRecursively();
    QDir(dir.path()).mkpath(QStringLiteral("Images"));
    const QByteArray jpeg = ImageStore::normalized(source);
    QStringList names;
    for (int i = 0; i < 1000; ++i)
        names << ImageStore::store(images, jpeg, std::nullopt);
    const VaultKey key = VaultKey::random();
    QElapsedTimer timer;
    timer.start();
    ImageStore::matchFiles(images, key, names, {});
    const double sealing = double(timer.nsecsElapsed()) / 1e6;
    timer.restart();
    ImageStore::matchFiles(images, key, {}, names);
    const double revealing = double(timer.nsecsElapsed()) / 1e6;
    std::printf("| seal 1,000 images of %.0f KB (match, on a worker in the application) | %.0f ms | |\n",
                double(jpeg.size()) / 1e3, sealing);
    std::printf("| reveal them again | %.0f ms | |\n", revealing);
    return 0;
}
