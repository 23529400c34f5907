// The sidebar's commands and what its sheets read. Every change ends by reloading the tree.
#include "app/chat_tree.h"

#include "app/settings_rules.h"
#include "app/status_banner.h"
#include "storage/database.h"

namespace {

const QString s_newFolderName = QStringLiteral("New folder");
const QString s_newChatTitle = QStringLiteral("New chat");

std::optional<qint64> idOrNone(qint64 id)
{
    return id == ChatTree::none ? std::nullopt : std::optional<qint64>(id);
}

} // namespace

template <typename Work>
void ChatTree::change(Work &&work)
{
    if (!m_rules.editsBlocked() && m_status.attempt(std::forward<Work>(work)))
        reload();
}

void ChatTree::selectChat(qint64 id)
{
    const auto selected = chat(id);
    if (selected && isLockedAway(*selected))
        return;
    setSelection(id, selected ? selected->nodeID : none);
    Q_EMIT chatOpened();
}

void ChatTree::selectNode(qint64 id)
{
    if (!m_tree.find(id) || m_selectedNodeID == id)
        return;
    setSelection(m_selectedChatID, id);
}

void ChatTree::selectFirstOpenChat()
{
    const auto first = std::ranges::find_if(m_chats, [](const Chat &c) { return !c.isSealed; });
    if (first != m_chats.end())
        selectChat(first->id);
}

qint64 ChatTree::addFolder(qint64 parentID)
{
    const std::optional<qint64> parent = idOrNone(parentID);
    if (m_rules.editsBlocked() || raiseUnlockIfLockedAway(parent))
        return none;
    qint64 id = none;
    if (!m_status.attempt([&] { id = m_database.addNode(parent, QStringLiteral("folder"), s_newFolderName); }))
        return none;
    reload();
    return id;
}

void ChatTree::addChat(qint64 folderID)
{
    if (folderID == none)
        folderID = m_selectedNodeID;
    if (folderID == none && !nodes().isEmpty())
        folderID = nodes().first().id;
    if (folderID == none || m_rules.editsBlocked() || raiseUnlockIfLockedAway(folderID))
        return;
    qint64 id = none;
    if (!m_status.attempt([&] { id = m_database.addChat(folderID, s_newChatTitle); }))
        return;
    reload();
    selectChat(id);
}

void ChatTree::renameNode(qint64 id, const QString &name)
{
    const QString trimmed = Settings::trimmed(name);
    if (!trimmed.isEmpty())
        change([&] { m_database.renameNode(id, trimmed); });
}

void ChatTree::renameChat(qint64 id, const QString &title)
{
    const QString trimmed = Settings::trimmed(title);
    if (!trimmed.isEmpty())
        change([&] { m_database.setChatFields({{QStringLiteral("title"), trimmed}}, {}, id); });
}

void ChatTree::moveSelectedChat(qint64 folderID)
{
    const qint64 chatID = m_selectedChatID;
    if (chatID == none || !m_tree.find(folderID) || m_rules.editsBlocked())
        return;
    if (!m_status.attempt([&] { m_database.moveChat(chatID, folderID); }))
        return;
    // A script's name belongs to the folder the chat came from.
    m_cartridgeAgentNames.remove(chatID);
    reload();
    setSelection(m_selectedChatID, folderID);
    Q_EMIT chatMoved(chatID);
}

void ChatTree::setNodePrompt(qint64 id, const QString &text)
{
    change([&] { m_database.setNodePrompt(id, text); });
}

void ChatTree::setNodeAgentName(qint64 id, const QString &text)
{
    change([&] { m_database.setNodeAgentName(id, text); });
}

void ChatTree::setChatPrompt(qint64 id, const QString &text)
{
    change([&] { m_database.setChatFields({{QStringLiteral("prompt"), text}}, {}, id); });
}

void ChatTree::setChatAutoSpeakReplies(qint64 id, bool enabled)
{
    change([&] {
        m_database.execute(QStringLiteral("UPDATE chats SET auto_speak_replies=? WHERE id=?"),
                           {DBValue::integer(enabled ? 1 : 0), DBValue::integer(id)});
    });
}

QVariantMap ChatTree::folderDetails(qint64 id) const
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
            {QStringLiteral("hasContents"), folderHasContents(id)},
            {QStringLiteral("cartridgeName"), node->cartridgeName}};
}

QVariantMap ChatTree::chatDetails(qint64 id) const
{
    const auto found = chat(id);
    if (!found)
        return {};
    return {{QStringLiteral("title"), found->title},
            {QStringLiteral("prompt"), found->prompt},
            {QStringLiteral("autoSpeakReplies"), found->autoSpeakReplies},
            {QStringLiteral("agentName"), effectiveAgentName(*found)},
            {QStringLiteral("cartridgeName"), found->cartridgeName},
            {QStringLiteral("isSealed"), found->isSealed}};
}
