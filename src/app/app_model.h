#pragma once

#include "app/folder_tree.h"
#include "app/lock_sheet.h"
#include "app/readiness.h"
#include "models/model_spec.h"
#include "platform/cancellation.h"
#include "scripts/cartridge_context.h"
#include "storage/deletion_queue.h"
#include "storage/records.h"
#include "vault/vault_record.h"

#include <QDateTime>
#include <QHash>
#include <QObject>
#include <QPointer>
#include <QSet>
#include <QString>
#include <QUrl>
#include <QVariantList>
#include <QVariantMap>

#include <QCoro/QCoroTask>

#include <functional>
#include <memory>
#include <optional>

class CorvaneError;
class QTimer;
class Database;
class InferenceEngine;
class ModelStore;
struct CartridgeResult;

/// The one model the window observes. It owns the application's state and every long-lived
/// service, is created once at start-up and lives until the application quits. Its areas
/// live in separate files: start-up and status (app_model.cpp), settings
/// (app_settings.cpp), the folder tree (app_tree.cpp), replies (app_replies.cpp),
/// compaction (app_compaction.cpp), locked folders (app_locks.cpp), erasing all data
/// (app_erase.cpp) and what the window reads and calls (app_window.cpp).
///
/// Operations never pass errors to the window: every outcome is written to the one-line
/// status banner, `status`, with `statusIsError` set for errors.
class AppModel : public QObject
{
    Q_OBJECT
    Q_PROPERTY(bool hasChatModel READ hasChatModel NOTIFY installedModelsChanged)
    Q_PROPERTY(QString supportDirectory READ supportDirectory CONSTANT)
    Q_PROPERTY(QString status READ status NOTIFY statusChanged)
    Q_PROPERTY(bool statusIsError READ statusIsError NOTIFY statusChanged)
    Q_PROPERTY(bool isGenerating READ isGenerating NOTIFY activityChanged)
    Q_PROPERTY(bool isRecording READ isRecording NOTIFY activityChanged)
    Q_PROPERTY(bool isTranscribing READ isTranscribing NOTIFY activityChanged)
    Q_PROPERTY(QString busyModelID READ busyModelID NOTIFY activityChanged)
    Q_PROPERTY(bool isBusy READ isBusy NOTIFY activityChanged)
    Q_PROPERTY(bool isErasing READ isErasing NOTIFY activityChanged)
    Q_PROPERTY(QVariantList chatModelChoices READ chatModelChoices NOTIFY installedModelsChanged)
    Q_PROPERTY(qint64 downloadedBytes READ downloadedBytes NOTIFY downloadProgressChanged)
    Q_PROPERTY(qint64 downloadTotalBytes READ downloadTotalBytes NOTIFY downloadProgressChanged)
    Q_PROPERTY(Readiness::Value readiness READ readiness NOTIFY readinessChanged)
    Q_PROPERTY(QString globalPrompt READ globalPrompt WRITE setGlobalPrompt NOTIFY settingsChanged)
    Q_PROPERTY(QString globalAgentName READ globalAgentName WRITE setGlobalAgentName NOTIFY settingsChanged)
    Q_PROPERTY(double temperature READ temperature WRITE setTemperature NOTIFY settingsChanged)
    Q_PROPERTY(int maxResponseTokens READ maxResponseTokens WRITE setMaxResponseTokens NOTIFY settingsChanged)
    Q_PROPERTY(int contextTokens READ contextTokens WRITE setContextTokens NOTIFY settingsChanged)
    Q_PROPERTY(QString selectedModelID READ selectedModelID NOTIFY settingsChanged)
    Q_PROPERTY(QString selectedWhisperModelID READ selectedWhisperModelID NOTIFY settingsChanged)
    Q_PROPERTY(QString selectedVoiceID READ selectedVoiceID NOTIFY settingsChanged)
    Q_PROPERTY(QString composer READ composer WRITE setComposer NOTIFY composerChanged)
    Q_PROPERTY(bool canSend READ canSend NOTIFY canSendChanged)
    Q_PROPERTY(QString liveReply READ liveReply NOTIFY liveReplyChanged)
    Q_PROPERTY(QString liveDisplay READ liveDisplay NOTIFY liveReplyChanged)
    Q_PROPERTY(qint64 currentChatID READ currentChatID NOTIFY selectionChanged)
    Q_PROPERTY(qint64 currentFolderID READ currentFolderID NOTIFY selectionChanged)
    Q_PROPERTY(QString currentChatTitle READ currentChatTitle NOTIFY currentChatChanged)
    Q_PROPERTY(QString currentAgentName READ currentAgentName NOTIFY currentChatChanged)
    Q_PROPERTY(QString currentChatSummary READ currentChatSummary NOTIFY currentChatChanged)
    Q_PROPERTY(bool currentChatIsSealed READ currentChatIsSealed NOTIFY currentChatChanged)
    Q_PROPERTY(bool hasImageSupport READ hasImageSupport NOTIFY installedModelsChanged)
    Q_PROPERTY(QVariantList modelChoices READ modelChoices NOTIFY installedModelsChanged)

public:
    /// Builds the model in its fixed start-up order: defaults, engines, the database, the
    /// stores and their folders, the stored settings, then the tree and the first chat.
    /// Throws a CorvaneError when local storage cannot be opened; the caller stops the
    /// application with "Could not open local storage: " and the error's description.
    explicit AppModel(QObject *parent = nullptr);
    /// The same with another list of installable models, for tests that serve small files;
    /// the application always uses the built-in catalogue.
    AppModel(QList<ModelSpec> catalogue, QObject *parent = nullptr);
    ~AppModel() override;

