// Reading the stored settings at start and the setters of the settings screen.
#include "app/app_model.h"

#include "app/settings_rules.h"
#include "inference/inference_engine.h"
#include "storage/database.h"
#include "vault/vault_record.h"

void AppModel::readSettings()
{
    // A stored value that fails its check leaves the default and is not rewritten.
    const auto stored = [this](const QString &key) { return m_database->setting(key); };
    if (const auto text = stored(Settings::globalPromptKey))
        m_globalPrompt = Settings::acceptedGlobalPrompt(*text).value_or(m_globalPrompt);
    if (const auto text = stored(Settings::agentNameKey))
        m_globalAgentName = Settings::acceptedAgentName(*text).value_or(m_globalAgentName);
    if (const auto text = stored(Settings::temperatureKey))
        m_temperature = Settings::acceptedTemperature(*text).value_or(m_temperature);
    if (const auto text = stored(Settings::maxResponseTokensKey))
        m_maxResponseTokens = Settings::acceptedMaxResponseTokens(*text).value_or(m_maxResponseTokens);
    if (const auto text = stored(Settings::contextTokensKey))
        m_contextTokens = Settings::acceptedContextTokens(*text).value_or(m_contextTokens);
    if (const auto text = stored(Settings::modelIDKey))
        m_selectedModelID = *text;
    if (const auto text = stored(Settings::whisperModelIDKey))
        m_selectedWhisperModelID = *text;
    if (const auto text = stored(Settings::voiceIDKey))
        m_selectedVoiceID = *text; // also handed to the speech engine as its voice
    // The vault record last: one that does not decode leaves no vault, silently, as if no
    // folder had ever been locked.
    if (const auto text = stored(Settings::vaultKey))
        m_vault = VaultRecord::fromJson(text->toUtf8());
}

void AppModel::storeSetting(const QString &key, const QString &value)
{
    try {
        m_database->setSetting(key, value);
    } catch (const std::exception &error) {
        // The new value stays in memory for this run.
        showError(error);
    }
}

void AppModel::setGlobalPrompt(const QString &text)
{
    m_globalPrompt = text;
    Q_EMIT settingsChanged();
    storeSetting(Settings::globalPromptKey, text);
}

void AppModel::setGlobalAgentName(const QString &text)
{
    m_globalAgentName = text;
    Q_EMIT settingsChanged();
    storeSetting(Settings::agentNameKey, text);
}

void AppModel::setTemperature(double value)
{
    m_temperature = Settings::clampedTemperature(value);
    Q_EMIT settingsChanged();
    storeSetting(Settings::temperatureKey, Settings::decimalText(m_temperature));
}

void AppModel::setMaxResponseTokens(int n)
{
    if (!Settings::isMaxResponseTokenChoice(n))
        return;
    m_maxResponseTokens = n;
    Q_EMIT settingsChanged();
    storeSetting(Settings::maxResponseTokensKey, QString::number(n));
}

void AppModel::setContextTokens(int n)
{
    // Never restart the server under a running request, and never for nothing.
    if (!Settings::isContextTokenChoice(n) || m_isGenerating || n == m_contextTokens)
        return;
    m_contextTokens = n;
    Q_EMIT settingsChanged();
    // The next reply starts the server with the new context size.
    m_inference->shutdown();
    storeSetting(Settings::contextTokensKey, QString::number(n));
}

void AppModel::selectModel(const QString &id)
{
    if (!installedChatModelIDs().contains(id))
        return;
    m_selectedModelID = id;
    Q_EMIT settingsChanged();
    storeSetting(Settings::modelIDKey, id);
}

void AppModel::selectWhisperModel(const QString &id)
{
    if (!installedTranscriptionModelIDs().contains(id))
        return;
    m_selectedWhisperModelID = id;
    Q_EMIT settingsChanged();
    storeSetting(Settings::whisperModelIDKey, id);
}

void AppModel::selectVoice(const QString &id)
{
    // The empty id is the system's default voice and always acceptable.
    if (!id.isEmpty() && !availableVoiceIDs().contains(id))
        return;
    m_selectedVoiceID = id;
    Q_EMIT settingsChanged();
    storeSetting(Settings::voiceIDKey, id);
}
