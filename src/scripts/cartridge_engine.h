#pragma once

#include "scripts/cartridge_answer.h"
#include "scripts/cartridge_context.h"
#include "scripts/cartridge_hook.h"
#include "scripts/cartridge_result.h"

#include <QByteArray>
#include <QString>

#include <QCoro/QCoroTask>

#include <chrono>
#include <optional>

/// Runs one hook of a script in the separate runner program, one process per run, and
/// returns its checked result. Holds no state: evaluations share nothing.
namespace CartridgeEngine {

/// File name of the runner program among the auxiliary executables.
inline constexpr char runnerName[] = "corvane-script-runner";
/// Largest request sent to the runner; a longer chat history is refused before starting it.
inline constexpr qsizetype maxRequestBytes = 2'097'152;
/// Wall time after which the runner is killed.
inline constexpr std::chrono::milliseconds timeLimit{2000};

/// Runs `hook` of `source` with the runner from the auxiliary executables. `state` is the
/// saved state as JSON text (empty for none); `text` is sent for the "reply" hook only.
/// Suspends, never blocks, while the runner works. Throws CartridgeError (missing runner,
/// request too large, time or memory limit, answer too large, the script's own error, a
/// failed result check), CartridgeAnswerError (an answer that is not JSON or not of the
/// result's form) and SystemError (the runner could not be started).
QCoro::Task<CartridgeResult> evaluate(QString source, CartridgeContext context, CartridgeHook hook,
                                      QString state, std::optional<QString> text = std::nullopt);

/// `evaluate` with the runner program at `runner` instead of the one found by name.
QCoro::Task<CartridgeResult> evaluateWith(QString runner, QString source, CartridgeContext context,
                                          CartridgeHook hook, QString state,
                                          std::optional<QString> text = std::nullopt);

/// The request bytes written to the runner's standard input: a JSON object with "source",
/// "hook", "context", "state" and, for the "reply" hook when given, "text".
QByteArray encodeRequest(const QString &source, const CartridgeContext &context, CartridgeHook hook,
                         const QString &state, const std::optional<QString> &text);

} // namespace CartridgeEngine
