#include "platform/cancellation.h"

#include <QTimer>

struct CancellationToken::State : QObject
{
    Q_OBJECT

public:
    bool cancelled = false;

Q_SIGNALS:
    void triggered();
};

CancellationToken::CancellationToken()
    : m_state(std::make_shared<State>())
{
}

void CancellationToken::cancel() const
{
    if (m_state->cancelled)
        return;
    m_state->cancelled = true;
    Q_EMIT m_state->triggered();
}

bool CancellationToken::isCancelled() const
{
    return m_state->cancelled;
}

void CancellationToken::throwIfCancelled() const
{
    if (m_state->cancelled)
        throw CancelledError();
}

QMetaObject::Connection CancellationToken::onCancel(const QObject *context, std::function<void()> callback) const
{
    if (m_state->cancelled) {
        // Asynchronously, like a later cancellation, so that callers see one behaviour.
        QTimer::singleShot(0, context, std::move(callback));
        return {};
    }
    return QObject::connect(m_state.get(), &State::triggered, context, std::move(callback));
}

#include "cancellation.moc"
