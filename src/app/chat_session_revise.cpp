// Revising the end of the chat: regenerating the last reply, editing and resending the
// user's last message, and the title a new chat takes from its first message.
#include "app/chat_session.h"

#include "app/app_error.h"
#include "app/chat_tree.h"
#include "app/models_controller.h"
#include "app/settings_rules.h"
#include "app/status_banner.h"
#include "storage/database.h"

namespace {

const QString s_newChatTitle = QStringLiteral("New chat");

bool isUsers(const Message &message)
{
    return !message.hidden && message.role == QLatin1String("user");
}

} // namespace

qint64 ChatSession::editableMessageID() const
{
    const auto last = std::ranges::find_if(m_messages.crbegin(), m_messages.crend(), isUsers);
    return last == m_messages.crend() ? -1 : last->id;
}

qint64 ChatSession::regenerableMessageID() const
{
    // Script messages may follow the reply; the reply is the assistant's last word after
    // the user's.
    for (auto it = m_messages.crbegin(); it != m_messages.crend(); ++it) {
        if (isUsers(*it))
            return -1;
        if (!it->hidden && it->role == QLatin1String("assistant"))
            return it->id;
    }
    return -1;
}

bool ChatSession::canRegenerate() const
{
    return m_tree.selectedChatID() != ChatTree::none && !isGenerating() && !m_storageBusy()
           && m_editingMessageID < 0 && editableMessageID() >= 0;
}

void ChatSession::regenerate()
{
    const std::optional<Chat> chat = m_tree.selectedChat();
    if (!chat || !canRegenerate())
        return;
    if (!m_models.languageModel()) {
        m_status.showError(AppError::modelMissing());
        return;
    }
    m_automaticReplies.remove(chat->id);
    const qint64 replaced = regenerableMessageID();
    startReply(*chat, QStringLiteral("user"), replaced >= 0 ? std::optional(replaced) : std::nullopt);
}

void ChatSession::startEditing()
{
    const qint64 id = editableMessageID();
    if (id < 0 || isGenerating() || m_editingMessageID >= 0)
        return;
    const auto message = std::ranges::find(m_messages, id, &Message::id);
    m_draftBeforeEditing = m_composer;
    m_editingMessageID = id;
    setComposer(message->body);
    Q_EMIT editingChanged();
    Q_EMIT canSendChanged();
}

void ChatSession::cancelEditing()
{
    if (m_editingMessageID < 0)
        return;
    m_editingMessageID = -1;
    setComposer(std::exchange(m_draftBeforeEditing, QString()));
    Q_EMIT editingChanged();
    Q_EMIT canSendChanged();
}

void ChatSession::resendEdited(const Chat &chat)
{
    const auto message = std::ranges::find(m_messages, m_editingMessageID, &Message::id);
    const QString text = Settings::trimmed(m_composer);
    // A message that would be left with nothing in it is not a message.
    if (message == m_messages.end() || (text.isEmpty() && message->image.isEmpty()))
        return;
    if (text != message->body && !m_status.attempt([&] { m_database.setMessageBody(message->id, text); }))
        return;
    message->body = text;
    m_editingMessageID = -1;
    setComposer(std::exchange(m_draftBeforeEditing, QString()));
    Q_EMIT editingChanged();
    Q_EMIT messagesChanged();
    m_automaticReplies.remove(chat.id);
    const qint64 replaced = regenerableMessageID();
    startReply(chat, QStringLiteral("user"), replaced >= 0 ? std::optional(replaced) : std::nullopt);
}

QString ChatSession::titleFromMessage(const QString &text)
{
    QString line;
    for (const QString &candidate : text.split(QLatin1Char('\n'))) {
        line = candidate.simplified();
        if (!line.isEmpty())
            break;
    }
    if (line.size() <= maxTitleLength)
        return line;
    // Cut at the last space that keeps a sensible part of the line; a single long word is cut
    // where it must be.
    qsizetype cut = line.lastIndexOf(QLatin1Char(' '), maxTitleLength - 1);
    if (cut < maxTitleLength / 2)
        cut = maxTitleLength - 1;
    return line.left(cut).trimmed() + QStringLiteral("…");
}

void ChatSession::titleFromFirstMessage(const Chat &chat, const QString &text)
{
    // A chat the user named, or one a script started, keeps its name.
    const QString title = titleFromMessage(text);
    if (chat.title != s_newChatTitle || title.isEmpty())
        return;
    if (m_status.attempt([&] { m_database.setChatFields({{QStringLiteral("title"), title}}, {}, chat.id); }))
        m_tree.reload();
}
