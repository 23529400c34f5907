#include "app/settings_rules.h"

#include <QLocale>

#include <algorithm>
#include <cmath>

namespace Settings {

namespace {

// Stored numbers are written by this application as plain decimal text; anything with
// surrounding blanks or other decoration was not, and is ignored.
bool isBare(const QString &text)
{
    return !text.isEmpty() && !text.front().isSpace() && !text.back().isSpace();
}

std::optional<qint64> parsedInteger(const QString &text)
{
    bool ok = false;
    const qint64 value = QLocale::c().toLongLong(text, &ok);
    if (!ok || !isBare(text))
        return std::nullopt;
    return value;
}

} // namespace

bool isMaxResponseTokenChoice(qint64 n)
{
    return std::ranges::find(maxResponseTokenChoices, n) != std::end(maxResponseTokenChoices);
}

bool isContextTokenChoice(qint64 n)
{
    return std::ranges::find(contextTokenChoices, n) != std::end(contextTokenChoices);
}

QString trimmed(const QString &text)
{
    return text.trimmed();
}

std::optional<QString> acceptedGlobalPrompt(const QString &stored)
{
    if (stored.isEmpty())
        return std::nullopt;
    return stored;
}

std::optional<QString> acceptedAgentName(const QString &stored)
{
    if (trimmed(stored).isEmpty())
        return std::nullopt;
    return stored;
}

std::optional<double> acceptedTemperature(const QString &stored)
{
    bool ok = false;
    const double value = QLocale::c().toDouble(stored, &ok);
    // NaN fails both comparisons and is refused with everything else out of range.
    if (!ok || !isBare(stored) || !(value >= 0.0 && value <= maximumTemperature))
        return std::nullopt;
    return value;
}

std::optional<int> acceptedMaxResponseTokens(const QString &stored)
{
    const auto value = parsedInteger(stored);
    if (!value || !isMaxResponseTokenChoice(*value))
        return std::nullopt;
    return static_cast<int>(*value);
}

std::optional<int> acceptedContextTokens(const QString &stored)
{
    const auto value = parsedInteger(stored);
    if (!value || !isContextTokenChoice(*value))
        return std::nullopt;
    return static_cast<int>(*value);
}

double clampedTemperature(double value)
{
    if (!(value > 0.0)) // also NaN
        return 0.0;
    const double capped = std::min(value, maximumTemperature);
    return std::round(capped * 10.0) / 10.0; // std::round rounds half away from zero
}

QString decimalText(double value)
{
    QString text = QLocale::c().toString(value, 'g', QLocale::FloatingPointShortest);
    if (std::isfinite(value) && !text.contains(QLatin1Char('.')) && !text.contains(QLatin1Char('e')))
        text += QStringLiteral(".0");
    return text;
}

} // namespace Settings
