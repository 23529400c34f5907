#include "message_list_model.h"

MessageListModel::MessageListModel(QObject *parent)
    : QAbstractListModel(parent)
{
}

void MessageListModel::setSource(ChatSession *source)
{
    if (m_source == source)
        return;
    if (m_source)
        disconnect(m_source, nullptr, this, nullptr);
    m_source = source;
    if (m_source) {
        connect(m_source, &ChatSession::messagesChanged, this, &MessageListModel::refresh);
        // The summary and its extent arrive with the chat's fields.
        connect(m_source, &ChatSession::currentChatChanged, this, &MessageListModel::updateMarker);
    }
    refresh();
    Q_EMIT sourceChanged();
}

int MessageListModel::markerRow() const
{
    const auto chat = m_source ? m_source->currentChat() : std::nullopt;
    if (!chat || chat->summary.isEmpty())
        return -1;
    const auto first = std::ranges::find_if(m_messages, [&](const Message &m) { return m.id > chat->summaryThroughID; });
    return first == m_messages.end() ? -1 : int(first - m_messages.begin());
}

void MessageListModel::refresh()
{
    QList<Message> messages = m_source ? m_source->visibleMessages() : QList<Message>();
    const auto chat = m_source ? m_source->currentChat() : std::nullopt;
    const qint64 chatID = chat ? chat->id : -1;
    const qsizetype old = m_messages.size();
    const bool appended = chatID == m_chatID && messages.size() >= old
                          && std::equal(m_messages.cbegin(), m_messages.cend(), messages.cbegin());
    if (appended) {
        if (messages.size() > old) {
            beginInsertRows({}, int(old), int(messages.size() - 1));
            m_messages = std::move(messages);
            endInsertRows();
        }
    } else {
        beginResetModel();
        m_messages = std::move(messages);
        m_chatID = chatID;
        m_markerRow = markerRow();
        endResetModel();
        return;
    }
    updateMarker();
}

void MessageListModel::updateMarker()
{
    const int row = markerRow();
    if (row == m_markerRow)
        return;
    const int old = m_markerRow;
    m_markerRow = row;
    for (const int changed : {old, row})
        if (changed >= 0 && changed < m_messages.size())
            Q_EMIT dataChanged(index(changed), index(changed), {ShowsSummaryMarkerRole});
}

int MessageListModel::rowOf(qint64 messageID) const
{
    // Messages are listed in the order they were added, which is the order of their ids.
    const auto it = std::ranges::lower_bound(m_messages, messageID, {}, &Message::id);
    return it != m_messages.end() && it->id == messageID ? int(it - m_messages.begin()) : -1;
}

int MessageListModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : int(m_messages.size());
}

QVariant MessageListModel::data(const QModelIndex &index, int role) const
{
    if (!checkIndex(index, CheckIndexOption::IndexIsValid | CheckIndexOption::ParentIsInvalid))
        return {};
    const Message &message = m_messages[index.row()];
    switch (role) {
    case MessageIDRole:
        return message.id;
    case RoleRole:
        return message.role;
    case Qt::DisplayRole:
    case TextRole:
        return message.display.isEmpty() ? message.body : message.display;
    case CreatedAtRole:
        return message.createdAt;
    case HasImageRole:
        return !message.image.isEmpty();
    case ImageRole:
        return message.image;
    case ImageDescriptionRole:
        return message.imageDescription;
    case ShowsSummaryMarkerRole:
        return index.row() == m_markerRow;
    }
    return {};
}

QHash<int, QByteArray> MessageListModel::roleNames() const
{
    return {{MessageIDRole, "messageID"},
            {RoleRole, "role"},
            {TextRole, "text"},
            {CreatedAtRole, "createdAt"},
            {HasImageRole, "hasImage"},
            {ImageRole, "image"},
            {ImageDescriptionRole, "imageDescription"},
            {ShowsSummaryMarkerRole, "showsSummaryMarker"}};
}
