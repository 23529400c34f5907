#include "storage/records.h"

namespace {

// An optional id hashes as its presence and its value, so that absent and 0 differ.
std::pair<bool, qint64> hashable(std::optional<qint64> value)
{
    return {value.has_value(), value.value_or(0)};
}

} // namespace

QString Message::transcriptText() const
{
    if (image.isEmpty())
        return body;
    const QString imagePart = imageDescription.isEmpty()
        ? QStringLiteral("[Image]")
        : QStringLiteral("[Image: ") + imageDescription + QLatin1Char(']');
    if (body.isEmpty())
        return imagePart;
    return imagePart + QStringLiteral("\n\n") + body;
}

size_t qHash(const Node &n, size_t seed)
{
    const auto parent = hashable(n.parentID);
    return qHashMulti(seed, n.id, parent.first, parent.second, n.kind, n.name, n.prompt,
                      n.agentName, n.cartridgeSource, n.cartridgeName, n.cartridgeAgentName,
                      n.isLocked, n.isSealed);
}

size_t qHash(const Chat &c, size_t seed)
{
    const auto folder = hashable(c.cartridgeFolderID);
    return qHashMulti(seed, c.id, c.nodeID, c.title, c.prompt, c.autoSpeakReplies,
                      c.cartridgeSource, c.cartridgeName, c.cartridgeAgentName, folder.first,
                      folder.second, c.summary, c.summaryThroughID, c.isSealed);
}

size_t qHash(const Message &m, size_t seed)
{
    return qHashMulti(seed, m.id, m.chatID, m.role, m.body, m.createdAt, m.image,
                      m.imageDescription, m.display, m.hidden, m.data);
}

size_t qHash(const SearchHit &h, size_t seed)
{
    return qHashMulti(seed, h.id, h.chatID, h.chatTitle, h.snippet);
}
