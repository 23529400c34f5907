#pragma once

#include <QString>

/// Which of a script's entry points a run calls.
enum class CartridgeHook {
    Info, ///< "info": learn the timer interval and whether replies are handled, without acting
    Turn, ///< "turn": before each reply, and the check run when a script is installed
    Reply, ///< "reply": after a reply is saved, and for partial renders while it streams
    Tick, ///< "tick": on the script's timer
};

/// The hook's name in the runner request: "info", "turn", "reply" or "tick".
inline QString cartridgeHookName(CartridgeHook hook)
{
    switch (hook) {
    case CartridgeHook::Info:
        return QStringLiteral("info");
    case CartridgeHook::Turn:
        return QStringLiteral("turn");
    case CartridgeHook::Reply:
        return QStringLiteral("reply");
    case CartridgeHook::Tick:
        return QStringLiteral("tick");
    }
    return {};
}