    Database &database() { return *m_database; }
    const QString &supportDirectory() const { return m_supportDirectory; }

    // ---- status banner and activity
    const QString &status() const { return m_status; }
    bool statusIsError() const { return m_statusIsError; }
    bool isGenerating() const { return m_isGenerating; }
    bool isRecording() const { return m_isRecording; }
    bool isTranscribing() const { return m_isTranscribing; }
    QString busyModelID() const { return m_busyModelID.value_or(QString()); }
    /// A reply, a recording, a transcription or a model download or removal is under way.
    bool isBusy() const;
    Readiness::Value readiness() const;

    // ---- models (app_models.cpp)
    ModelStore &modelStore() { return *m_modelStore; }
    /// True when at least one chat model is installed; the window shows the first-run
    /// set-up screen while this is false.
    bool hasChatModel() const;
    QStringList installedChatModelIDs() const;
    QStringList installedTranscriptionModelIDs() const;
    QStringList availableVoiceIDs() const;
    /// The chat model replies use: the selected one if installed, else the first installed.
    std::optional<ModelSpec> languageModel() const;
    /// The dictation model, by the same rule.
    std::optional<ModelSpec> whisperModel() const;
    /// What a complete set-up still lacks: the chat model, its image support, dictation.
    QList<ModelSpec> missingModels() const;
    /// Points a selection that names no installed model at the first installed one.
    void normalizeModelSelections();
    qint64 downloadedBytes() const { return m_downloadedBytes; }
    qint64 downloadTotalBytes() const { return m_downloadTotalBytes; }

    /// Downloads the given catalogue entries, each chat model followed by its image support
    /// when missing, one after the other with progress in the status line.
    Q_INVOKABLE void install(const QStringList &ids);
    /// Stops a running installation; what is already installed stays.
    Q_INVOKABLE void cancelInstall();
    /// Installs a model file the user already has, when it is one of the catalogue's.
    Q_INVOKABLE void installFromFile(const QString &path);
    /// The same for a file chosen in a file dialog.
    Q_INVOKABLE void installFromFileUrl(const QUrl &url) { installFromFile(url.toLocalFile()); }
    /// The catalogue's chat models for the set-up screen and Settings, in catalogue order,
    /// each as {id, name, byteCount, installed}.
    QVariantList chatModelChoices() const;
    /// Removes a model, and its image support when no other installed model uses it.
    Q_INVOKABLE void remove(const QString &id);

