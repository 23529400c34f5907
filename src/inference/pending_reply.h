#pragma once

#include "platform/cancellation.h"

#include <QNetworkReply>
#include <QPointer>

/// A network reply owned by the coroutine that waits on it. The engine's network manager
/// deletes its replies when the engine goes away (the application quits), possibly while a
/// coroutine still waits on one; after each wait `throwIfGone` ends that coroutine instead
/// of letting it touch the deleted reply.
class PendingReply
{
public:
    explicit PendingReply(QNetworkReply *reply)
        : m_reply(reply)
    {
    }
    ~PendingReply()
    {
        if (m_reply)
            m_reply->deleteLater();
    }
    PendingReply(const PendingReply &) = delete;
    PendingReply &operator=(const PendingReply &) = delete;

    QNetworkReply *get() const { return m_reply.data(); }
    QNetworkReply *operator->() const { return m_reply.data(); }

    /// Throws CancelledError when the reply was deleted with its engine.
    void throwIfGone() const
    {
        if (!m_reply)
            throw CancelledError();
    }

private:
    QPointer<QNetworkReply> m_reply;
};
