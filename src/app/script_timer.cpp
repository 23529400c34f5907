#include "app/script_timer.h"

#include "app/chat_session.h"
#include "app/speech.h"
#include "app/chat_tree.h"
#include "app/status_banner.h"
#include "scripts/cartridge_engine.h"
#include "storage/database.h"

#include <QPointer>

#include <QCoro/QCoroTimer>

namespace {

std::chrono::milliseconds fromSeconds(double seconds)
{
    return std::chrono::milliseconds(qint64(seconds * 1000));
}

QCoro::Task<> monotonicSleep(std::chrono::milliseconds delay)
{
    // QTimer runs on the monotonic clock: a changed wall clock neither hurries nor delays it.
    QTimer timer;
    timer.setTimerType(Qt::CoarseTimer);
    timer.setSingleShot(true);
    timer.start(delay);
    co_await timer;
}

} // namespace

ScriptTimer::ScriptTimer(Database &database, ChatTree &tree, ChatSession &session, const Speech &speech,
                         StatusBanner &status, Sleep sleep, QObject *parent)
    : QObject(parent)
    , m_database(database)
    , m_tree(tree)
    , m_session(session)
    , m_speech(speech)
    , m_status(status)
    , m_sleep(sleep ? std::move(sleep) : Sleep(monotonicSleep))
{
}

ScriptTimer::~ScriptTimer()
{
    stop();
}

void ScriptTimer::stop()
{
    if (m_cancel)
        m_cancel->cancel();
    m_cancel.reset();
}

void ScriptTimer::restart()
{
    stop();
    const std::optional<Chat> chat = m_tree.selectedChat();
    if (!chat || m_tree.cartridgeSource(*chat).isEmpty())
        return;
    m_cancel = CancellationToken();
    run(chat->id, *m_cancel);
}

bool ScriptTimer::canTick() const
{
    // A script never talks over a user who is writing, dictating or waiting for a reply.
    return !m_session.isGenerating() && !m_speech.isRecording() && !m_speech.isTranscribing()
           && !m_session.isComposing();
}

QCoro::Task<> ScriptTimer::run(qint64 chatID, CancellationToken cancel)
{
    const QPointer<ScriptTimer> self(this);
    const auto over = [&] { return !self || cancel.isCancelled(); };
    try {
        const std::optional<Chat> chat = m_tree.chat(chatID);
        if (!chat)
            co_return;
        QCoro::Task<CartridgeResult> asking = CartridgeEngine::evaluate(
            m_tree.cartridgeSource(*chat), m_session.cartridgeContext(*chat, {}), CartridgeHook::Info, QString());
        const CartridgeResult info = co_await std::move(asking);
        if (over())
            co_return;
        if (!info.tickEvery) {
            // This script has no timer.
            m_cancel.reset();
            co_return;
        }
        const std::chrono::milliseconds every = fromSeconds(*info.tickEvery);
        std::chrono::milliseconds delay = every;
        for (;;) {
            QCoro::Task<> waiting = m_sleep(delay);
            co_await std::move(waiting);
            if (over())
                co_return;
            QCoro::Task<std::optional<double>> ticking = tick(chatID);
            const std::optional<double> next = co_await std::move(ticking);
            if (over())
                co_return;
            // `next` sets the following delay only; then the script's period applies again.
            delay = next ? fromSeconds(*next) : every;
        }
    } catch (const std::exception &error) {
        if (!over()) {
            m_status.showError(error);
            m_cancel.reset();
        }
    }
}

QCoro::Task<std::optional<double>> ScriptTimer::tick(qint64 chatID)
{
    if (!canTick())
        co_return std::nullopt;
    const std::optional<Chat> chat = m_tree.chat(chatID);
    const QString source = chat ? m_tree.cartridgeSource(*chat) : QString();
    if (source.isEmpty())
        co_return std::nullopt;
    const QString state = m_database.cartridgeState(source, chatID);
    CartridgeContext context = m_session.cartridgeContext(*chat, m_database.messages(chatID));
    context.trigger = QStringLiteral("tick");

    const QPointer<ScriptTimer> self(this);
    QCoro::Task<CartridgeResult> ticking = CartridgeEngine::evaluate(source, std::move(context), CartridgeHook::Tick, state);
    const CartridgeResult result = co_await std::move(ticking);
    // The world may have moved on while the script ran: the user started typing, a reply
    // began, another chat was opened, or the script was replaced.
    if (!self || !canTick() || m_tree.selectedChatID() != chatID)
        co_return std::nullopt;
    const std::optional<Chat> now = m_tree.chat(chatID);
    if (!now || m_tree.cartridgeSource(*now) != source)
        co_return std::nullopt;
    // A newer state written meanwhile (by a reply) is kept rather than overwritten.
    if (result.state && m_database.cartridgeState(source, chatID) == state)
        m_database.setCartridgeState(*result.state, source, chatID);
    m_session.perform(result, *now, QStringLiteral("tick"));
    Q_EMIT ticked(chatID);
    co_return result.next;
}