    // ---- settings (app_settings.cpp)
    const QString &globalPrompt() const { return m_globalPrompt; }
    const QString &globalAgentName() const { return m_globalAgentName; }
    double temperature() const { return m_temperature; }
    int maxResponseTokens() const { return m_maxResponseTokens; }
    int contextTokens() const { return m_contextTokens; }
    const QString &selectedModelID() const { return m_selectedModelID; }
    const QString &selectedWhisperModelID() const { return m_selectedWhisperModelID; }
    const QString &selectedVoiceID() const { return m_selectedVoiceID; }

    Q_INVOKABLE void setGlobalPrompt(const QString &text);
    Q_INVOKABLE void setGlobalAgentName(const QString &text);
    Q_INVOKABLE void setTemperature(double value);
    Q_INVOKABLE void setMaxResponseTokens(int n);
    Q_INVOKABLE void setContextTokens(int n);
    Q_INVOKABLE void selectModel(const QString &id);
    Q_INVOKABLE void selectWhisperModel(const QString &id);
    Q_INVOKABLE void selectVoice(const QString &id);

    // ---- tree (app_tree.cpp)
    const QList<Node> &nodes() const { return m_tree.nodes(); }
    const QList<Chat> &chats() const { return m_chats; }
    const QList<Message> &messages() const { return m_messages; }
    std::optional<qint64> selectedNodeID() const { return m_selectedNodeID; }
    std::optional<qint64> selectedChatID() const { return m_selectedChatID; }
    /// Re-reads folders and chats from the database and drops a selection that no longer
    /// exists; with `withMessages`, re-reads the selected chat's messages too.
    void reload(bool withMessages = false);

    std::optional<Node> selectedNode() const;
    std::optional<Chat> selectedChat() const;
    /// The selected chat's messages without the hidden ones.
    QList<Message> visibleMessages() const;
    bool folderHasContents(qint64 id) const;
    bool chatHasMessages(qint64 id);
    QSet<qint64> subtreeIDs(qint64 id) const;
    /// The nearest folder, from `nodeID` upwards, whose script its chats run.
    std::optional<Node> cartridgeFolder(std::optional<qint64> nodeID) const;
    QString effectiveAgentName(const std::optional<Node> &node) const;
    QString inheritedAgentName(const std::optional<Node> &node) const;
    QString effectiveAgentName(const Chat &chat) const;
    QString inheritedAgentName(const Chat &chat) const;
    /// The chat's system prompt: its assistant's name, the global prompt, each folder's
    /// prompt from the root down and the chat's own, blank parts left out.
    QString effectivePrompt(const Chat &chat) const;

    Q_INVOKABLE void selectChat(qint64 id);
    /// Adds "New folder" under `parentID` and returns it for selection and renaming; nothing
    /// when the parent is locked away (the unlock sheet is raised instead) or on an error.
    std::optional<Node> addFolder(std::optional<qint64> parentID);
    /// Adds "New chat" to `nodeID` (else the selected folder, else the first) and selects it.
    void addChat(std::optional<qint64> nodeID = std::nullopt);
    Q_INVOKABLE void renameNode(qint64 id, const QString &name);
    Q_INVOKABLE void renameChat(qint64 id, const QString &title);
    /// Deletes a chat with its messages. The chat leaves every view before this returns;
    /// its rows are removed afterwards in the background (app_deletion.cpp).
    Q_INVOKABLE void deleteChat(qint64 id);
    /// Deletes a folder with its sub-folders, chats and messages, the same way as `deleteChat`.
    Q_INVOKABLE void deleteFolder(qint64 id);
    /// Deleted folders and chats whose rows are still being removed.
    bool isPurging() const { return m_purgeCancel.has_value(); }
    void moveSelectedChat(qint64 folderID);
    Q_INVOKABLE void setNodePrompt(qint64 id, const QString &text);
    Q_INVOKABLE void setNodeAgentName(qint64 id, const QString &text);
    Q_INVOKABLE void setChatPrompt(qint64 id, const QString &text);
    Q_INVOKABLE void setChatAutoSpeakReplies(qint64 id, bool enabled);

