#pragma once

#include "scripts/cartridge_hook.h"

#include <QJsonObject>
#include <QList>
#include <QString>

#include <optional>

/// A message a script adds to its chat.
struct CartridgeInjection
{
    QString role; ///< "user", "assistant" or "system"
    QString text;
    bool operator==(const CartridgeInjection &) const = default;
};

/// What one run of a script answered. Every field is optional: absent when the answer left
/// the key out or set it to null.
struct CartridgeResult
{
    std::optional<QString> prompt; ///< "prompt": added to the system prompt of this reply
    std::optional<double> temperature; ///< "temperature": 0 to 1.5
    std::optional<qint64> maxTokens; ///< "max_tokens": 64 to 8192
    std::optional<QString> agentName; ///< "agent_name"
    std::optional<QString> name; ///< "name": the script's title
    std::optional<double> tickEvery; ///< "tick_every": seconds between ticks, 10 to 86400
    std::optional<bool> hasOnReply; ///< "has_on_reply"
    std::optional<QString> state; ///< "state": JSON text, at most 65,536 UTF-8 bytes
    std::optional<QString> display; ///< "display": shown instead of the reply's body
    std::optional<QString> data; ///< "data": kept with the reply
    std::optional<QList<CartridgeInjection>> inject; ///< "inject": messages to add
    std::optional<bool> respond; ///< "respond": ask the agent to reply now
    std::optional<double> next; ///< "next": seconds until the next tick, 10 to 86400

    /// Reads an answer object. Unknown keys are ignored; a known key of the wrong JSON type,
    /// an injection without a string "role" and "text", or one of another role than the
    /// three, throws CartridgeAnswerError.
    static CartridgeResult fromJson(const QJsonObject &answer);

    /// Throws CartridgeError::rejected with the first failed check, in this order: a "turn"
    /// result needs a prompt that is not blank, then the limits of state, tick_every, next,
    /// temperature and max_tokens. Bounds are inclusive.
    void check(CartridgeHook hook) const;

    bool operator==(const CartridgeResult &) const = default;
};
