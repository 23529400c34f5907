// Replies: storing the user's message, the one reply task with its status texts, the prompt
// and history sent to the local model, streaming, Stop, and storing the assistant's answer.
#include "app/chat_session.h"

#include "app/app_error.h"
#include "app/app_settings.h"
#include "app/chat_images.h"
#include "app/chat_tree.h"
#include "app/compactor.h"
#include "app/compute_choice.h"
#include "app/models_controller.h"
#include "app/reply_context.h"
#include "app/settings_rules.h"
#include "app/status_banner.h"
#include "images/image_store.h"
#include "inference/inference_engine.h"
#include "scripts/cartridge_engine.h"
#include "storage/database.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QPointer>

namespace {

const QString s_loading = QStringLiteral("Loading local model…");
const QString s_runningScript = QStringLiteral("Running script…");
const QString s_lookingAtImage = QStringLiteral("Looking at the image…");
const QString s_preparing = QStringLiteral("Preparing context…");
const QString s_generating = QStringLiteral("Generating…");
const QString s_ready = QStringLiteral("Ready");

/// Ends a task that resumes after its session is gone (the application quit while it
/// waited): nothing of the session may be touched any more.
void throwIfGone(const QPointer<ChatSession> &session)
{
    if (!session)
        throw CancelledError();
}

} // namespace

void ChatSession::send()
{
    const std::optional<Chat> chat = m_tree.selectedChat();
    if (!chat || isGenerating() || m_storageBusy())
        return;
    if (!m_models.languageModel()) {
        m_status.showError(AppError::modelMissing());
        return;
    }
    if (m_editingMessageID >= 0) {
        resendEdited(*chat);
        return;
    }
    const QString text = Settings::trimmed(m_composer);
    const QString image = m_images.pendingImage();
    if (text.isEmpty() && image.isEmpty())
        return;
    if (!image.isEmpty() && !m_models.installedProjector(*m_models.languageModel())) {
        m_status.showError(AppError::visionMissing(m_models.languageModel()->name));
        return;
    }
    Message message;
    message.chatID = chat->id;
    message.role = QStringLiteral("user");
    message.body = text;
    message.image = image;
    message.createdAt = QDateTime::currentDateTimeUtc().toString(Qt::ISODate);
    if (!m_status.attempt([&] { message.id = m_database.addMessage(message); }))
        return;
    setComposer(QString());
    m_images.takePendingImage();
    // The user wrote: a script may ask for replies again.
    m_automaticReplies.remove(chat->id);
    if (std::ranges::none_of(m_messages, [](const Message &m) { return m.role == QLatin1String("user"); }))
        titleFromFirstMessage(*chat, text);
    m_messages.append(message);
    Q_EMIT messagesChanged();
    startReply(*chat, QStringLiteral("user"));
}

void ChatSession::startReply(const Chat &chat, const QString &trigger, std::optional<qint64> replacing)
{
    const std::optional<ModelSpec> model = m_models.languageModel();
    if (!model) {
        m_status.showError(AppError::modelMissing());
        return;
    }
    if (isGenerating())
        return;
    m_generationCancel = CancellationToken();
    m_replyChatID = chat.id;
    Q_EMIT isGeneratingChanged();
    m_liveDisplay.clear();
    setLiveReply(QString());
    m_status.show(s_loading);
    runReply(chat, *model, trigger, replacing, *m_generationCancel);
}

void ChatSession::stopReply()
{
    if (m_generationCancel)
        m_generationCancel->cancel();
}

QCoro::Task<> ChatSession::runReply(Chat chat, ModelSpec model, QString trigger, std::optional<qint64> replacing,
                                    CancellationToken cancel)
{
    const QPointer<ChatSession> alive(this);
    std::optional<CartridgeResult> rendered;
    try {
        rendered = co_await generateReply(chat, model, trigger, replacing, cancel);
    } catch (const std::exception &error) {
        if (!alive)
            co_return;
        // A request torn down by Stop may fail in its own words; the user asked for it.
        if (cancel.isCancelled())
            m_status.showError(CancelledError());
        else
            m_status.showError(error);
    }
    m_liveDisplay.clear();
    setLiveReply(QString());
    m_generationCancel.reset();
    m_replyChatID.reset();
    Q_EMIT isGeneratingChanged();
    // What the script's reply hook asks for next (messages, a further reply) runs once this
    // reply has ended, so that a reply it asks for can start.
    performAfterReply(std::move(rendered), chat.id, QStringLiteral("reply"));
}

