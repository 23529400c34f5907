// What the window reads and calls: the selected chat's texts, the model list of Settings, and
// the sidebar's commands in the shapes QML can pass (ids as numbers, -1 for none).
#include "app/app_model.h"

#include "models/model_catalogue.h"
#include "models/model_store.h"
#include "storage/database.h"

#include <QJsonDocument>
#include <QJsonObject>

namespace {

std::optional<qint64> idOrNone(qint64 id)
{
    return id < 0 ? std::nullopt : std::optional<qint64>(id);
}

QString roleName(ModelSpec::Role role)
{
    switch (role) {
    case ModelSpec::Role::Chat:
        return QStringLiteral("chat");
    case ModelSpec::Role::Transcription:
        return QStringLiteral("dictation");
    case ModelSpec::Role::Vision:
        return QStringLiteral("vision");
    }
    return {};
}

} // namespace

QString AppModel::currentChatTitle() const
{
    const auto chat = selectedChat();
    return chat ? chat->title : QString();
}

QString AppModel::currentAgentName() const
{
    const auto chat = selectedChat();
    return chat ? effectiveAgentName(*chat) : effectiveAgentName(std::optional<Node>());
}

QString AppModel::currentChatSummary() const
{
    const auto chat = selectedChat();
    return chat ? chat->summary : QString();
}

bool AppModel::currentChatIsSealed() const
{
    const auto chat = selectedChat();
    return chat && chat->isSealed;
}

bool AppModel::hasImageSupport() const
{
    const auto model = languageModel();
    if (!model)
        return false;
    const auto projector = ModelCatalogue::projectorOf(*model, m_modelStore->catalogue());
    return projector && m_modelStore->isInstalled(*projector);
}

QVariantList AppModel::modelChoices() const
{
    const auto chat = languageModel();
    const auto dictation = whisperModel();
    QVariantList choices;
    for (const ModelSpec &spec : m_modelStore->catalogue()) {
        const bool selected = (chat && chat->id == spec.id) || (dictation && dictation->id == spec.id);
        choices.append(QVariantMap{{QStringLiteral("id"), spec.id},
                                   {QStringLiteral("name"), spec.name},
                                   {QStringLiteral("role"), roleName(spec.role)},
                                   {QStringLiteral("byteCount"), spec.byteCount},
                                   {QStringLiteral("installed"), m_modelStore->isInstalled(spec)},
                                   {QStringLiteral("selected"), selected}});
    }
    return choices;
}

void AppModel::selectFolder(qint64 id)
{
    if (!m_tree.find(id) || m_selectedNodeID == id)
        return;
    m_selectedNodeID = id;
    Q_EMIT selectionChanged();
}

qint64 AppModel::newFolder(qint64 parentID)
{
    const auto folder = addFolder(idOrNone(parentID));
    if (!folder)
        return -1;
    m_selectedNodeID = folder->id;
    Q_EMIT selectionChanged();
    return folder->id;
}

void AppModel::newChat(qint64 folderID)
{
    addChat(idOrNone(folderID));
}

void AppModel::moveChat(qint64 chatID, qint64 folderID)
{
    if (!m_tree.find(folderID) || std::ranges::find(m_chats, chatID, &Chat::id) == m_chats.end())
        return;
    if (m_selectedChatID != chatID)
        selectChat(chatID);
    if (m_selectedChatID == chatID)
        moveSelectedChat(folderID);
}

QVariantMap AppModel::folderDetails(qint64 id) const
{
    const Node *node = m_tree.find(id);
    if (!node)
        return {};
    return {{QStringLiteral("name"), node->name},
            {QStringLiteral("prompt"), node->prompt},
            {QStringLiteral("agentName"), node->agentName},
            {QStringLiteral("inheritedAgentName"), inheritedAgentName(std::optional<Node>(*node))},
            {QStringLiteral("isLocked"), node->isLocked},
            {QStringLiteral("isSealed"), node->isSealed},
            {QStringLiteral("hasContents"), folderHasContents(id)}};
}

QVariantMap AppModel::chatDetails(qint64 id) const
{
    const auto chat = std::ranges::find(m_chats, id, &Chat::id);
    if (chat == m_chats.end())
        return {};
    return {{QStringLiteral("title"), chat->title},
            {QStringLiteral("prompt"), chat->prompt},
            {QStringLiteral("autoSpeakReplies"), chat->autoSpeakReplies},
            {QStringLiteral("agentName"), effectiveAgentName(*chat)},
            {QStringLiteral("isSealed"), chat->isSealed}};
}

QVariantMap AppModel::messageMetadata(qint64 messageID)
{
    QString text;
    if (!tryDatabase([&] {
            text = m_database->field(QStringLiteral("messages"), QStringLiteral("metadata"), messageID,
                                     m_database->isMessageSealed(messageID));
        }))
        return {};
    const QJsonObject object = QJsonDocument::fromJson(text.toUtf8()).object();
    if (object.isEmpty())
        return {};
    return {{QStringLiteral("model"), object.value(QStringLiteral("model")).toString()},
            {QStringLiteral("prompt"), object.value(QStringLiteral("prompt")).toString()},
            {QStringLiteral("temperature"), object.value(QStringLiteral("temperature")).toDouble()},
            {QStringLiteral("maxTokens"), object.value(QStringLiteral("max_tokens")).toInteger()}};
}
