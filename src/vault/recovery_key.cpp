#include "vault/recovery_key.h"

#include <QChar>
#include <QList>

#include <openssl/crypto.h>

namespace Vault {

namespace {

constexpr int groupSize = 4;
constexpr int keyLength = recoverySecretSize * 8 / 5; // 32 characters

bool keepsWhenTyped(char32_t c)
{
    switch (QChar::category(c)) {
    case QChar::Letter_Uppercase:
    case QChar::Letter_Lowercase:
    case QChar::Letter_Titlecase:
    case QChar::Letter_Modifier:
    case QChar::Letter_Other:
    case QChar::Number_DecimalDigit:
    case QChar::Number_Letter:
    case QChar::Number_Other:
    // A combining mark turns the letter before it into another letter ("E" + acute is "É"),
    // so it is kept and then refused by the alphabet check, just like a precomposed "É".
    case QChar::Mark_NonSpacing:
    case QChar::Mark_SpacingCombining:
    case QChar::Mark_Enclosing:
        return true;
    default:
        return false;
    }
}

char32_t readAs(char32_t c)
{
    switch (c) {
    case U'O':
        return U'0';
    case U'I':
    case U'L':
        return U'1';
    default:
        return c;
    }
}

int valueOf(char32_t c)
{
    if (c >= 0x80)
        return -1;
    const auto position = recoveryAlphabet.find(char(c));
    return position == std::string_view::npos ? -1 : int(position);
}

// The typed text is as secret as the key, so working copies are overwritten before release.
template<typename Buffer>
struct Wipe
{
    Buffer &buffer;
    ~Wipe() { OPENSSL_cleanse(buffer.data(), size_t(buffer.size()) * sizeof(*buffer.data())); }
};

} // namespace

QString formatRecoveryKey(const QByteArray &bytes)
{
    QString characters;
    characters.reserve(bytes.size() * 8 / 5);
    const Wipe<QString> wipeCharacters{characters};
    unsigned buffer = 0;
    int bits = 0;
    for (const char byte : bytes) {
        buffer = ((buffer << 8) | static_cast<unsigned char>(byte)) & 0xFFFF;
        bits += 8;
        while (bits >= 5) {
            bits -= 5;
            characters += QLatin1Char(recoveryAlphabet[(buffer >> bits) & 31]);
        }
    }

    QString shown;
    shown.reserve(characters.size() + characters.size() / groupSize);
    for (qsizetype i = 0; i < characters.size(); i += groupSize) {
        if (i > 0)
            shown += QLatin1Char('-');
        shown += QStringView(characters).mid(i, groupSize);
    }
    return shown;
}

std::optional<QByteArray> parseRecoveryKey(const QString &text)
{
    // Code points rather than UTF-16 units, so that a letter outside the Basic Multilingual
    // Plane counts once and is refused as a whole.
    QString upper = text.toUpper();
    const Wipe<QString> wipeUpper{upper};
    QList<uint> typed = upper.toUcs4();
    const Wipe<QList<uint>> wipeTyped{typed};
    QByteArray bytes;
    bytes.reserve(recoverySecretSize);
    const auto refuse = [&bytes]() -> std::optional<QByteArray> {
        OPENSSL_cleanse(bytes.data(), size_t(bytes.size()));
        return std::nullopt;
    };
    unsigned accumulator = 0;
    int bits = 0;
    int count = 0;
    for (const uint unit : std::as_const(typed)) {
        const char32_t c = readAs(char32_t(unit));
        if (!keepsWhenTyped(c))
            continue;
        const int value = valueOf(c);
        if (value < 0 || ++count > keyLength)
            return refuse();
        accumulator = ((accumulator << 5) | unsigned(value)) & 0xFFFF;
        bits += 5;
        if (bits >= 8) {
            bits -= 8;
            bytes += char((accumulator >> bits) & 0xFF);
        }
    }
    if (count != keyLength)
        return refuse();
    return bytes;
}

} // namespace Vault
