#pragma once

#include "scripts/cartridge_engine.h"
#include "scripts/cartridge_error.h"

#include <QElapsedTimer>
#include <QTest>

#include <QCoro/QCoroTask>

#include <exception>
#include <functional>
#include <optional>

// Helpers shared by the script tests: every run goes through the real runner program.
namespace ScriptTest {

/// A context with a named agent and no messages, at a fixed time.
inline CartridgeContext context(const QString &agent = QStringLiteral("Ada"))
{
    Chat chat;
    chat.id = 7;
    chat.title = QStringLiteral("Study");
    const QDateTime now = QDateTime::fromString(QStringLiteral("2026-11-15T20:21:57Z"), Qt::ISODate);
    return CartridgeContext::forChat(chat, agent, {}, now, now);
}

/// Runs `task` to its end in a nested event loop and returns its result or throws its error
/// (QCoro::waitFor never returns when the task throws).
inline CartridgeResult await(QCoro::Task<CartridgeResult> task)
{
    std::optional<CartridgeResult> result;
    std::exception_ptr error;
    const auto capture = [&]() -> QCoro::Task<> {
        try {
            result = co_await task;
        } catch (...) {
            error = std::current_exception();
        }
    };
    QCoro::waitFor(capture());
    if (error)
        std::rethrow_exception(error);
    return std::move(*result);
}

inline CartridgeResult run(const QString &source, CartridgeHook hook, const QString &state = {},
                           std::optional<QString> text = std::nullopt,
                           const CartridgeContext &ctx = context())
{
    return await(CartridgeEngine::evaluate(source, ctx, hook, state, std::move(text)));
}

/// The description of what `work` throws, or "no error".
inline QString errorOf(const std::function<void()> &work)
{
    try {
        work();
    } catch (const CorvaneError &error) {
        return error.description();
    }
    return QStringLiteral("no error");
}

/// The CartridgeError case `work` throws; fails the test for anything else.
inline std::optional<CartridgeError::Case> caseOf(const std::function<void()> &work)
{
    try {
        work();
    } catch (const CartridgeError &error) {
        return error.kind();
    } catch (const CorvaneError &error) {
        qWarning() << "not a CartridgeError:" << error.description();
    }
    return std::nullopt;
}

} // namespace ScriptTest
