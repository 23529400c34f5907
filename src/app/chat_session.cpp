// The chat on screen: its messages, the composer, and what the chat pane's header shows.
#include "app/chat_session.h"

#include "app/app_settings.h"
#include "app/chat_images.h"
#include "app/chat_tree.h"
#include "app/compactor.h"
#include "app/settings_rules.h"
#include "app/status_banner.h"
#include "inference/reply_speed.h"
#include "storage/database.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QTimer>

ChatSession::ChatSession(Database &database, InferenceEngine &inference, ComputeChoice &compute, ChatTree &tree,
                         const AppSettings &settings, const ModelsController &models, ChatImages &images, StatusBanner &status,
                         std::function<bool()> storageBusy, QObject *parent)
    : QObject(parent)
    , m_database(database)
    , m_inference(inference)
    , m_compute(compute)
    , m_tree(tree)
    , m_settings(settings)
    , m_models(models)
    , m_images(images)
    , m_status(status)
    , m_storageBusy(std::move(storageBusy))
    , m_compactor(new Compactor(database, inference, settings, this))
    , m_liveReplyTimer(new QTimer(this))
{
    m_liveReplyTimer->setSingleShot(true);
    m_liveReplyTimer->setInterval(30);
    connect(m_liveReplyTimer, &QTimer::timeout, this, &ChatSession::liveReplyChanged);

    connect(&m_tree, &ChatTree::chatOpened, this, &ChatSession::openSelectedChat);
    // The header's texts come from the chat's row, its folders and the global name.
    connect(&m_tree, &ChatTree::treeChanged, this, &ChatSession::currentChatChanged);
    connect(&m_tree, &ChatTree::selectionChanged, this, &ChatSession::currentChatChanged);
    connect(&m_settings, &AppSettings::changed, this, &ChatSession::currentChatChanged);
    for (auto signal : {&ChatSession::composerChanged, &ChatSession::isGeneratingChanged, &ChatSession::messagesChanged})
        connect(this, signal, this, &ChatSession::canSendChanged);
    connect(&m_images, &ChatImages::pendingImageChanged, this, &ChatSession::canSendChanged);
    connect(&m_tree, &ChatTree::selectionChanged, this, &ChatSession::canSendChanged);
    // A new summary changes the chat's row.
    connect(m_compactor, &Compactor::summaryChanged, &m_tree, &ChatTree::reload);
}

ChatSession::~ChatSession()
{
    stopReply();
}

void ChatSession::openSelectedChat()
{
    m_chatOpenedAt = QDateTime::currentDateTimeUtc();
    // An edit belongs to the chat it began in.
    cancelEditing();
    loadMessages();
}

void ChatSession::loadMessages()
{
    if (m_tree.selectedChatID() == ChatTree::none) {
        m_messages.clear();
        Q_EMIT messagesChanged();
        return;
    }
    m_status.attempt([this] {
        m_messages = m_database.messages(m_tree.selectedChatID());
        Q_EMIT messagesChanged();
    });
}

QList<Message> ChatSession::visibleMessages() const
{
    QList<Message> visible;
    std::ranges::copy_if(m_messages, std::back_inserter(visible), [](const Message &m) { return !m.hidden; });
    return visible;
}

std::optional<Chat> ChatSession::currentChat() const
{
    return m_tree.selectedChat();
}

QString ChatSession::title() const
{
    const auto chat = m_tree.selectedChat();
    return chat ? chat->title : QString();
}

QString ChatSession::agentName() const
{
    const auto chat = m_tree.selectedChat();
    return chat ? m_tree.effectiveAgentName(*chat) : m_tree.effectiveAgentName(std::optional<Node>());
}

QString ChatSession::summary() const
{
    const auto chat = m_tree.selectedChat();
    return chat ? chat->summary : QString();
}

bool ChatSession::isSealed() const
{
    const auto chat = m_tree.selectedChat();
    return chat && chat->isSealed;
}

void ChatSession::setComposer(const QString &text)
{
    if (m_composer == text)
        return;
    m_composer = text;
    Q_EMIT composerChanged();
}

bool ChatSession::isComposing() const
{
    return !Settings::trimmed(m_composer).isEmpty() || !m_images.pendingImage().isEmpty();
}

bool ChatSession::canSend() const
{
    return m_tree.selectedChatID() != ChatTree::none && !isGenerating() && !m_storageBusy() && isComposing();
}

void ChatSession::setLiveReply(const QString &reply)
{
    m_liveReply = reply;
    if (reply.isEmpty()) {
        m_liveReplyTimer->stop();
        Q_EMIT liveReplyChanged();
    } else if (!m_liveReplyTimer->isActive()) {
        m_liveReplyTimer->start();
    }
}

QVariantMap ChatSession::messageMetadata(qint64 messageID)
{
    QString text;
    if (!m_status.attempt([&] {
            text = m_database.field(QStringLiteral("messages"), QStringLiteral("metadata"), messageID,
                                    m_database.isMessageSealed(messageID));
        }))
        return {};
    const QJsonObject object = QJsonDocument::fromJson(text.toUtf8()).object();
    if (object.isEmpty())
        return {};
    const std::optional<ReplySpeed> speed = ReplySpeed::fromJson(object.value(QStringLiteral("speed")).toObject());
    return {{QStringLiteral("model"), object.value(QStringLiteral("model")).toString()},
            {QStringLiteral("prompt"), object.value(QStringLiteral("prompt")).toString()},
            {QStringLiteral("temperature"), object.value(QStringLiteral("temperature")).toDouble()},
            {QStringLiteral("maxTokens"), object.value(QStringLiteral("max_tokens")).toInteger()},
            {QStringLiteral("speed"), speed ? speed->text() : QString()},
            {QStringLiteral("device"), object.value(QStringLiteral("device")).toString()}};
}

CartridgeContext ChatSession::cartridgeContext(const Chat &chat, const QList<Message> &history) const
{
    return CartridgeContext::forChat(chat, m_tree.inheritedAgentName(chat), history, m_chatOpenedAt);
}

void ChatSession::resetAfterErase()
{
    m_messages.clear();
    m_handlesReplies.clear();
    setComposer(QString());
    m_liveDisplay.clear();
    setLiveReply(QString());
    Q_EMIT messagesChanged();
}
