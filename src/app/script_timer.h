#pragma once

#include "platform/cancellation.h"

#include <QObject>

#include <QCoro/QCoroTask>

#include <chrono>
#include <functional>
#include <optional>

class ChatSession;
class ChatTree;
class Database;
class Speech;
class StatusBanner;

/// The selected chat's script timer. A script that answers its "info" hook with `tick_every`
/// runs its "tick" hook that often while its chat is selected; a tick may ask for a different
/// next delay once (`next`). A tick never interrupts the user: it is skipped while a reply is
/// generated or a message is being put together, and its result is dropped when that changed
/// while it ran or another chat was selected. A script error ends the timer and goes to the
/// banner.
class ScriptTimer : public QObject
{
    Q_OBJECT

public:
    /// Waits `delay` on a monotonic clock. Tests pass one that waits for their own clock.
    using Sleep = std::function<QCoro::Task<>(std::chrono::milliseconds delay)>;

    ScriptTimer(Database &database, ChatTree &tree, ChatSession &session, const Speech &speech, StatusBanner &status,
                Sleep sleep = {},
                QObject *parent = nullptr);
    ~ScriptTimer() override;

    /// Another clock to wait on, from the next timer on: for tests that run on their own.
    void setSleep(Sleep sleep) { m_sleep = std::move(sleep); }

    /// Stops the running timer and starts the selected chat's when its script has one.
    /// Called when a chat is opened and whenever a chat's or folder's script changes.
    void restart();
    /// Stops the running timer.
    void stop();
    /// A timer is running (waiting, or asking its script).
    bool isRunning() const { return m_cancel.has_value(); }
    /// No reply is being generated and the user is not putting a message together (text in
    /// the composer, an image waiting).
    bool canTick() const;
    /// Runs one tick of the chat's script and applies its result; answers the seconds until
    /// the next tick that the script asked for. Nothing when the tick was skipped or dropped.
    QCoro::Task<std::optional<double>> tick(qint64 chatID);

Q_SIGNALS:
    /// A tick ran to its end and its result was applied (for tests and measurements).
    void ticked(qint64 chatID);

private:
    QCoro::Task<> run(qint64 chatID, CancellationToken cancel);

    Database &m_database;
    ChatTree &m_tree;
    ChatSession &m_session;
    const Speech &m_speech;
    StatusBanner &m_status;
    Sleep m_sleep;
    std::optional<CancellationToken> m_cancel;
};
