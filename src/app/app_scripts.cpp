// What scripts see of the application: the context of a chat for one hook run.
#include "app/app_model.h"

CartridgeContext AppModel::cartridgeContext(const Chat &chat, const QList<Message> &history) const
{
    return CartridgeContext::forChat(chat, inheritedAgentName(chat), history, m_chatOpenedAt);
}
