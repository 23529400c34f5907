#pragma once

#include "platform/cancellation.h"
#include "scripts/cartridge_context.h"
#include "storage/records.h"

#include <QDateTime>
#include <QElapsedTimer>
#include <QHash>
#include <QObject>
#include <QVariantMap>

#include <QCoro/QCoroTask>

#include <functional>
#include <optional>

class ComputeChoice;
class AppSettings;
class ChatImages;
class ChatTree;
class Compactor;
class Database;
class InferenceEngine;
class ModelsController;
class QTimer;
class StatusBanner;
struct CartridgeResult;
struct ModelSpec;

/// The chat on screen: its messages, the composer, and the one reply at a time, from the
/// user's message through the script's hooks and the streamed answer to the stored reply,
/// with the chat's compaction running behind it.
class ChatSession : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QString composer READ composer WRITE setComposer NOTIFY composerChanged)
    Q_PROPERTY(bool canSend READ canSend NOTIFY canSendChanged)
    Q_PROPERTY(bool isGenerating READ isGenerating NOTIFY isGeneratingChanged)
    Q_PROPERTY(QString liveReply READ liveReply NOTIFY liveReplyChanged)
    Q_PROPERTY(QString liveDisplay READ liveDisplay NOTIFY liveReplyChanged)
    Q_PROPERTY(QString title READ title NOTIFY currentChatChanged)
    Q_PROPERTY(QString agentName READ agentName NOTIFY currentChatChanged)
    Q_PROPERTY(QString summary READ summary NOTIFY currentChatChanged)
    Q_PROPERTY(bool isSealed READ isSealed NOTIFY currentChatChanged)
    Q_PROPERTY(qint64 editableMessageID READ editableMessageID NOTIFY messagesChanged)
    Q_PROPERTY(qint64 regenerableMessageID READ regenerableMessageID NOTIFY messagesChanged)
    Q_PROPERTY(bool canRegenerate READ canRegenerate NOTIFY canSendChanged)
    Q_PROPERTY(qint64 editingMessageID READ editingMessageID NOTIFY editingChanged)

public:
    /// `storageBusy` answers whether another connection is writing, so that nothing is sent.
    ChatSession(Database &database, InferenceEngine &inference, ComputeChoice &compute, ChatTree &tree,
                const AppSettings &settings,
                const ModelsController &models, ChatImages &images, StatusBanner &status,
                std::function<bool()> storageBusy, QObject *parent = nullptr);
    ~ChatSession() override;

    /// The selected chat's messages, as last read.
    const QList<Message> &messages() const { return m_messages; }
    /// The same without the hidden ones.
    QList<Message> visibleMessages() const;
    /// Reads the selected chat's messages again.
    void loadMessages();

    // ---- the selected chat, for the chat pane
    std::optional<Chat> currentChat() const;
    QString title() const;
    /// The assistant's name in the selected chat, or the global one without a chat.
    QString agentName() const;
    QString summary() const;
    bool isSealed() const;

    const QString &composer() const { return m_composer; }
    void setComposer(const QString &text);
    /// A chat is selected, no reply is being generated, nothing else writes, and there is
    /// text or an image to send.
    bool canSend() const;
    bool isGenerating() const { return m_generationCancel.has_value(); }
    /// The user is putting a message together: text in the composer or an image waiting.
    bool isComposing() const;
    /// The chat the running reply is for.
    std::optional<qint64> replyingChatID() const { return m_replyChatID; }
    const QString &liveReply() const { return m_liveReply; }
    const QString &liveDisplay() const { return m_liveDisplay; }

    /// Stores the composer's message in the selected chat and starts the reply to it; while
    /// editing, resends the edited message instead.
    Q_INVOKABLE void send();
    /// Starts the one reply task for `chat`; `trigger` is "user", "reply" or "tick". The
    /// message `replacing` is left out of what the model sees and deleted when the new reply
    /// is stored; a reply that is stopped or fails leaves it as it was.
    void startReply(const Chat &chat, const QString &trigger, std::optional<qint64> replacing = {});

    // ---- revising the end of the chat (chat_session_revise.cpp)

    /// The user's last message, which can be edited and resent; -1 when there is none.
    qint64 editableMessageID() const;
    /// The reply that Regenerate replaces: the assistant's last message after the user's last
    /// one; -1 when there is none (Regenerate then only answers).
    qint64 regenerableMessageID() const;
    /// The selected chat has a message of the user's to answer and nothing stands in the way.
    bool canRegenerate() const;
    /// Answers the user's last message again; the reply it had is replaced once the new one
    /// is stored.
    Q_INVOKABLE void regenerate();
    /// The message being edited in the composer; -1 when none.
    qint64 editingMessageID() const { return m_editingMessageID; }
    /// Puts the user's last message in the composer to be edited; the draft there comes back
    /// when editing is cancelled.
    Q_INVOKABLE void startEditing();
    Q_INVOKABLE void cancelEditing();
    /// The title a new chat takes from its first message: the first line with text, spaces
    /// collapsed, cut at a word to at most `maxTitleLength` characters.
    static QString titleFromMessage(const QString &text);
    static constexpr int maxTitleLength = 60;

    /// Replies a script may ask for in a row before the user writes again.
    static constexpr int maxAutomaticReplies = 4;
    /// Applies a "reply" or "tick" result to `chat`: adds the messages it injects, then starts
    /// the reply it asks for (`respond`) with `trigger`, unless the script has asked for
    /// `maxAutomaticReplies` since the user last wrote. Throws CartridgeError for a reply
    /// asked without a user message to answer, and DatabaseError; what was stored stays.
    void perform(const CartridgeResult &result, const Chat &chat, const QString &trigger);
    /// The user's Stop: the reply ends at "Stopped" and nothing of it is stored.
    Q_INVOKABLE void stopReply();

    /// What the model saw for an assistant message: {model, prompt, temperature, maxTokens,
    /// speed (the text under the reply, empty when not measured)}, empty when the message has
    /// no metadata.
    Q_INVOKABLE QVariantMap messageMetadata(qint64 messageID);

    /// The context a script's hook receives for `chat` with `history`: its turn, assistant,
    /// messages and how long the chat has been idle.
    CartridgeContext cartridgeContext(const Chat &chat, const QList<Message> &history) const;

    Compactor &compactor() { return *m_compactor; }

    /// Empties the composer, the live texts and the messages after erasing all data.
    void resetAfterErase();