    /// Assistant names that running scripts set, by chat id; never stored.
    QHash<qint64, QString> &cartridgeAgentNames() { return m_cartridgeAgentNames; }

    // ---- replies (app_replies.cpp)
    const QString &composer() const { return m_composer; }
    void setComposer(const QString &text);
    /// A chat is selected, no reply is being generated, and there is text or an image to send.
    bool canSend() const;
    const QString &liveReply() const { return m_liveReply; }
    const QString &liveDisplay() const { return m_liveDisplay; }
    InferenceEngine &inference() { return *m_inference; }
    /// Stores the composer's message in the selected chat and starts the reply to it.
    Q_INVOKABLE void send();
    /// Starts the one reply task for `chat`; `trigger` is "user" or "reply".
    void startReply(const Chat &chat, const QString &trigger);
    /// The user's Stop: cancels the reply being generated; it ends at "Stopped".
    Q_INVOKABLE void stopReply();

    // ---- compaction (app_compaction.cpp)
    /// Folds the older part of a long chat into its running summary when the chat has grown
    /// past three quarters of the budget that a reply leaves. Never deletes a message;
    /// failures keep the previous summary.
    QCoro::Task<> compactIfNeeded(qint64 chatID, QString systemPrompt, qint64 responseTokens,
                                  CancellationToken cancel);
    /// A compaction is running (`compactionTask`).
    bool isCompacting() const { return m_compactionCancel.has_value(); }

    // ---- what the window reads and calls (app_window.cpp)
    /// The selected chat's and folder's ids, -1 when none.
    qint64 currentChatID() const { return m_selectedChatID.value_or(-1); }
    qint64 currentFolderID() const { return m_selectedNodeID.value_or(-1); }
    QString currentChatTitle() const;
    /// The assistant's name in the selected chat, or the global one without a chat.
    QString currentAgentName() const;
    QString currentChatSummary() const;
    bool currentChatIsSealed() const;
    /// The selected chat model's image support is installed.
    bool hasImageSupport() const;
    /// Every catalogue entry for Settings, each as {id, name, role ("chat", "vision" or
    /// "dictation"), byteCount, installed, selected}.
    QVariantList modelChoices() const;
    /// Selects a folder in the sidebar; the chat selection stays.
    Q_INVOKABLE void selectFolder(qint64 id);
    /// Adds a folder under `parentID` (-1 for the top level); returns its id, -1 when none.
    Q_INVOKABLE qint64 newFolder(qint64 parentID);
    /// Adds a chat to `folderID` (-1: the selected folder) and selects it.
    Q_INVOKABLE void newChat(qint64 folderID);
    /// Moves a chat to another folder (dragged in the sidebar).
    Q_INVOKABLE void moveChat(qint64 chatID, qint64 folderID);
    /// A folder's own fields for its settings sheet: name, prompt, agentName,
    /// inheritedAgentName, isLocked, isSealed, hasContents; empty for an unknown id.
    Q_INVOKABLE QVariantMap folderDetails(qint64 id) const;
    /// A chat's fields for its settings sheet: title, prompt, autoSpeakReplies, agentName,
    /// isSealed; empty for an unknown id.
    Q_INVOKABLE QVariantMap chatDetails(qint64 id) const;
    /// What the model saw for an assistant message: {model, prompt, temperature, maxTokens},
    /// empty when the message has no metadata.
    Q_INVOKABLE QVariantMap messageMetadata(qint64 messageID);

