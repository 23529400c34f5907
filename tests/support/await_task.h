#pragma once

#include <QCoro/QCoroTask>

#include <exception>
#include <optional>
#include <type_traits>

/// Runs `task` to its end in a nested event loop and returns its result or throws its
/// exception. QCoro::waitFor wants a default-constructible result and never returns when the
/// task throws, which is exactly what many tests need to see.
template<typename T>
T awaitTask(QCoro::Task<T> task)
{
    std::conditional_t<std::is_void_v<T>, bool, std::optional<T>> result{};
    std::exception_ptr error;
    const auto run = [&]() -> QCoro::Task<> {
        try {
            if constexpr (std::is_void_v<T>) {
                co_await task;
            } else {
                T value = co_await task;
                result.emplace(std::move(value));
            }
        } catch (...) {
            error = std::current_exception();
        }
    };
    QCoro::waitFor(run());
    if (error)
        std::rethrow_exception(error);
    if constexpr (!std::is_void_v<T>)
        return std::move(*result);
}