Q_SIGNALS:
    void composerChanged();
    void canSendChanged();
    void isGeneratingChanged();
    void liveReplyChanged();
    void messagesChanged();
    /// The selected chat, its fields or its summary changed.
    void currentChatChanged();
    void editingChanged();
    /// A reply was stored in the chat on screen, which asks for its replies to be spoken.
    void replyToSpeak(const QString &text);

private:
    void openSelectedChat();
    void setGenerating(std::optional<CancellationToken> cancel);
    void setLiveReply(const QString &reply);
    QCoro::Task<> runReply(Chat chat, ModelSpec model, QString trigger, std::optional<qint64> replacing,
                           CancellationToken cancel);
    QCoro::Task<std::optional<CartridgeResult>> generateReply(Chat chat, ModelSpec model, QString trigger,
                                                              std::optional<qint64> replacing, CancellationToken cancel);
    /// Stores the reply in place of `replacing`, rendered by the script when it handles
    /// replies; answers that render's result.
    QCoro::Task<std::optional<CartridgeResult>> saveAgentMessage(QString reply, Chat chat, QString metadata,
                                                                 std::optional<qint64> replacing);
    /// Stores the edited text of the message being edited and answers it again.
    void resendEdited(const Chat &chat);
    /// A chat still called "New chat" takes its title from its first message.
    void titleFromFirstMessage(const Chat &chat, const QString &text);
    /// `perform` once a reply has ended, its error to the banner.
    void performAfterReply(std::optional<CartridgeResult> result, qint64 chatID, const QString &trigger);
    /// Lets a script that handles replies change what the live reply shows while it streams.
    QCoro::Task<> renderPartial(Chat chat, QString source, QString text);
    /// Whether `source` handles the "reply" hook, asked of its "info" hook once per chat and
    /// script and remembered for this run.
    QCoro::Task<bool> handlesReplies(Chat chat, QString source);

    Database &m_database;
    InferenceEngine &m_inference;
    ComputeChoice &m_compute;
    ChatTree &m_tree;
    const AppSettings &m_settings;
    const ModelsController &m_models;
    ChatImages &m_images;
    StatusBanner &m_status;
    std::function<bool()> m_storageBusy;
    Compactor *m_compactor;

    QList<Message> m_messages;
    /// When the selected chat was opened; a script's idle time counts from it when the chat
    /// has no message to count from.
    QDateTime m_chatOpenedAt = QDateTime::currentDateTimeUtc();
    QString m_composer;
    qint64 m_editingMessageID = -1;
    /// What the composer held when editing began.
    QString m_draftBeforeEditing;
    QString m_liveReply;
    QString m_liveDisplay;
    /// Coalesces `liveReplyChanged` while tokens stream in, so that the view repaints at its
    /// own pace rather than once per token.
    QTimer *m_liveReplyTimer;
    /// Cancels the running reply; present exactly while one runs.
    std::optional<CancellationToken> m_generationCancel;
    std::optional<qint64> m_replyChatID;
    /// Per chat: the script source last asked, and whether it handles replies.
    QHash<qint64, std::pair<QString, bool>> m_handlesReplies;
    /// Per chat: replies scripts started since the user last wrote.
    QHash<qint64, int> m_automaticReplies;
    bool m_partialRendering = false;
    QElapsedTimer m_lastPartialRender;
};
