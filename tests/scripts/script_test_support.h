#pragma once

#include "scripts/cartridge_engine.h"
#include "scripts/cartridge_error.h"
#include "support/await_task.h"

#include <QElapsedTimer>
#include <QTest>

#include <functional>
#include <optional>

// Helpers shared by the script tests: every run goes through the real runner program.
namespace ScriptTest {

/// A context with a named agent and no messages, at a fixed time.
inline CartridgeContext context(const QString &agent = QStringLiteral("Ada"))
{
    const QDateTime now = QDateTime::fromString(QStringLiteral("2026-11-15T20:21:57Z"), Qt::ISODate);
    return CartridgeContext::forChat(Chat(), agent, {}, now, now);
}

inline CartridgeResult run(const QString &source, CartridgeHook hook, const QString &state = {},
                           std::optional<QString> text = std::nullopt,
                           const CartridgeContext &ctx = context())
{
    return awaitTask(CartridgeEngine::evaluate(source, ctx, hook, state, std::move(text)));
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

} // namespace ScriptTest
