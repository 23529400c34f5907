#include "models/file_digest.h"

#include <QCoreApplication>
#include <QFile>
#include <QtConcurrent/QtConcurrentRun>

#include <QCoro/QCoroFuture>

#include <openssl/evp.h>

#include <memory>
#include <variant>

namespace {

struct EvpDeleter
{
    void operator()(EVP_MD_CTX *context) const { EVP_MD_CTX_free(context); }
};

/// What a worker hands back: the digest, or what went wrong. Exceptions do not cross
/// QFuture unless they derive from QException, so they are carried as values.
struct Outcome
{
    QString digest;
    std::variant<std::monostate, QString, CancelledError> failure;
};

} // namespace

namespace FileDigest {

QString sha256(const QString &path, const std::function<void(qint64)> &afterBlock, const std::atomic_bool *stop)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
        throw SystemError(file.errorString());
    std::unique_ptr<EVP_MD_CTX, EvpDeleter> context(EVP_MD_CTX_new());
    if (!context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1)
        throw SystemError(QStringLiteral("SHA-256 is not available"));

    QByteArray block(blockSize, Qt::Uninitialized);
    qint64 total = 0;
    while (true) {
        if (stop && stop->load())
            throw CancelledError();
        const qint64 read = file.read(block.data(), blockSize);
        if (read < 0)
            throw SystemError(file.errorString());
        if (read == 0)
            break;
        EVP_DigestUpdate(context.get(), block.constData(), static_cast<size_t>(read));
        total += read;
        if (afterBlock)
            afterBlock(total);
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_DigestFinal_ex(context.get(), digest, &length);
    return QString::fromLatin1(QByteArray(reinterpret_cast<const char *>(digest), length).toHex());
}

QCoro::Task<QString> sha256InBackground(QString path, std::function<void(qint64)> progress, CancellationToken cancel)
{
    cancel.throwIfCancelled();
    // Reports travel to this thread through `relay`; the worker never calls `progress` itself.
    auto relay = std::make_unique<QObject>();
    auto stop = std::make_shared<std::atomic_bool>(false);
    cancel.onCancel(relay.get(), [stop] { stop->store(true); });

    QObject *target = relay.get();
    std::function<void(qint64)> afterBlock;
    if (progress) {
        afterBlock = [target, progress](qint64 total) {
            QMetaObject::invokeMethod(target, [progress, total] { progress(total); }, Qt::QueuedConnection);
        };
    }
    QFuture<Outcome> work = QtConcurrent::run([path, afterBlock, stop] {
        Outcome outcome;
        try {
            outcome.digest = sha256(path, afterBlock, stop.get());
        } catch (const CancelledError &cancelled) {
            outcome.failure = cancelled;
        } catch (const CorvaneError &error) {
            outcome.failure = error.description();
        }
        return outcome;
    });
    const Outcome outcome = co_await work;
    // Deliver the reports already queued, so the last one is not lost with `relay`.
    QCoreApplication::sendPostedEvents(target, QEvent::MetaCall);

    if (std::holds_alternative<CancelledError>(outcome.failure) || cancel.isCancelled())
        throw CancelledError();
    if (const auto *message = std::get_if<QString>(&outcome.failure))
        throw SystemError(*message);
    co_return outcome.digest;
}

} // namespace FileDigest
