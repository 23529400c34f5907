#pragma once

#include <QHashFunctions>
#include <QString>

#include <optional>
#include <variant>

// The plain values that Database returns and the rest of the application passes around. None
// of them refers to the connection. Equality and hashing cover every field in declaration
// order, so that views notice a changed record whose id stayed the same.

/// A folder in the tree (one row of `nodes`).
struct Node
{
    qint64 id = 0;
    std::optional<qint64> parentID; ///< absent for a top-level folder, never 0
    QString kind;
    QString name; ///< decrypted when the node is sealed
    QString prompt;
    QString agentName;
    QString cartridgeSource;
    QString cartridgeName;
    QString cartridgeAgentName;
    bool isLocked = false; ///< the user locked this folder itself
    bool isSealed = false; ///< this folder or an ancestor is locked; its texts are encrypted

    bool operator==(const Node &) const = default;
};

/// One chat (one row of `chats`, without its script state, which has its own accessors).
struct Chat
{
    qint64 id = 0;
    qint64 nodeID = 0;
    QString title;
    QString prompt;
    bool autoSpeakReplies = false;
    QString cartridgeSource;
    QString cartridgeName;
    QString cartridgeAgentName;
    /// Not stored: the application model sets it to the folder whose script the chat
    /// inherits. Always absent when read from the database.
    std::optional<qint64> cartridgeFolderID;
    QString summary;
    qint64 summaryThroughID = 0; ///< last message the summary covers, 0 when none
    bool isSealed = false;

    bool operator==(const Chat &) const = default;
};

/// One message (one row of `messages`, without its `metadata`).
struct Message
{
    qint64 id = 0;
    qint64 chatID = 0;
    QString role;
    QString body;
    QString createdAt; ///< ISO 8601, UTC, whole seconds, e.g. 2026-11-15T20:20:44Z
    QString image; ///< file name in the image store, empty when none
    QString imageDescription;
    QString display; ///< shown instead of `body` when not empty
    bool hidden = false;
    QString data;

    /// The message as text for a transcript or a summary request: the body, preceded by
    /// "[Image: description]" (or "[Image]") and a blank line when an image is attached.
    QString transcriptText() const;

    bool operator==(const Message &) const = default;
};

/// One search result. For a message hit `id` is the message id; for a chat title hit it is
/// the chat id negated, so that it never equals a message id.
struct SearchHit
{
    qint64 id = 0;
    qint64 chatID = 0;
    QString chatTitle;
    QString snippet; ///< matched words between U+0002 and U+0003

    bool operator==(const SearchHit &) const = default;
};

size_t qHash(const Node &node, size_t seed = 0);
size_t qHash(const Chat &chat, size_t seed = 0);
size_t qHash(const Message &message, size_t seed = 0);
size_t qHash(const SearchHit &hit, size_t seed = 0);

/// The value bound to one "?" parameter. Booleans are bound as the integers 0 and 1, an
/// absent id as NULL.
class DBValue
{
public:
    enum class Kind { Int, Text, Null };

    static DBValue integer(qint64 value) { return DBValue(Payload(value)); }
    static DBValue text(QString value) { return DBValue(Payload(std::move(value))); }
    static DBValue null() { return DBValue(Payload(std::monostate())); }
    static DBValue flag(bool value) { return integer(value ? 1 : 0); }
    /// An optional id: the id as an integer, or NULL when absent.
    static DBValue id(std::optional<qint64> value) { return value ? integer(*value) : null(); }

    Kind kind() const { return static_cast<Kind>(m_payload.index()); }
    qint64 intValue() const { return std::get<qint64>(m_payload); } ///< only for Kind::Int
    const QString &textValue() const { return std::get<QString>(m_payload); } ///< only for Kind::Text

    bool operator==(const DBValue &) const = default;

private:
    // Alternatives in the order of Kind.
    using Payload = std::variant<qint64, QString, std::monostate>;
    explicit DBValue(Payload payload) : m_payload(std::move(payload)) {}

    Payload m_payload;
};
