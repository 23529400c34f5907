#include "platform/dbus_call.h"

#include <QDBusPendingCallWatcher>

namespace {

// Well under the 30 s idle poll, so that a hung service delays one answer, never the next poll.
constexpr int s_timeoutMs = 5000;

} // namespace

void callAsync(const QDBusConnection &bus, QDBusMessage call, QObject *context,
               std::function<void(const QDBusMessage &reply)> onReply)
{
    call.setAutoStartService(false);
    auto *watcher = new QDBusPendingCallWatcher(bus.asyncCall(call, s_timeoutMs), context);
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, context,
                     [watcher, onReply = std::move(onReply)] {
                         watcher->deleteLater();
                         onReply(watcher->reply());
                     });
}
