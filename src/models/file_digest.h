#pragma once

#include "platform/cancellation.h"

#include <QCoro/QCoroTask>

#include <atomic>
#include <functional>

/// SHA-256 of files that may be several gigabytes: read in 1 MiB blocks so memory stays flat.
namespace FileDigest {

/// Bytes read per step, and the granularity of progress reports.
constexpr qint64 blockSize = 1024 * 1024;

/// Lower-case hexadecimal SHA-256 of the file at `path`, computed on the calling thread.
/// `afterBlock` gets the bytes read so far after each block; a set `stop` flag ends the work
/// with CancelledError. Throws SystemError when the file cannot be read.
QString sha256(const QString &path, const std::function<void(qint64)> &afterBlock = {},
               const std::atomic_bool *stop = nullptr);

/// The same on a worker thread, so the window stays responsive while gigabytes are read.
/// `progress` runs on the calling thread, once per block, and never after the task ends.
QCoro::Task<QString> sha256InBackground(QString path, std::function<void(qint64)> progress = {},
                                        CancellationToken cancel = {});

} // namespace FileDigest
