#pragma once

#include "app/readiness.h"
#include "storage/records.h"

#include <QObject>
#include <QString>

#include <memory>
#include <optional>

class CorvaneError;
class Database;

/// The one model the window observes. It owns the application's state and every long-lived
/// service, is created once at start-up and lives until the application quits. Its areas
/// live in separate files: start-up and status (app_model.cpp), settings
/// (app_settings.cpp) and erasing all data (app_erase.cpp).
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
    Q_PROPERTY(Readiness::Value readiness READ readiness NOTIFY readinessChanged)
    Q_PROPERTY(QString globalPrompt READ globalPrompt WRITE setGlobalPrompt NOTIFY settingsChanged)
    Q_PROPERTY(QString globalAgentName READ globalAgentName WRITE setGlobalAgentName NOTIFY settingsChanged)
    Q_PROPERTY(double temperature READ temperature WRITE setTemperature NOTIFY settingsChanged)
    Q_PROPERTY(int maxResponseTokens READ maxResponseTokens WRITE setMaxResponseTokens NOTIFY settingsChanged)
    Q_PROPERTY(int contextTokens READ contextTokens WRITE setContextTokens NOTIFY settingsChanged)
    Q_PROPERTY(QString selectedModelID READ selectedModelID NOTIFY settingsChanged)
    Q_PROPERTY(QString selectedWhisperModelID READ selectedWhisperModelID NOTIFY settingsChanged)
    Q_PROPERTY(QString selectedVoiceID READ selectedVoiceID NOTIFY settingsChanged)

public:
    /// Builds the model in its fixed start-up order: defaults, engines, the database, the
    /// stores and their folders, the stored settings, then the tree and the first chat.
    /// Throws a CorvaneError when local storage cannot be opened; the caller stops the
    /// application with "Could not open local storage: " and the error's description.
    explicit AppModel(QObject *parent = nullptr);
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

    // ---- models
    /// True when at least one chat model is installed; the window shows the first-run
    /// set-up screen while this is false.
    bool hasChatModel() const;
    QStringList installedChatModelIDs() const;
    QStringList installedTranscriptionModelIDs() const;
    QStringList availableVoiceIDs() const;

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

    // ---- tree
    const QList<Node> &nodes() const { return m_nodes; }
    const QList<Chat> &chats() const { return m_chats; }
    const QList<Message> &messages() const { return m_messages; }
    std::optional<qint64> selectedNodeID() const { return m_selectedNodeID; }
    std::optional<qint64> selectedChatID() const { return m_selectedChatID; }
    /// Re-reads folders and chats from the database and drops a selection that no longer
    /// exists; with `withMessages`, re-reads the selected chat's messages too.
    void reload(bool withMessages = false);

    // ---- erase (app_erase.cpp)
    /// Removes every chat, folder, script, prompt, setting and downloaded model after the
    /// user confirmed. Refused (false) while anything is busy; a failure is shown in the
    /// status banner and also answers false.
    Q_INVOKABLE bool eraseAllData();

Q_SIGNALS:
    void installedModelsChanged();
    void statusChanged();
    void activityChanged();
    void readinessChanged();
    void settingsChanged();
    void treeChanged();
    void selectionChanged();
    void messagesChanged();

private:
    void readSettings();
    void storeSetting(const QString &key, const QString &value);
    void selectFirstOpenChat();
    void loadMessages();
    void eraseAllDataOrThrow();

    void setStatus(const QString &text, bool isError);
    void showError(const CorvaneError &error);
    void showError(const std::exception &error);

    QString m_supportDirectory;
    std::unique_ptr<Database> m_database;
    QString m_modelsDirectory;
    QString m_imagesDirectory;

    QList<Node> m_nodes;
    QList<Chat> m_chats;
    QList<Message> m_messages;
    std::optional<qint64> m_selectedNodeID;
    std::optional<qint64> m_selectedChatID;

    QString m_status;
    bool m_statusIsError = false;
    bool m_isGenerating = false;
    bool m_isRecording = false;
    bool m_isTranscribing = false;
    std::optional<QString> m_busyModelID;

    QString m_globalPrompt;
    QString m_globalAgentName;
    double m_temperature;
    int m_maxResponseTokens;
    int m_contextTokens;
    QString m_selectedModelID;
    QString m_selectedWhisperModelID;
    QString m_selectedVoiceID;
};