    // ---- locked folders (app_locks.cpp)
    /// The nearest folder, from `node` upwards, that the user locked.
    std::optional<Node> lockedFolder(const Node &node) const;
    /// A sealed chat whose locked folder is not open in this run.
    bool isLockedAway(const Chat &chat) const;
    const QSet<qint64> &unlockedFolderIDs() const { return m_unlockedFolderIDs; }
    /// The stored vault record: the wrapped key of locked folders, absent before the first
    /// folder is locked.
    const std::optional<VaultRecord> &vault() const { return m_vault; }
    const std::optional<LockSheet> &lockSheet() const { return m_lockSheet; }
    void dismissLockSheet();

    // ---- scripts (app_scripts.cpp)
    /// The context a script's hook receives for `chat` with `history`: its turn, assistant,
    /// messages and how long the chat has been idle.
    CartridgeContext cartridgeContext(const Chat &chat, const QList<Message> &history) const;

    // ---- erase (app_erase.cpp)
    /// Removes every chat, folder, script, prompt, setting and downloaded model after the
    /// user confirmed, and ends with `erasingFinished`. Refused while anything is busy.
    Q_INVOKABLE void eraseAllData();
    /// The work of `eraseAllData`: answers whether everything was erased. Refused (false)
    /// while anything is busy; a failure is shown in the status banner and answers false.
    QCoro::Task<bool> eraseAll();
    /// Erasing is under way; the window takes no input meanwhile.
    bool isErasing() const { return m_isErasing; }

Q_SIGNALS:
    void installedModelsChanged();
    void statusChanged();
    void activityChanged();
    void readinessChanged();
    void settingsChanged();
    void treeChanged();
    void lockSheetChanged();
    void selectionChanged();
    void messagesChanged();
    void downloadProgressChanged();
    void composerChanged();
    void canSendChanged();
    void liveReplyChanged();
    /// The selected chat, its fields or its summary changed.
    void currentChatChanged();
    /// The background removal of deleted folders and chats ended: all of them are gone, or a
    /// failure stopped it and is shown in the status line.
    void purgeFinished();
    /// `eraseAllData` ended; `erased` is false when it was refused or failed.
    void erasingFinished(bool erased);

private:
    void readSettings();
    void storeSetting(const QString &key, const QString &value);
    void selectFirstOpenChat();
    /// Leaves out of freshly read rows the folders and chats in the deletion queue, with
    /// everything below those folders.
    void hideDeleted(QList<Node> &nodes, QList<Chat> &chats) const;
    void loadMessages();
    /// Puts the model back to a first start's state once the files and rows are gone.
    void resetAfterErase();
    QCoro::Task<> runInstall(QList<ModelSpec> workList, CancellationToken cancel);
    QCoro::Task<> runInstallFromFile(QString path, CancellationToken cancel);
    void setBusyModel(std::optional<QString> id, qint64 total);
    /// Puts a download's or a check's progress into `downloadedBytes`.
    std::function<void(qint64)> reportProgress();

    /// Runs a tree command's database work; an error goes to the status banner and the
    /// in-memory tree stays as it was. Returns whether the work succeeded.
    template <typename Work>
    bool tryDatabase(Work work);
    /// When `nodeID` lies in a locked folder that is not open, raises the unlock sheet for
    /// it and answers true.
    bool raiseUnlockIfLockedAway(std::optional<qint64> nodeID);
    void clearChatSelection();
    void requestLockSheet(LockSheet sheet);

    // Seams to the services that own images and script timers.
    void removePendingImage();
    void pruneImages();
    void matchImages();
    void restartTicks();

