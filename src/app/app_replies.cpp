// Replies: storing the user's message, the one reply task with its status texts, the prompt
// and history sent to the local model, streaming, Stop, and storing the assistant's answer.
#include "app/app_model.h"

#include "app/app_error.h"
#include "app/reply_context.h"
#include "app/settings_rules.h"
#include "inference/inference_engine.h"
#include "models/model_catalogue.h"
#include "models/model_store.h"
#include "scripts/cartridge_engine.h"
#include "storage/database.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QTimer>

namespace {

const QString s_loading = QStringLiteral("Loading local model…");
const QString s_runningScript = QStringLiteral("Running script…");
const QString s_preparing = QStringLiteral("Preparing context…");
const QString s_generating = QStringLiteral("Generating…");

QString nowText()
{
    return QDateTime::currentDateTimeUtc().toString(Qt::ISODate);
}

} // namespace

void AppModel::setComposer(const QString &text)
{
    if (m_composer == text)
        return;
    m_composer = text;
    Q_EMIT composerChanged();
}

bool AppModel::canSend() const
{
    return m_selectedChatID && !m_isGenerating
           && (!Settings::trimmed(m_composer).isEmpty() || m_pendingImage.has_value());
}

void AppModel::setLiveReply(const QString &reply)
{
    m_liveReply = reply;
    if (reply.isEmpty()) {
        m_liveReplyTimer->stop();
        Q_EMIT liveReplyChanged();
    } else if (!m_liveReplyTimer->isActive()) {
        m_liveReplyTimer->start();
    }
}

QString AppModel::cartridgeSource(const Chat &chat) const
{
    if (!chat.cartridgeSource.isEmpty())
        return chat.cartridgeSource;
    const Node *folder = m_tree.cartridgeFolder(chat.nodeID);
    return folder ? folder->cartridgeSource : QString();
}

qint64 AppModel::insertMessage(qint64 chatID, const QString &role, const QString &body, const QString &metadata,
                               const QString &image, const QString &display, const QString &data)
{
    Database &db = *m_database;
    const bool sealed = db.isChatSealed(chatID);
    db.execute(QStringLiteral("INSERT INTO messages(chat_id, role, body, created_at, metadata, image, display, hidden, data) VALUES(?,?,?,?,?,?,?,?,?)"),
               {DBValue::integer(chatID), DBValue::text(role), DBValue::text(db.seal(body, sealed)),
                DBValue::text(nowText()), DBValue::text(db.seal(metadata, sealed)),
                DBValue::text(db.seal(image, sealed)), DBValue::text(db.seal(display, sealed)), DBValue::flag(false),
                DBValue::text(db.seal(data, sealed))});
    return db.lastInsertedID();
}

void AppModel::send()
{
    const std::optional<Chat> chat = selectedChat();
    if (!chat || m_isGenerating)
        return;
    const std::optional<ModelSpec> model = languageModel();
    if (!model) {
        showError(AppError::modelMissing());
        return;
    }
    const QString text = Settings::trimmed(m_composer);
    if (text.isEmpty() && !m_pendingImage)
        return;
    if (m_pendingImage) {
        const auto projector = ModelCatalogue::projectorOf(*model, m_modelStore->catalogue());
        if (!projector || !m_modelStore->isInstalled(*projector)) {
            showError(AppError::visionMissing(model->name));
            return;
        }
    }
    Message message;
    message.chatID = chat->id;
    message.role = QStringLiteral("user");
    message.body = text;
    message.createdAt = nowText();
    message.image = m_pendingImage.value_or(QString());
    if (!tryDatabase([&] {
            message.id = insertMessage(chat->id, message.role, text, QString(), message.image, QString(), QString());
        }))
        return;
    setComposer(QString());
    // The image file now belongs to the message, so it is forgotten rather than deleted.
    m_pendingImage.reset();
    m_messages.append(message);
    Q_EMIT messagesChanged();
    startReply(*chat, QStringLiteral("user"));
}

