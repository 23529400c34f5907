#pragma once

#include "scripts/cartridge_hook.h"
#include "scripts/cartridge_result.h"

#include <QByteArray>

/// The runner's answer, read apart from the process that produced it so that nothing but
/// Qt Core is needed to check it.
namespace CartridgeEngine {

/// Largest answer read from the runner.
inline constexpr qsizetype maxAnswerBytes = 262'144;

/// Reads the runner's answer bytes: the size limit, JSON, a string "error", decoding and the
/// result checks for `hook`. Throws CartridgeError (an answer too large, the script's own
/// error, a failed result check) and CartridgeAnswerError (not JSON, or not of the result's
/// form).
CartridgeResult readAnswer(const QByteArray &answer, CartridgeHook hook);

} // namespace CartridgeEngine
