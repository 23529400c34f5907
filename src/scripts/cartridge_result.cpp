#include "scripts/cartridge_result.h"

#include "scripts/cartridge_error.h"

#include <QJsonArray>

#include <cmath>

namespace {

[[noreturn]] void wrongType(const QString &key, const char *expected)
{
    throw CartridgeAnswerError(QStringLiteral("The script's answer could not be read: \"%1\" must be %2.")
                                   .arg(key, QLatin1String(expected)));
}

/// The value under `key` when it is given: absent keys and null both mean "not given".
std::optional<QJsonValue> given(const QJsonObject &object, const QString &key)
{
    const QJsonValue value = object.value(key);
    if (value.isUndefined() || value.isNull())
        return std::nullopt;
    return value;
}

std::optional<QString> stringAt(const QJsonObject &object, const QString &key)
{
    const auto value = given(object, key);
    if (!value)
        return std::nullopt;
    if (!value->isString())
        wrongType(key, "a string");
    return value->toString();
}

std::optional<double> numberAt(const QJsonObject &object, const QString &key)
{
    const auto value = given(object, key);
    if (!value)
        return std::nullopt;
    if (!value->isDouble())
        wrongType(key, "a number");
    return value->toDouble();
}

std::optional<qint64> integerAt(const QJsonObject &object, const QString &key)
{
    const auto value = numberAt(object, key);
    if (!value)
        return std::nullopt;
    // JSON has one number type: 512 and 512.0 are the same integer, 512.5 is none.
    constexpr double limit = 9223372036854775808.0; // 2^63
    if (std::trunc(*value) != *value || *value >= limit || *value < -limit)
        wrongType(key, "an integer");
    return qint64(*value);
}

std::optional<bool> boolAt(const QJsonObject &object, const QString &key)
{
    const auto value = given(object, key);
    if (!value)
        return std::nullopt;
    if (!value->isBool())
        wrongType(key, "true or false");
    return value->toBool();
}

std::optional<QList<CartridgeInjection>> injectionsAt(const QJsonObject &object, const QString &key)
{
    const auto value = given(object, key);
    if (!value)
        return std::nullopt;
    if (!value->isArray())
        wrongType(key, "a list of messages");
    QList<CartridgeInjection> injections;
    for (const QJsonValue entry : value->toArray()) {
        const QJsonObject message = entry.toObject();
        const QJsonValue role = message.value(QLatin1String("role"));
        const QJsonValue text = message.value(QLatin1String("text"));
        if (!entry.isObject() || !role.isString() || !text.isString())
            wrongType(key, "a list of messages with a string \"role\" and \"text\"");
        // A chat holds no other roles: a message of another would be sent to the model as it
        // stands, and a chat template may refuse the whole chat for it.
        const QString name = role.toString();
        if (name != u"user" && name != u"assistant" && name != u"system")
            wrongType(key, "a list of messages whose \"role\" is \"user\", \"assistant\" or \"system\"");
        injections.append({name, text.toString()});
    }
    return injections;
}

/// Inclusive, and false for NaN.
bool within(double value, double low, double high)
{
    return value >= low && value <= high;
}

} // namespace

CartridgeResult CartridgeResult::fromJson(const QJsonObject &answer)
{
    CartridgeResult result;
    result.prompt = stringAt(answer, QStringLiteral("prompt"));
    result.temperature = numberAt(answer, QStringLiteral("temperature"));
    result.maxTokens = integerAt(answer, QStringLiteral("max_tokens"));
    result.agentName = stringAt(answer, QStringLiteral("agent_name"));
    result.name = stringAt(answer, QStringLiteral("name"));
    result.tickEvery = numberAt(answer, QStringLiteral("tick_every"));
    result.hasOnReply = boolAt(answer, QStringLiteral("has_on_reply"));
    result.state = stringAt(answer, QStringLiteral("state"));
    result.display = stringAt(answer, QStringLiteral("display"));
    result.data = stringAt(answer, QStringLiteral("data"));
    result.inject = injectionsAt(answer, QStringLiteral("inject"));
    result.respond = boolAt(answer, QStringLiteral("respond"));
    result.next = numberAt(answer, QStringLiteral("next"));
    return result;
}

void CartridgeResult::check(CartridgeHook hook) const
{
    if (hook == CartridgeHook::Turn && (!prompt || prompt->trimmed().isEmpty()))
        throw CartridgeError::rejected(QStringLiteral("Prompt is empty"));
    if (state && state->toUtf8().size() > 65536)
        throw CartridgeError::rejected(QStringLiteral("state must be under 64 KB as JSON"));
    if (tickEvery && !within(*tickEvery, 10, 86400))
        throw CartridgeError::rejected(QStringLiteral("tick_every must be between 10 and 86400 seconds"));
    if (next && !within(*next, 10, 86400))
        throw CartridgeError::rejected(QStringLiteral("next must be between 10 and 86400 seconds"));
    if (temperature && !within(*temperature, 0, 1.5))
        throw CartridgeError::rejected(QStringLiteral("temperature must be between 0 and 1.5"));
    if (maxTokens && !within(double(*maxTokens), 64, 8192))
        throw CartridgeError::rejected(QStringLiteral("max_tokens must be between 64 and 8192"));
}
