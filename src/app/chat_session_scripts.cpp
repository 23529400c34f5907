// What a script does beyond shaping a reply: the messages it adds, the reply it asks for
// (bounded, so that a script cannot talk to itself for ever), and what the live reply shows
// while it streams.
#include "app/chat_session.h"

#include "app/chat_tree.h"
#include "app/status_banner.h"
#include "scripts/cartridge_engine.h"
#include "scripts/cartridge_error.h"
#include "scripts/cartridge_result.h"
#include "storage/database.h"

#include <QPointer>

namespace {

/// Marks a message as made by a script.
const QString s_scriptMade = QStringLiteral("{\"source\":\"cartridge\"}");
constexpr std::chrono::milliseconds s_partialRenderEvery{250};

} // namespace

void ChatSession::perform(const CartridgeResult &result, const Chat &chat, const QString &trigger)
{
    QList<Message> messages = m_database.messages(chat.id);
    for (const CartridgeInjection &entry : result.inject.value_or(QList<CartridgeInjection>())) {
        Message message;
        message.chatID = chat.id;
        message.role = entry.role;
        message.body = entry.text;
        message.createdAt = QDateTime::currentDateTimeUtc().toString(Qt::ISODate);
        message.id = m_database.addMessage(message, s_scriptMade);
        messages.append(message);
    }
    if (result.inject && m_tree.selectedChatID() == chat.id)
        loadMessages();

    if (result.respond.value_or(false)) {
        const auto lastReply = std::ranges::find(messages.crbegin(), messages.crend(), QStringLiteral("assistant"), &Message::role);
        const bool asked = std::any_of(messages.crbegin(), lastReply,
                                       [](const Message &m) { return m.role == QStringLiteral("user"); });
        if (!asked)
            throw CartridgeError::rejected(QStringLiteral("respond needs a user message injected after the agent's last reply"));
        int &chain = m_automaticReplies[chat.id];
        if (chain >= maxAutomaticReplies) {
            m_status.show(QStringLiteral("Script paused until you reply"));
        } else {
            ++chain;
            startReply(chat, trigger);
        }
    }
    m_tree.reload();
}

void ChatSession::performAfterReply(std::optional<CartridgeResult> result, qint64 chatID, const QString &trigger)
{
    const std::optional<Chat> chat = m_tree.chat(chatID);
    if (!result || !chat)
        return;
    m_status.attempt([&] { perform(*result, *chat, trigger); });
}

QCoro::Task<> ChatSession::renderPartial(Chat chat, QString source, QString text)
{
    // One at a time, at most one every quarter second: a render is a run of the runner.
    if (m_partialRendering || (m_lastPartialRender.isValid() && m_lastPartialRender.elapsed() < s_partialRenderEvery.count()))
        co_return;
    m_partialRendering = true;
    m_lastPartialRender.start();
    const QPointer<ChatSession> alive(this);
    std::optional<CartridgeResult> rendered;
    try {
        CartridgeContext context = cartridgeContext(chat, m_database.messages(chat.id));
        context.trigger = QStringLiteral("reply");
        context.partial = true;
        QCoro::Task<CartridgeResult> run = CartridgeEngine::evaluate(
            source, std::move(context), CartridgeHook::Reply, m_database.cartridgeState(source, chat.id), text);
        rendered = co_await std::move(run);
    } catch (const std::exception &) {
        // A render is only a preview: its failure changes nothing, the final render decides.
    }
    if (!alive)
        co_return;
    m_partialRendering = false;
    // Only the display of a partial render is used, and only while that reply still streams.
    if (rendered && rendered->display && m_replyChatID == chat.id && isGenerating()) {
        m_liveDisplay = *rendered->display;
        Q_EMIT liveReplyChanged();
    }
}
