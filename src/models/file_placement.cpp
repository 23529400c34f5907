#include "models/file_placement.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QUuid>
#include <QtConcurrent/QtConcurrentRun>

#include <QCoro/QCoroFuture>

#include <atomic>
#include <filesystem>
#include <memory>
#include <system_error>

namespace {

constexpr qint64 copyBlock = 1024 * 1024;

enum class CopyResult { Done, Cancelled, Failed };

struct CopyOutcome
{
    CopyResult result = CopyResult::Done;
    QString message;
};

CopyOutcome copyFile(const QString &source, const QString &target, const std::atomic_bool &stop)
{
    QFile in(source);
    if (!in.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
        return {CopyResult::Failed, in.errorString()};
    QFile out(target);
    if (!out.open(QIODevice::WriteOnly | QIODevice::NewOnly | QIODevice::Unbuffered))
        return {CopyResult::Failed, out.errorString()};
    QByteArray block(copyBlock, Qt::Uninitialized);
    while (true) {
        if (stop.load())
            return {CopyResult::Cancelled, {}};
        const qint64 read = in.read(block.data(), copyBlock);
        if (read < 0)
            return {CopyResult::Failed, in.errorString()};
        if (read == 0)
            break;
        if (out.write(block.constData(), read) != read)
            return {CopyResult::Failed, out.errorString()};
    }
    if (!out.flush())
        return {CopyResult::Failed, out.errorString()};
    return {};
}

std::error_code renameFile(const QString &from, const QString &to)
{
    std::error_code error;
    std::filesystem::rename(QFile::encodeName(from).constData(), QFile::encodeName(to).constData(), error);
    return error;
}

} // namespace

namespace FilePlacement {

QCoro::Task<bool> place(QString source, QString destination, CancellationToken cancel)
{
    cancel.throwIfCancelled();
    // rename(2) replaces the destination in one step, so an installed model is never missing
    // while its replacement moves in.
    if (!renameFile(source, destination))
        co_return true;

    // Another file system (or a source folder we may not change): copy next to the
    // destination, so the final step is still a rename and a half-copied file never carries
    // the model's name.
    const QString partial = QFileInfo(destination).absoluteDir().filePath(
        QLatin1Char('.') + QUuid::createUuid().toString(QUuid::WithoutBraces) + QLatin1String(".partial"));
    auto guard = std::make_unique<QObject>();
    auto stop = std::make_shared<std::atomic_bool>(false);
    cancel.onCancel(guard.get(), [stop] { stop->store(true); });
    QFuture<CopyOutcome> work = QtConcurrent::run([source, partial, stop] { return copyFile(source, partial, *stop); });
    const CopyOutcome outcome = co_await work;
    if (outcome.result != CopyResult::Done) {
        QFile::remove(partial);
        if (outcome.result == CopyResult::Cancelled)
            throw CancelledError();
        throw SystemError(outcome.message);
    }
    if (const std::error_code error = renameFile(partial, destination)) {
        QFile::remove(partial);
        throw SystemError(QString::fromStdString(error.message()));
    }
    co_return false;
}

} // namespace FilePlacement
