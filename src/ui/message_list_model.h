#pragma once

#include "app/chat_session.h"
#include "storage/records.h"

#include <QAbstractListModel>
#include <QPointer>
#include <QtQml/qqmlregistration.h>

/// The selected chat's visible messages for the chat pane. A reply or a sent message only
/// appends rows, so a long chat is not rebuilt every time one arrives; any other change
/// (another chat, a deleted or rewritten message) resets the list.
class MessageListModel : public QAbstractListModel
{
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(ChatSession *source READ source WRITE setSource NOTIFY sourceChanged)

public:
    enum Role {
        MessageIDRole = Qt::UserRole + 1,
        RoleRole, ///< "user", "assistant", …
        TextRole, ///< `display` when not empty, else `body`
        CreatedAtRole, ///< ISO 8601 text, UTC
        HasImageRole,
        ImageRole, ///< the stored image's file name, empty when none
        ImageDescriptionRole, ///< what the vision model saw, empty until described
        /// The first message after the part that the chat's summary covers, when the chat
        /// has a summary: the view marks where remembered-by-summary ends.
        ShowsSummaryMarkerRole,
    };
    Q_ENUM(Role)

    explicit MessageListModel(QObject *parent = nullptr);

    ChatSession *source() const { return m_source; }
    void setSource(ChatSession *source);

    /// The row of the message with `messageID`, -1 when it is not shown.
    Q_INVOKABLE int rowOf(qint64 messageID) const;

    int rowCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

Q_SIGNALS:
    void sourceChanged();

private:
    void refresh();
    void updateMarker();
    int markerRow() const;

    QPointer<ChatSession> m_source;
    QList<Message> m_messages;
    qint64 m_chatID = -1;
    int m_markerRow = -1;
};
