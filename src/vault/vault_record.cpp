#include "vault/vault_record.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>

#include <cmath>

namespace {

// Written as Foundation's JSONEncoder writes a record with default settings: compact, fields
// in declaration order, "/" escaped as "\/". The output is canonical, so decoding and encoding
// again gives the same bytes, seal included. Base64 needs no other escape.
void appendBytes(QByteArray &json, const char *key, const QByteArray &bytes, bool first = false)
{
    if (!first)
        json += ',';
    json += '"';
    json += key;
    json += "\":\"";
    json += bytes.toBase64().replace("/", "\\/");
    json += '"';
}

std::optional<QByteArray> bytesAt(const QJsonObject &object, QLatin1StringView key)
{
    const QJsonValue value = object.value(key);
    if (!value.isString())
        return std::nullopt;
    const QByteArray text = value.toString().toLatin1();
    auto decoded = QByteArray::fromBase64Encoding(text, QByteArray::AbortOnBase64DecodingErrors);
    // Only the standard alphabet with padding: the text must be what encoding gives back.
    if (!decoded || decoded.decoded.toBase64() != text)
        return std::nullopt;
    return decoded.decoded;
}

std::optional<qint64> integerAt(const QJsonObject &object, QLatin1StringView key)
{
    const QJsonValue value = object.value(key);
    if (!value.isDouble())
        return std::nullopt;
    // Qt keeps integer literals exact; anything with a fraction or beyond 64 bits is refused.
    const double number = value.toDouble();
    if (number != std::trunc(number) || std::abs(number) > 9.2e18)
        return std::nullopt;
    return value.toInteger();
}

std::optional<TouchIDSeal> sealFrom(const QJsonObject &object)
{
    auto enclaveKey = bytesAt(object, QLatin1StringView("enclaveKey"));
    auto ephemeralPublicKey = bytesAt(object, QLatin1StringView("ephemeralPublicKey"));
    auto sealedKey = bytesAt(object, QLatin1StringView("sealedKey"));
    if (!enclaveKey || !ephemeralPublicKey || !sealedKey)
        return std::nullopt;
    return TouchIDSeal{*enclaveKey, *ephemeralPublicKey, *sealedKey};
}

} // namespace

QByteArray VaultRecord::toJson() const
{
    QByteArray json = "{";
    appendBytes(json, "salt", salt, true);
    json += ",\"rounds\":" + QByteArray::number(rounds);
    appendBytes(json, "byPassword", byPassword);
    appendBytes(json, "byRecoveryKey", byRecoveryKey);
    if (touchID) {
        json += ",\"touchID\":{";
        appendBytes(json, "enclaveKey", touchID->enclaveKey, true);
        appendBytes(json, "ephemeralPublicKey", touchID->ephemeralPublicKey);
        appendBytes(json, "sealedKey", touchID->sealedKey);
        json += '}';
    }
    json += '}';
    return json;
}

std::optional<VaultRecord> VaultRecord::fromJson(const QByteArray &json)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(json, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        return std::nullopt;
    const QJsonObject object = document.object();

    auto salt = bytesAt(object, QLatin1StringView("salt"));
    auto rounds = integerAt(object, QLatin1StringView("rounds"));
    auto byPassword = bytesAt(object, QLatin1StringView("byPassword"));
    auto byRecoveryKey = bytesAt(object, QLatin1StringView("byRecoveryKey"));
    if (!salt || !rounds || !byPassword || !byRecoveryKey)
        return std::nullopt;
    VaultRecord record{*salt, *rounds, *byPassword, *byRecoveryKey, std::nullopt};

    const QJsonValue seal = object.value(QLatin1StringView("touchID"));
    if (seal.isUndefined() || seal.isNull())
        return record;
    if (!seal.isObject() || !(record.touchID = sealFrom(seal.toObject())))
        return std::nullopt;
    return record;
}