void AppModel::startReply(const Chat &chat, const QString &trigger)
{
    const std::optional<ModelSpec> model = languageModel();
    if (!model) {
        showError(AppError::modelMissing());
        return;
    }
    if (m_isGenerating)
        return;
    m_isGenerating = true;
    Q_EMIT activityChanged();
    m_liveDisplay.clear();
    setLiveReply(QString());
    setStatus(s_loading, false);
    m_generationCancel = CancellationToken();
    runReply(chat, *model, trigger, *m_generationCancel);
}

void AppModel::stopReply()
{
    if (m_generationCancel)
        m_generationCancel->cancel();
}

QCoro::Task<> AppModel::runReply(Chat chat, ModelSpec model, QString trigger, CancellationToken cancel)
{
    const QPointer<AppModel> alive(this);
    std::optional<CartridgeResult> result;
    bool cancelled = false;
    try {
        result = co_await generateReply(chat, model, trigger, cancel);
    } catch (const std::exception &error) {
        if (!alive)
            co_return;
        // A request torn down by Stop may fail in its own words; the user asked for it.
        cancelled = cancel.isCancelled();
        if (!cancelled)
            showError(error);
    }
    if (cancelled)
        setStatus(QStringLiteral("Stopped"), false);
    m_liveDisplay.clear();
    setLiveReply(QString());
    m_generationCancel.reset();
    m_isGenerating = false;
    Q_EMIT activityChanged();
    // A script's follow-up actions (messages to add, a further reply) run here once scripts
    // can act; until then a turn result only shapes the reply it belongs to.
    Q_UNUSED(result);
}

QCoro::Task<std::optional<CartridgeResult>> AppModel::generateReply(Chat chat, ModelSpec model, QString trigger,
                                                                   CancellationToken cancel)
{
    // 1. The model, with image support when the chat holds images and it is installed.
    const QList<Message> messages = m_database->messages(chat.id);
    std::optional<QString> projectorPath;
    if (std::ranges::any_of(messages, [](const Message &m) { return !m.image.isEmpty(); })) {
        const auto projector = ModelCatalogue::projectorOf(model, m_modelStore->catalogue());
        if (projector && m_modelStore->isInstalled(*projector))
            projectorPath = m_modelStore->filePath(*projector);
    }
    const QPointer<AppModel> alive(this);
    setStatus(s_loading, false);
    co_await m_inference->load(m_modelStore->filePath(model), projectorPath, m_contextTokens, cancel);
    throwIfGone(alive);
    cancel.throwIfCancelled();

    // 2. Images are described here once the image store keeps them.

    // 3. The chat's script, for this trigger; its state is kept at once.
    const QString source = cartridgeSource(chat);
    std::optional<CartridgeResult> result;
    if (!source.isEmpty()) {
        setStatus(s_runningScript, false);
        CartridgeContext context = cartridgeContext(chat, messages);
        context.trigger = trigger;
        const QString state = m_database->cartridgeState(source, chat.id);
        result = co_await CartridgeEngine::evaluate(source, context, CartridgeHook::Turn, state);
        throwIfGone(alive);
        cancel.throwIfCancelled();
        if (result->state)
            m_database->setCartridgeState(*result->state, source, chat.id);
    }

    // 4. Generation settings, which a script may change for this reply only.
    const double temperature = result && result->temperature ? *result->temperature : m_temperature;
    const qint64 maxTokens = result && result->maxTokens ? *result->maxTokens : m_maxResponseTokens;
    if (result && result->agentName) {
        m_database->setChatFields({{QStringLiteral("cartridge_agent_name"), *result->agentName}}, {}, chat.id);
        reload();
        // This reply already speaks with the new name.
        chat.cartridgeAgentName = *result->agentName;
    }

    // 5. and 6. The system prompt and the history after the summary.
    setStatus(s_preparing, false);
    const auto [summary, summaryThroughID] = m_database->chatSummary(chat.id);
    const QString systemPrompt = ReplyContext::systemPrompt(
        effectivePrompt(chat), result ? result->prompt.value_or(QString()) : QString(), messages, summary);
    // No image can be read back until the image store keeps them, so every image is
    // described in words.
    const ReplyContext::History history = ReplyContext::history(
        ReplyContext::unsummarized(messages, summaryThroughID),
        [](const Message &) { return std::optional<ExchangeFormat::LatestImage>(); });

    // 7. Fit, then stream.
    const QJsonArray request = co_await m_inference->fittedMessages(systemPrompt, history.entries,
                                                                    history.latestImage, m_contextTokens, maxTokens);
    throwIfGone(alive);
    cancel.throwIfCancelled();
    setStatus(s_generating, false);
    QString reply;
    co_await m_inference->stream(
        request, int(maxTokens), temperature,
        [this, &reply](const QString &token) {
            reply += token;
            setLiveReply(reply);
        },
        cancel);
    throwIfGone(alive);
    cancel.throwIfCancelled();

    // 8. Store what came, if anything did.
    reply = Settings::trimmed(reply);
    if (reply.isEmpty()) {
        if (m_selectedChatID == chat.id)
            loadMessages();
        setStatus(QStringLiteral("Ready"), false);
        co_return result;
    }
    const QJsonObject metadata{{QStringLiteral("model"), model.id},
                               {QStringLiteral("prompt"), systemPrompt},
                               {QStringLiteral("temperature"), temperature},
                               {QStringLiteral("max_tokens"), maxTokens}};
    co_await saveAgentMessage(reply, chat, QString::fromUtf8(QJsonDocument(metadata).toJson(QJsonDocument::Compact)));
    throwIfGone(alive);
    setStatus(QStringLiteral("Ready"), false);
    // Compaction of this chat runs beside later replies, with this reply's prompt and limit.
    cancelCompaction();
    m_compactionCancel = CancellationToken();
    runCompaction(chat.id, systemPrompt, maxTokens, *m_compactionCancel, ++m_compactionRuns);
    co_return result;
}

