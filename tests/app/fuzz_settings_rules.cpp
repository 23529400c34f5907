// libFuzzer target for the rules that read stored settings. Whatever a damaged or hand-edited
// row holds, a value that is accepted lies in the set the settings screen can show, and storing
// it again as the application writes it reads back the same value; every temperature the
// control can store is accepted as it was stored.
#include "app/settings_rules.h"
#include "support/fuzz_require.h"

#include <QLocale>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

namespace {

void checkStored(const QString &stored)
{
    if (const auto prompt = Settings::acceptedGlobalPrompt(stored))
        FUZZ_REQUIRE(!prompt->isEmpty());
    if (const auto name = Settings::acceptedAgentName(stored))
        FUZZ_REQUIRE(!Settings::trimmed(*name).isEmpty());

    if (const auto temperature = Settings::acceptedTemperature(stored)) {
        FUZZ_REQUIRE(*temperature >= 0 && *temperature <= Settings::maximumTemperature);
        FUZZ_REQUIRE(Settings::acceptedTemperature(Settings::decimalText(*temperature)) == temperature);
    }
    if (const auto tokens = Settings::acceptedMaxResponseTokens(stored)) {
        FUZZ_REQUIRE(Settings::isMaxResponseTokenChoice(*tokens));
        FUZZ_REQUIRE(Settings::acceptedMaxResponseTokens(QString::number(*tokens)) == tokens);
    }
    if (const auto tokens = Settings::acceptedContextTokens(stored)) {
        FUZZ_REQUIRE(Settings::isContextTokenChoice(*tokens));
        FUZZ_REQUIRE(Settings::acceptedContextTokens(QString::number(*tokens)) == tokens);
    }
}

/// Any double the temperature control may hand over, NaN and infinities included.
void checkControl(double value)
{
    const double stored = Settings::clampedTemperature(value);
    FUZZ_REQUIRE(stored >= 0 && stored <= Settings::maximumTemperature);
    FUZZ_REQUIRE(Settings::acceptedTemperature(Settings::decimalText(stored)) == stored);

    // The decimal text reads back as the very same number, and as a decimal.
    if (std::isfinite(value)) {
        const QString text = Settings::decimalText(value);
        bool ok = false;
        FUZZ_REQUIRE(QLocale::c().toDouble(text, &ok) == value && ok);
        FUZZ_REQUIRE(text.contains(QLatin1Char('.')) || text.contains(QLatin1Char('e')));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const auto *chars = reinterpret_cast<const char *>(data);
    // The row's text as SQLite hands back UTF-8, and as any UTF-16 a QString can hold.
    checkStored(QString::fromUtf8(chars, qsizetype(size)));
    QString units(qsizetype(size / 2), Qt::Uninitialized);
    std::memcpy(units.data(), data, std::size_t(units.size()) * sizeof(QChar));
    checkStored(units);

    double value = 0;
    std::memcpy(&value, data, std::min(size, sizeof value));
    checkControl(value);
    // Also the value the input spells, so that the control's likely range comes up as often
    // as raw bit patterns do.
    bool ok = false;
    const double spelled = QLocale::c().toDouble(QString::fromLatin1(chars, qsizetype(size)), &ok);
    if (ok)
        checkControl(spelled);
    return 0;
}
