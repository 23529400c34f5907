#pragma once

#include <QObject>
#include <QString>

#include <functional>

class Database;
class ModelStore;
class StatusBanner;

/// The settings of the settings screen: the global prompt and assistant name, generation
/// limits and the chosen models. Read from the database once at start, each value checked
/// against what it accepts; every change is stored at once. A value that cannot be stored
/// stays in memory for this run and the error goes to the banner.
class AppSettings : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QString globalPrompt READ globalPrompt WRITE setGlobalPrompt NOTIFY changed)
    Q_PROPERTY(QString globalAgentName READ globalAgentName WRITE setGlobalAgentName NOTIFY changed)
    Q_PROPERTY(double temperature READ temperature WRITE setTemperature NOTIFY changed)
    Q_PROPERTY(int maxResponseTokens READ maxResponseTokens WRITE setMaxResponseTokens NOTIFY changed)
    Q_PROPERTY(int contextTokens READ contextTokens WRITE setContextTokens NOTIFY changed)
    Q_PROPERTY(QString selectedModelID READ selectedModelID NOTIFY changed)
    Q_PROPERTY(QString selectedWhisperModelID READ selectedWhisperModelID NOTIFY changed)
    /// The voice replies are spoken with; empty for the system's default.
    Q_PROPERTY(QString selectedVoiceID READ selectedVoiceID NOTIFY changed)

public:
    /// Reads the stored settings. `contextLocked` answers whether the context size may not
    /// change now (a reply is using the server).
    AppSettings(Database &database, const ModelStore &models, StatusBanner &status,
                std::function<bool()> contextLocked, QObject *parent = nullptr);

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
    /// Clamped to 0…1.5 and rounded to one decimal place.
    Q_INVOKABLE void setTemperature(double value);
    /// Ignored unless `n` is one of the offered limits.
    Q_INVOKABLE void setMaxResponseTokens(int n);
    /// Ignored unless `n` is one of the offered sizes, while the context is locked, and when
    /// nothing changes; otherwise `contextTokensChanged` follows.
    Q_INVOKABLE void setContextTokens(int n);
    /// Ignored unless `id` is an installed chat model.
    Q_INVOKABLE void selectModel(const QString &id);
    /// Ignored unless `id` is an installed dictation model.
    Q_INVOKABLE void selectWhisperModel(const QString &id);
    /// Keeps `id` as the voice; whether it is installed is for the caller to know.
    void setSelectedVoiceID(const QString &id);

    /// Back to the defaults after erasing all data, with no model chosen: none is installed.
    void resetAfterErase();

Q_SIGNALS:
    void changed();
    /// The server must start again with the new size before the next reply.
    void contextTokensChanged();

private:
    void readStored();
    void store(const QString &key, const QString &value);

    Database &m_database;
    const ModelStore &m_models;
    StatusBanner &m_status;
    std::function<bool()> m_contextLocked;

    QString m_globalPrompt;
    QString m_globalAgentName;
    double m_temperature;
    int m_maxResponseTokens;
    int m_contextTokens;
    QString m_selectedModelID;
    QString m_selectedWhisperModelID;
    QString m_selectedVoiceID;
};