    QCoro::Task<std::optional<CartridgeResult>> generateReply(Chat chat, ModelSpec model, QString trigger,
                                                              CancellationToken cancel);
    QCoro::Task<> runReply(Chat chat, ModelSpec model, QString trigger, CancellationToken cancel);
    QCoro::Task<> saveAgentMessage(QString reply, Chat chat, QString metadata);
    QCoro::Task<> runCompaction(qint64 chatID, QString systemPrompt, qint64 responseTokens,
                                CancellationToken cancel, int run);
    /// Inserts a message row, sealing its texts when the chat is sealed; returns its id.
    qint64 insertMessage(qint64 chatID, const QString &role, const QString &body, const QString &metadata,
                         const QString &image, const QString &display, const QString &data);
    /// The script that runs in `chat`: its own, else its folder's; empty when none.
    QString cartridgeSource(const Chat &chat) const;
    /// Whether `source` handles the "reply" hook, asked of its "info" hook once per chat and
    /// script and remembered for this run.
    QCoro::Task<bool> handlesReplies(Chat chat, QString source);
    void setLiveReply(const QString &reply);
    /// Removes the rows of the deletion queue, oldest entry first, in slices of about 40 ms.
    QCoro::Task<> purgeDeletions(CancellationToken cancel);
    /// Starts `purgeDeletions` unless it runs already or the queue is empty.
    void startPurge();
    void cancelPurge();
    void cancelCompaction();

    /// Ends a task of this model that resumes after the model is gone (the application quit
    /// while it waited): nothing of the model may be touched any more.
    static void throwIfGone(const QPointer<AppModel> &model)
    {
        if (!model)
            throw CancelledError();
    }

    void setStatus(const QString &text, bool isError);
    void showError(const CorvaneError &error);
    void showError(const std::exception &error);

    QString m_supportDirectory;
    std::unique_ptr<InferenceEngine> m_inference;
    std::unique_ptr<Database> m_database;
    std::unique_ptr<ModelStore> m_modelStore;
    CancellationToken m_installCancel;
    qint64 m_downloadedBytes = 0;
    qint64 m_downloadTotalBytes = 0;
    QString m_modelsDirectory;
    QString m_imagesDirectory;

    FolderTree m_tree;
    QList<Chat> m_chats;
    QSet<qint64> m_foldersWithChats; ///< so that the sidebar's per-folder question is cheap
    QList<Message> m_messages;
    std::optional<qint64> m_selectedNodeID;
    std::optional<qint64> m_selectedChatID;
    std::optional<QString> m_pendingImage;
    QHash<qint64, QString> m_cartridgeAgentNames;
    /// Per chat: the script source last asked, and whether it handles replies.
    QHash<qint64, std::pair<QString, bool>> m_handlesReplies;
    /// When the selected chat was opened; a script's idle time counts from it when the chat
    /// has no message to count from.
    QDateTime m_chatOpenedAt = QDateTime::currentDateTimeUtc();
    QSet<qint64> m_unlockedFolderIDs;
    std::optional<VaultRecord> m_vault;
    std::optional<LockSheet> m_lockSheet;

    QString m_composer;
    QString m_liveReply;
    /// Coalesces `liveReplyChanged` while tokens stream in, so that the view repaints at
    /// its own pace rather than once per token.
    QTimer *m_liveReplyTimer = nullptr;
    QString m_liveDisplay;
    /// Cancels the running reply (`generationTask`); a fresh token per reply.
    std::optional<CancellationToken> m_generationCancel;
    /// Cancels the running compaction (`compactionTask`).
    std::optional<CancellationToken> m_compactionCancel;
    int m_compactionRuns = 0; ///< tells the current compaction from one it replaced

    QString m_status;
    bool m_statusIsError = false;
    bool m_isGenerating = false;
    bool m_isRecording = false;
    bool m_isTranscribing = false;
    bool m_isErasing = false;
    std::optional<QString> m_busyModelID;
    /// Deleted folders and chats, left out of the tree until their rows are gone.
    DeletionQueue m_deletions;
    /// Cancels the running purge (`purgeDeletions`); absent when none runs.
    std::optional<CancellationToken> m_purgeCancel;

    QString m_globalPrompt;
    QString m_globalAgentName;
    double m_temperature;
    int m_maxResponseTokens;
    int m_contextTokens;
    QString m_selectedModelID;
    QString m_selectedWhisperModelID;
    QString m_selectedVoiceID;
};

template <typename Work>
bool AppModel::tryDatabase(Work work)
{
    try {
        work();
        return true;
    } catch (const std::exception &error) {
        showError(error);
        return false;
    }
}
