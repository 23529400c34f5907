#pragma once

#include <QString>

#include <optional>

/// The stored settings: their keys, defaults and the rules by which a stored value is accepted
/// at start. A value outside its accepted set is ignored (the default stays) and is not
/// rewritten, so that a damaged or hand-edited row can never put the application in a state
/// the settings screen cannot show.
namespace Settings {

inline const QString globalPromptKey = QStringLiteral("global_prompt");
inline const QString agentNameKey = QStringLiteral("agent_name");
inline const QString temperatureKey = QStringLiteral("temperature");
inline const QString maxResponseTokensKey = QStringLiteral("max_response_tokens");
inline const QString contextTokensKey = QStringLiteral("context_tokens");
inline const QString modelIDKey = QStringLiteral("model_id");
inline const QString whisperModelIDKey = QStringLiteral("whisper_model_id");
inline const QString voiceIDKey = QStringLiteral("voice_id");
inline const QString vaultKey = QStringLiteral("vault");

inline const QString defaultGlobalPrompt = QStringLiteral("You are a thoughtful, concise companion.");
inline const QString defaultAgentName = QStringLiteral("Corvane");
constexpr double defaultTemperature = 0.7;
constexpr int defaultMaxResponseTokens = 1024;
constexpr int defaultContextTokens = 16384;
inline const QString defaultModelID = QStringLiteral("qwen-0.8b");
inline const QString defaultWhisperModelID = QStringLiteral("whisper-base");

constexpr double maximumTemperature = 1.5;
constexpr int maxResponseTokenChoices[] = {300, 512, 1024, 2048};
constexpr int contextTokenChoices[] = {4096, 8192, 16384, 32768, 65536};

bool isMaxResponseTokenChoice(qint64 n);
bool isContextTokenChoice(qint64 n);

/// Trims white space and line breaks at both ends, as every name and title comparison does.
QString trimmed(const QString &text);

// Accepted stored values, or nothing when the stored text must be ignored.
std::optional<QString> acceptedGlobalPrompt(const QString &stored);
std::optional<QString> acceptedAgentName(const QString &stored);
std::optional<double> acceptedTemperature(const QString &stored);
std::optional<int> acceptedMaxResponseTokens(const QString &stored);
std::optional<int> acceptedContextTokens(const QString &stored);

/// What the temperature control stores for `value`: 0 for anything at or below 0, otherwise
/// capped at 1.5 and rounded half away from zero to one decimal place.
double clampedTemperature(double value);

/// The shortest decimal text of a number that still reads as a decimal: 0.7 as "0.7",
/// 0 as "0.0", 1.5 as "1.5".
QString decimalText(double value);

} // namespace Settings
