#pragma once

#include "platform/cancellation.h"

#include <QCoro/QCoroTask>
#include <QUrl>

#include <functional>

/// One download of a model file over HTTP(S): redirects are followed, the body goes straight to
/// a temporary file as it arrives (it is never held in memory), and progress is reported at
/// most once per MiB.
class ProgressDownload
{
public:
    /// Gets the number of bytes written so far.
    using Progress = std::function<void(qint64)>;

    /// Granularity of progress reports.
    static constexpr qint64 reportStep = 1024 * 1024;

    /// Downloads `url` into a new file named by a fresh UUID in the system temporary directory
    /// and returns its path; the caller owns the file. Throws ModelStoreError::downloadFailed
    /// for an answer other than HTTP 200, SystemError with the network's own words for a
    /// transfer that breaks off, and CancelledError when `cancel` fires, which aborts the
    /// transfer at once. A failed download leaves no file behind.
    static QCoro::Task<QString> run(QUrl url, Progress progress = {}, CancellationToken cancel = {});

    /// Whether a report is due after `written` bytes when the last one was at `lastReported`:
    /// each whole MiB crossed is reported once, so the count depends only on the size and not
    /// on how the network splits the body (1,048,575 bytes: none; 3 MiB: three).
    static bool reportDue(qint64 lastReported, qint64 written)
    {
        return written / reportStep > lastReported / reportStep;
    }
};
