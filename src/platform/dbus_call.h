#pragma once

#include <QDBusConnection>
#include <QDBusMessage>

#include <functional>

/// Sends `call` without waiting for it and hands the reply, or the error that came instead, to
/// `onReply` on `context`'s thread. A call still open when `context` is destroyed is dropped,
/// so a late reply never reaches a destroyed owner. Services are not started for the call:
/// only those already running are asked, so a question never launches a program.
void callAsync(const QDBusConnection &bus, QDBusMessage call, QObject *context,
               std::function<void(const QDBusMessage &reply)> onReply);
