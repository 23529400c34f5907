// Model files at full scale: verifying a 2 GiB file (SHA-256 in 1 MiB blocks on a worker
// thread) and downloading a 1 GiB file from a local HTTP server into a temporary file, then a
// complete installation of it (download, size, digest, rename). For each: throughput and the
// growth of the process's peak resident memory (VmHWM, reset through /proc/self/clear_refs
// before each step). The files are generated in a temporary folder and deleted afterwards;
// they are freshly written, so reads come mostly from the page cache.
//
// Usage: bench_models
#include "models/file_digest.h"
#include "models/model_store.h"
#include "models/progress_download.h"

#include "../tools/model_file_server.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QRandomGenerator>
#include <QSemaphore>
#include <QTemporaryDir>
#include <QThread>

#include <cstdio>

namespace {

constexpr qint64 MiB = 1024 * 1024;

/// A field of /proc/self/status in KiB.
qint64 statusKiB(const char *field)
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    const QList<QByteArray> lines = status.readAll().split('\n');
    for (const QByteArray &line : lines) {
        if (line.startsWith(field))
            return line.mid(qstrlen(field)).trimmed().split(' ').first().toLongLong();
    }
    return -1;
}

/// Resets the peak to the current resident size and returns that size in KiB.
qint64 resetPeak()
{
    QFile clear(QStringLiteral("/proc/self/clear_refs"));
    if (clear.open(QIODevice::WriteOnly))
        clear.write("5");
    return statusKiB("VmRSS:");
}

/// Writes `size` bytes of varied data and returns its SHA-256.
QString generate(const QString &path, qint64 size)
{
    QFile file(path);
    file.open(QIODevice::WriteOnly | QIODevice::Truncate);
    QByteArray block(MiB, Qt::Uninitialized);
    QRandomGenerator(42).fillRange(reinterpret_cast<quint32 *>(block.data()), MiB / 4);
    QCryptographicHash hash(QCryptographicHash::Sha256);
    for (qint64 written = 0; written < size; written += MiB) {
        // A block counter makes every MiB distinct.
        *reinterpret_cast<qint64 *>(block.data()) = written;
        const qint64 n = qMin(MiB, size - written);
        file.write(block.constData(), n);
        hash.addData(QByteArrayView(block.constData(), n));
    }
    return QString::fromLatin1(hash.result().toHex());
}

void report(const char *what, qint64 bytes, qint64 ms, qint64 rssBefore)
{
    const double mbPerSecond = bytes / 1e6 / (ms / 1000.0);
    const double growthMB = (statusKiB("VmHWM:") - rssBefore) * 1024 / 1e6;
    std::printf("%-38s %6.2f s  %7.0f MB/s  peak memory growth %5.1f MB\n", what, ms / 1000.0, mbPerSecond,
                growthMB);
    std::fflush(stdout);
}

template<typename T>
QCoro::Task<> storeResult(QCoro::Task<T> task, T *result)
{
    *result = co_await std::move(task);
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QTemporaryDir dir;
    if (!dir.isValid())
        return 1;
    qputenv("TMPDIR", dir.path().toUtf8());

    // Verifying 2 GiB.
    const qint64 verifySize = 2048 * MiB;
    const QString verifyFile = dir.filePath(QStringLiteral("verify.bin"));
    const QString expected = generate(verifyFile, verifySize);
    qint64 rss = resetPeak();
    QElapsedTimer clock;
    clock.start();
    const QString digest = QCoro::waitFor(FileDigest::sha256InBackground(verifyFile));
    report("verify 2 GiB (SHA-256)", verifySize, clock.elapsed(), rss);
    QFile::remove(verifyFile);
    if (digest != expected) {
        std::fprintf(stderr, "digest mismatch\n");
        return 1;
    }

    // Downloading 1 GiB; the server runs on its own thread, as a remote one would.
    const qint64 downloadSize = 1024 * MiB;
    const QString served = dir.filePath(QStringLiteral("served.bin"));
    ModelSpec spec;
    spec.id = QStringLiteral("bench");
    spec.name = QStringLiteral("Bench");
    spec.fileName = QStringLiteral("bench.gguf");
    spec.url = QStringLiteral("bench/resolve/0/model.gguf");
    spec.byteCount = downloadSize;
    spec.sha256 = generate(served, downloadSize);

    std::atomic<quint16> port = 0;
    QEventLoop *serverLoop = nullptr;
    QSemaphore ready;
    QThread *serverThread = QThread::create([&] {
        ModelFileServer server;
        server.serveFile(QStringLiteral("/bench/resolve/0/model.gguf"), served);
        port = server.port();
        QEventLoop loop;
        serverLoop = &loop;
        ready.release();
        loop.exec();
    });
    serverThread->start();
    ready.acquire();
    const QString base = QStringLiteral("http://127.0.0.1:%1/").arg(port.load());
    qputenv("CORVANE_MODEL_MIRROR", base.toUtf8());

    rss = resetPeak();
    clock.restart();
    QString downloaded;
    qint64 reports = 0;
    QCoro::waitFor(storeResult(ProgressDownload::run(QUrl(base + spec.url), [&reports](qint64) { ++reports; }),
                               &downloaded));
    report("download 1 GiB to a temporary file", downloadSize, clock.elapsed(), rss);
    const qint64 got = QFileInfo(downloaded).size();
    QFile::remove(downloaded);

    ModelStore store(dir.filePath(QStringLiteral("Models")), {spec});
    rss = resetPeak();
    clock.restart();
    QCoro::waitFor(store.install(spec));
    report("install 1 GiB (download, verify, move)", downloadSize, clock.elapsed(), rss);
    const bool installed = store.isInstalled(spec);
    store.remove(spec);

    QMetaObject::invokeMethod(serverLoop, &QEventLoop::quit, Qt::QueuedConnection);
    serverThread->wait();
    delete serverThread;
    QFile::remove(served);
    std::printf("progress reports during the download: %lld; bytes received: %lld; installed: %s\n",
                static_cast<long long>(reports), static_cast<long long>(got), installed ? "yes" : "no");
    return got == downloadSize && installed ? 0 : 1;
}
