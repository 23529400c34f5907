#pragma once

#include <QThreadPool>
#include <QtConcurrent/QtConcurrentRun>

#include <QCoro/QCoroFuture>
#include <QCoro/QCoroTask>

#include <exception>
#include <variant>

/// Runs `work` on a thread of `pool` (Qt's global pool unless given) and resumes the caller on
/// its own thread with the result, or the exception `work` threw. QFuture carries only
/// QException across threads, so any other exception travels by hand.
template <typename Result, typename Work>
QCoro::Task<Result> onWorkerThread(Work work, QThreadPool *pool = QThreadPool::globalInstance())
{
    using Outcome = std::variant<std::exception_ptr, Result>;
    // Kept in locals: g++ 12 mishandles temporaries inside a co_await expression.
    QFuture<Outcome> future = QtConcurrent::run(pool, [work = std::move(work)]() -> Outcome {
        try {
            return Outcome(std::in_place_index<1>, work());
        } catch (...) {
            return Outcome(std::in_place_index<0>, std::current_exception());
        }
    });
    Outcome outcome = co_await future;
    if (outcome.index() == 0)
        std::rethrow_exception(std::get<0>(outcome));
    co_return std::get<1>(std::move(outcome));
}