QCoro::Task<std::optional<CartridgeResult>> ChatSession::generateReply(Chat chat, ModelSpec model, QString trigger,
                                                                      std::optional<qint64> replacing,
                                                                      CancellationToken cancel)
{
    // The reply being replaced stays stored until the new one is, but the model and the
    // script never see it.
    const auto history = [&] {
        QList<Message> messages = m_database.messages(chat.id);
        if (replacing)
            messages.removeIf([&](const Message &m) { return m.id == *replacing; });
        return messages;
    };
    // 1. The model, with image support when the chat holds images and it is installed.
    QList<Message> messages = history();
    std::optional<QString> projectorPath;
    if (std::ranges::any_of(messages, [](const Message &m) { return !m.image.isEmpty(); })) {
        if (const auto projector = m_models.installedProjector(model))
            projectorPath = m_models.filePath(*projector);
    }
    const QPointer<ChatSession> alive(this);
    m_status.show(s_loading);
    const QString device =
        co_await m_compute.load(model, m_models.filePath(model), projectorPath, m_settings.contextTokens(), cancel);
    throwIfGone(alive);
    cancel.throwIfCancelled();

    // 2. Images not yet described are looked at once; the words stay for later turns, the
    //    search index and summaries.
    if (projectorPath) {
        for (const Message &message : messages) {
            if (message.image.isEmpty() || !message.imageDescription.isEmpty())
                continue;
            m_status.show(s_lookingAtImage);
            QByteArray jpeg;
            if (!m_status.attempt([&] { jpeg = m_images.store().data(message.image); }))
                continue;
            const QString description = co_await m_inference.describeImage(jpeg);
            throwIfGone(alive);
            cancel.throwIfCancelled();
            m_database.setMessageImageDescription(message.id, description);
        }
        messages = history();
    }

    // 3. The chat's script, for this trigger; its state is kept at once. The turn result
    //    shapes this reply only; the reply hook's result is what the caller acts on.
    const QString source = m_tree.cartridgeSource(chat);
    std::optional<CartridgeResult> result;
    if (!source.isEmpty()) {
        m_status.show(s_runningScript);
        CartridgeContext context = cartridgeContext(chat, messages);
        context.trigger = trigger;
        const QString state = m_database.cartridgeState(source, chat.id);
        result = co_await CartridgeEngine::evaluate(source, context, CartridgeHook::Turn, state);
        throwIfGone(alive);
        cancel.throwIfCancelled();
        if (result->state)
            m_database.setCartridgeState(*result->state, source, chat.id);
    }

    // 4. Generation settings, which a script may change for this reply only.
    const double temperature = result && result->temperature ? *result->temperature : m_settings.temperature();
    const qint64 maxTokens = result && result->maxTokens ? *result->maxTokens : m_settings.maxResponseTokens();
    if (result && result->agentName) {
        m_database.setChatFields({{QStringLiteral("cartridge_agent_name"), *result->agentName}}, {}, chat.id);
        m_tree.reload();
        // This reply already speaks with the new name.
        chat.cartridgeAgentName = *result->agentName;
    }

    // 5. and 6. The system prompt and the history after the summary.
    m_status.show(s_preparing);
    const auto [summary, summaryThroughID] = m_database.chatSummary(chat.id);
    const QString systemPrompt = ReplyContext::systemPrompt(
        m_tree.effectivePrompt(chat), result ? result->prompt.value_or(QString()) : QString(), messages, summary);
    // The newest readable image goes to the model itself when it can see; every other image
    // is put in words.
    const auto readImage = [this, sees = projectorPath.has_value()](const Message &message) {
        std::optional<ExchangeFormat::LatestImage> image;
        if (sees) {
            try {
                image = ExchangeFormat::LatestImage{m_images.store().data(message.image),
                                                    m_images.store().estimatedTokens(message.image)};
            } catch (const std::exception &) {
                // Unreadable (locked, damaged, gone): described in words like the others.
            }
        }
        return image;
    };
    const ReplyContext::History sent =
        ReplyContext::history(ReplyContext::unsummarized(messages, summaryThroughID), readImage);

    // 7. Fit, then stream.
    const QJsonArray request = co_await m_inference.fittedMessages(
        systemPrompt, sent.entries, sent.latestImage, m_settings.contextTokens(), maxTokens);
    throwIfGone(alive);
    cancel.throwIfCancelled();
    // Whether the script renders the reply as it streams, asked once per chat and script.
    const bool renders = !source.isEmpty() && co_await handlesReplies(chat, source);
    throwIfGone(alive);
    m_status.show(s_generating);
    QString reply;
    const ReplySpeed speed = co_await m_inference.stream(
        request, int(maxTokens), temperature,
        [this, &reply, renders, &chat, &source](const QString &token) {
            reply += token;
            setLiveReply(reply);
            if (renders)
                renderPartial(chat, source, reply);
        },
        cancel);
    throwIfGone(alive);
    cancel.throwIfCancelled();

    // 8. Store what came, if anything did.
    reply = Settings::trimmed(reply);
    if (reply.isEmpty()) {
        if (m_tree.selectedChatID() == chat.id)
            loadMessages();
        m_status.show(m_compute.takeNotice().value_or(s_ready));
        co_return std::nullopt;
    }
    QJsonObject metadata{{QStringLiteral("model"), model.id},
                         {QStringLiteral("prompt"), systemPrompt},
                         {QStringLiteral("temperature"), temperature},
                         {QStringLiteral("max_tokens"), maxTokens},
                         {QStringLiteral("device"), device}};
    if (const QJsonObject measured = speed.toJson(); !measured.isEmpty())
        metadata.insert(QStringLiteral("speed"), measured);
    std::optional<CartridgeResult> rendered = co_await saveAgentMessage(
        reply, chat, QString::fromUtf8(QJsonDocument(metadata).toJson(QJsonDocument::Compact)), replacing);
    throwIfGone(alive);
    // A move to the CPU stays in the status line once the reply is in.
    m_status.show(m_compute.takeNotice().value_or(s_ready));
    // Compaction of this chat runs beside later replies, with this reply's prompt and limit.
    m_compactor->start(chat.id, systemPrompt, maxTokens);
    co_return rendered;
}

