#include "app/app_settings.h"

#include "app/settings_rules.h"
#include "app/status_banner.h"
#include "models/model_store.h"
#include "storage/database.h"

namespace {

bool hasID(const QList<ModelSpec> &specs, const QString &id)
{
    return std::ranges::any_of(specs, [&](const ModelSpec &spec) { return spec.id == id; });
}

} // namespace

AppSettings::AppSettings(Database &database, const ModelStore &models, StatusBanner &status,
                         std::function<bool()> contextLocked, QObject *parent)
    : QObject(parent)
    , m_database(database)
    , m_models(models)
    , m_status(status)
    , m_contextLocked(std::move(contextLocked))
    , m_globalPrompt(Settings::defaultGlobalPrompt)
    , m_globalAgentName(Settings::defaultAgentName)
    , m_temperature(Settings::defaultTemperature)
    , m_maxResponseTokens(Settings::defaultMaxResponseTokens)
    , m_contextTokens(Settings::defaultContextTokens)
    , m_selectedModelID(Settings::defaultModelID)
    , m_selectedWhisperModelID(Settings::defaultWhisperModelID)
{
    readStored();
}

void AppSettings::readStored()
{
    // A stored value that fails its check leaves the default and is not rewritten.
    const auto stored = [this](const QString &key) { return m_database.setting(key); };
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
        m_selectedVoiceID = *text;
}

void AppSettings::store(const QString &key, const QString &value)
{
    // On failure the new value stays in memory for this run.
    m_status.attempt([&] { m_database.setSetting(key, value); });
}

void AppSettings::setGlobalPrompt(const QString &text)
{
    m_globalPrompt = text;
    Q_EMIT changed();
    store(Settings::globalPromptKey, text);
}

void AppSettings::setGlobalAgentName(const QString &text)
{
    m_globalAgentName = text;
    Q_EMIT changed();
    store(Settings::agentNameKey, text);
}

void AppSettings::setTemperature(double value)
{
    m_temperature = Settings::clampedTemperature(value);
    Q_EMIT changed();
    store(Settings::temperatureKey, Settings::decimalText(m_temperature));
}

void AppSettings::setMaxResponseTokens(int n)
{
    if (!Settings::isMaxResponseTokenChoice(n))
        return;
    m_maxResponseTokens = n;
    Q_EMIT changed();
    store(Settings::maxResponseTokensKey, QString::number(n));
}

void AppSettings::setContextTokens(int n)
{
    // Never restart the server under a running request, and never for nothing.
    if (!Settings::isContextTokenChoice(n) || m_contextLocked() || n == m_contextTokens)
        return;
    m_contextTokens = n;
    Q_EMIT changed();
    Q_EMIT contextTokensChanged();
    store(Settings::contextTokensKey, QString::number(n));
}

void AppSettings::selectModel(const QString &id)
{
    if (!hasID(m_models.installedChatModels(), id))
        return;
    m_selectedModelID = id;
    Q_EMIT changed();
    store(Settings::modelIDKey, id);
}

void AppSettings::selectWhisperModel(const QString &id)
{
    if (!hasID(m_models.installedTranscriptionModels(), id))
        return;
    m_selectedWhisperModelID = id;
    Q_EMIT changed();
    store(Settings::whisperModelIDKey, id);
}

void AppSettings::setSelectedVoiceID(const QString &id)
{
    if (id == m_selectedVoiceID)
        return;
    m_selectedVoiceID = id;
    Q_EMIT changed();
    store(Settings::voiceIDKey, id);
}

void AppSettings::resetAfterErase()
{
    m_globalPrompt = Settings::defaultGlobalPrompt;
    m_globalAgentName = Settings::defaultAgentName;
    m_temperature = Settings::defaultTemperature;
    m_maxResponseTokens = Settings::defaultMaxResponseTokens;
    m_contextTokens = Settings::defaultContextTokens;
    m_selectedModelID.clear();
    m_selectedWhisperModelID.clear();
    m_selectedVoiceID.clear();
    Q_EMIT changed();
}
