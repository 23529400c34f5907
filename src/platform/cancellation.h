#pragma once

#include "platform/error.h"

#include <QObject>

#include <functional>
#include <memory>

/// The error a cancelled operation ends with. The user's Stop shows as "Stopped".
class CancelledError : public CorvaneError
{
public:
    CancelledError()
        : CorvaneError(QStringLiteral("Stopped"))
    {
    }
};

/// A shared flag by which the owner of a long operation asks it to stop. Coroutines check it at
/// their await points (`throwIfCancelled`), and work that can be interrupted at once, such as a
/// network transfer, registers a callback with `onCancel`.
class CancellationToken
{
public:
    CancellationToken();

    /// Marks the token cancelled and runs the registered callbacks, once.
    void cancel() const;
    bool isCancelled() const;
    /// Throws CancelledError when cancelled.
    void throwIfCancelled() const;

    /// Runs `callback` when the token is cancelled (at once if it already is), as long as
    /// `context` lives.
    QMetaObject::Connection onCancel(const QObject *context, std::function<void()> callback) const;

private:
    struct State;
    std::shared_ptr<State> m_state;
};