QCoro::Task<bool> ChatSession::handlesReplies(Chat chat, QString source)
{
    if (const auto known = m_handlesReplies.constFind(chat.id);
        known != m_handlesReplies.cend() && known->first == source)
        co_return known->second;
    const QPointer<ChatSession> alive(this);
    const CartridgeResult info = co_await CartridgeEngine::evaluate(
        source, cartridgeContext(chat, {}), CartridgeHook::Info, m_database.cartridgeState(source, chat.id));
    throwIfGone(alive);
    const bool handles = info.hasOnReply.value_or(false);
    m_handlesReplies.insert(chat.id, {source, handles});
    co_return handles;
}

QCoro::Task<std::optional<CartridgeResult>> ChatSession::saveAgentMessage(QString reply, Chat chat, QString metadata,
                                                                         std::optional<qint64> replacing)
{
    // A script that handles replies sees the reply once more and may render it.
    Message message;
    message.chatID = chat.id;
    message.role = QStringLiteral("assistant");
    message.body = reply;
    const QString source = m_tree.cartridgeSource(chat);
    const QPointer<ChatSession> alive(this);
    std::optional<CartridgeResult> rendered;
    if (!source.isEmpty() && co_await handlesReplies(chat, source)) {
        QList<Message> history = m_database.messages(chat.id);
        if (replacing)
            history.removeIf([&](const Message &m) { return m.id == *replacing; });
        CartridgeContext context = cartridgeContext(chat, history);
        context.trigger = QStringLiteral("reply");
        const QString state = m_database.cartridgeState(source, chat.id);
        rendered = co_await CartridgeEngine::evaluate(source, context, CartridgeHook::Reply, state, reply);
        throwIfGone(alive);
        message.display = rendered->display.value_or(QString());
        message.data = rendered->data.value_or(QString());
        if (rendered->state)
            m_database.setCartridgeState(*rendered->state, source, chat.id);
    }
    // The new reply takes the old one's place in one step: never both, never neither.
    m_database.inTransaction([&] {
        m_database.addMessage(message, metadata);
        if (replacing)
            m_database.deleteMessages({*replacing});
    });
    // Only the chat on screen is re-read and spoken; a reply that finishes elsewhere is simply
    // stored.
    if (m_tree.selectedChatID() == chat.id) {
        loadMessages();
        if (const std::optional<Chat> current = m_tree.chat(chat.id); current && current->autoSpeakReplies)
            Q_EMIT replyToSpeak(message.display.isEmpty() ? reply : message.display);
    }
    co_return rendered;
}
