// libFuzzer target for the recovery-key parser: whatever is typed must not crash it or read
// out of bounds, and every key it accepts must come back the same through its shown form.
#include "vault/recovery_key.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

void require(bool condition)
{
    if (!condition)
        std::abort();
}

void checkRoundTrip(const QString &typed)
{
    const std::optional<QByteArray> bytes = Vault::parseRecoveryKey(typed);
    if (!bytes)
        return;
    require(bytes->size() == Vault::recoverySecretSize);
    const QString shown = Vault::formatRecoveryKey(*bytes);
    require(shown.size() == 39);
    for (qsizetype i = 0; i < shown.size(); ++i) {
        if (i % 5 == 4)
            require(shown.at(i) == u'-');
        else
            require(shown.at(i).unicode() < 0x80
                    && Vault::recoveryAlphabet.find(char(shown.at(i).unicode())) != std::string_view::npos);
    }
    require(Vault::parseRecoveryKey(shown) == bytes);
    require(Vault::parseRecoveryKey(shown.toLower().replace(u'-', u' ')) == bytes);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const auto *chars = reinterpret_cast<const char *>(data);
    // The same bytes as UTF-8 text (what is pasted) and as UTF-16 units (anything a QString
    // can hold, unpaired surrogates included).
    checkRoundTrip(QString::fromUtf8(chars, qsizetype(size)));
    QString units(qsizetype(size / 2), Qt::Uninitialized);
    std::memcpy(units.data(), data, size_t(units.size()) * sizeof(QChar));
    checkRoundTrip(units);

    if (size < std::size_t(Vault::recoverySecretSize))
        return 0;
    // Any 20 bytes survive formatting and parsing.
    const QByteArray bytes(chars, Vault::recoverySecretSize);
    const QString shown = Vault::formatRecoveryKey(bytes);
    require(Vault::parseRecoveryKey(shown) == bytes);

    // The same key typed messily: the rest of the input spliced in between its characters, some
    // of them lower-cased. Random text rarely parses; this way accepted keys come up all the
    // time. With only ASCII separators spliced in, the key must still read the same.
    const QByteArray rest(chars + Vault::recoverySecretSize,
                          qsizetype(size) - Vault::recoverySecretSize);
    QString typed;
    bool onlySeparators = true;
    for (qsizetype i = 0; i < std::max(shown.size(), rest.size()); ++i) {
        if (i < shown.size())
            typed += i < rest.size() && rest.at(i) & 1 ? shown.at(i).toLower() : shown.at(i);
        if (i < rest.size()) {
            const char c = rest.at(i);
            typed += QLatin1Char(c);
            onlySeparators = onlySeparators && c > 0 && !std::isalnum(static_cast<unsigned char>(c));
        }
    }
    checkRoundTrip(typed);
    if (onlySeparators)
        require(Vault::parseRecoveryKey(typed) == bytes);
    return 0;
}