QCoro::Task<bool> AppModel::handlesReplies(Chat chat, QString source)
{
    if (const auto known = m_handlesReplies.constFind(chat.id);
        known != m_handlesReplies.cend() && known->first == source)
        co_return known->second;
    const QPointer<AppModel> alive(this);
    const CartridgeResult info = co_await CartridgeEngine::evaluate(
        source, cartridgeContext(chat, {}), CartridgeHook::Info, m_database->cartridgeState(source, chat.id));
    throwIfGone(alive);
    const bool handles = info.hasOnReply.value_or(false);
    m_handlesReplies.insert(chat.id, {source, handles});
    co_return handles;
}

QCoro::Task<> AppModel::saveAgentMessage(QString reply, Chat chat, QString metadata)
{
    // A script that handles replies sees the reply once more and may render it.
    QString display;
    QString data;
    const QString source = cartridgeSource(chat);
    const QPointer<AppModel> alive(this);
    if (!source.isEmpty() && co_await handlesReplies(chat, source)) {
        CartridgeContext context = cartridgeContext(chat, m_database->messages(chat.id));
        context.trigger = QStringLiteral("reply");
        const QString state = m_database->cartridgeState(source, chat.id);
        const CartridgeResult rendered =
            co_await CartridgeEngine::evaluate(source, context, CartridgeHook::Reply, state, reply);
        throwIfGone(alive);
        display = rendered.display.value_or(QString());
        data = rendered.data.value_or(QString());
        if (rendered.state)
            m_database->setCartridgeState(*rendered.state, source, chat.id);
    }
    insertMessage(chat.id, QStringLiteral("assistant"), reply, metadata, QString(), display, data);
    // Only the chat on screen is re-read; a reply that finishes elsewhere is simply stored.
    // Speaking the reply (auto play) joins here with the speech engine.
    if (m_selectedChatID == chat.id)
        loadMessages();
}
