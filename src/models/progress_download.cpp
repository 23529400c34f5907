#include "models/progress_download.h"

#include "models/model_store_error.h"

#include <QDir>
#include <QFile>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QUuid>

#include <QCoro/QCoroNetworkReply>

#include <memory>

namespace {

// How far the network may run ahead of the disk. Bounded so that a fast connection and a slow
// disk cannot pile the body up in memory.
constexpr qint64 readBuffer = 1024 * 1024;
constexpr int inactivityTimeoutMs = 60000;

struct LaterDeleter
{
    void operator()(QObject *object) const { object->deleteLater(); }
};
template<typename T>
using Owned = std::unique_ptr<T, LaterDeleter>;

/// Deletes the download's file unless it is handed to the caller.
class FileGuard
{
public:
    explicit FileGuard(QString path)
        : m_path(std::move(path))
    {
    }
    ~FileGuard()
    {
        if (!m_path.isEmpty())
            QFile::remove(m_path);
    }
    FileGuard(const FileGuard &) = delete;
    FileGuard &operator=(const FileGuard &) = delete;

    void release() { m_path.clear(); }

private:
    QString m_path;
};

} // namespace

QCoro::Task<QString> ProgressDownload::run(QUrl url, Progress progress, CancellationToken cancel)
{
    cancel.throwIfCancelled();
    const QString path = QDir(QDir::tempPath()).filePath(QUuid::createUuid().toString(QUuid::WithoutBraces));
    FileGuard guard(path);
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::NewOnly))
        throw SystemError(file.errorString());

    // Deleted later: the coroutine resumes inside the reply's own finished signal.
    Owned<QNetworkAccessManager> network(new QNetworkAccessManager);
    QNetworkRequest request(url);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::NoLessSafeRedirectPolicy);
    request.setTransferTimeout(inactivityTimeoutMs);
    // The bytes on the wire must be the file itself, whatever the server would like to compress.
    request.setRawHeader("Accept-Encoding", "identity");
    Owned<QNetworkReply> reply(network->get(request));
    QNetworkReply *raw = reply.get();
    raw->setReadBufferSize(readBuffer);

    // Aborting finishes the reply and so resumes this coroutine: never from inside `drain` or
    // a progress report, whose frames would still be on the stack.
    const auto abortSoon = [raw] {
        QMetaObject::invokeMethod(raw, [raw] { raw->abort(); }, Qt::QueuedConnection);
    };
    qint64 written = 0;
    qint64 lastReported = 0;
    QString writeError;
    const auto drain = [&] {
        // Only the body of the final 200 is the file; an error page is dropped.
        if (raw->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt() != 200) {
            raw->skip(raw->bytesAvailable());
            return;
        }
        while (writeError.isEmpty() && raw->bytesAvailable() > 0) {
            const QByteArray chunk = raw->read(reportStep);
            if (file.write(chunk) != chunk.size()) {
                writeError = file.errorString();
                abortSoon();
                return;
            }
            written += chunk.size();
            if (reportDue(lastReported, written)) {
                lastReported = written;
                if (progress)
                    progress(written);
            }
        }
    };
    // The connections die with `listener`, before the locals they use.
    auto listener = std::make_unique<QObject>();
    QObject::connect(raw, &QIODevice::readyRead, listener.get(), drain);
    // The length from the progress events: after a redirect the reply's own Content-Length
    // header can still be the redirect's.
    qint64 announced = 0;
    QObject::connect(raw, &QNetworkReply::downloadProgress, listener.get(),
                     [&announced](qint64, qint64 total) { announced = qMax(announced, total); });
    cancel.onCancel(listener.get(), abortSoon);

    if (!raw->isFinished())
        co_await qCoro(raw).waitForFinished();
    drain();

    if (cancel.isCancelled())
        throw CancelledError();
    if (!writeError.isEmpty())
        throw SystemError(writeError);
    const QVariant status = raw->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (status.isValid() && status.toInt() != 200)
        throw ModelStoreError::downloadFailed();
    if (raw->error() != QNetworkReply::NoError)
        throw SystemError(raw->errorString());
    if (!status.isValid())
        throw ModelStoreError::downloadFailed();
    // Qt sometimes ends a body cut short by the server without an error; the announced length
    // tells, and the user sees the same words as when Qt notices.
    if (announced > written)
        throw SystemError(QStringLiteral("Connection closed"));
    if (!file.flush())
        throw SystemError(file.errorString());
    file.close();
    guard.release();
    co_return path;
}
