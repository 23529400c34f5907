// libFuzzer target for a script's answer as the runner prints it. Whatever a script makes the
// runner print, reading it for any hook throws nothing but the script errors the status line
// shows; an answer that is accepted holds only values within the documented limits, and reads
// back the same when written out again. An answer built from known values reads back as those
// values when they are of the right types and within the limits, and is refused otherwise.
#include "scripts/cartridge_answer.h"
#include "scripts/cartridge_error.h"
#include "support/fuzz_require.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <fuzzer/FuzzedDataProvider.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <variant>

namespace {

constexpr CartridgeHook hooks[] = {CartridgeHook::Info, CartridgeHook::Turn, CartridgeHook::Reply,
                                   CartridgeHook::Tick};

struct Refused
{
    bool unreadable = false; ///< CartridgeAnswerError, else CartridgeError::rejected
    QString message;
};
using Reading = std::variant<CartridgeResult, Refused>;

Reading read(const QByteArray &answer, CartridgeHook hook)
{
    try {
        return CartridgeEngine::readAnswer(answer, hook);
    } catch (const CartridgeAnswerError &error) {
        return Refused{true, error.description()};
    } catch (const CartridgeError &error) {
        // The only other case a script can cause here: answers are far below the size limit.
        FUZZ_REQUIRE(error.kind() == CartridgeError::Case::Rejected);
        return Refused{false, error.message()};
    } catch (...) {
        std::fputs("something other than a script error was thrown\n", stderr);
        std::abort();
    }
}

bool within(double value, double low, double high)
{
    return value >= low && value <= high;
}

bool withinLimits(const CartridgeResult &result, CartridgeHook hook)
{
    return (hook != CartridgeHook::Turn || (result.prompt && !result.prompt->trimmed().isEmpty()))
        && (!result.state || result.state->toUtf8().size() <= 65536)
        && (!result.tickEvery || within(*result.tickEvery, 10, 86400))
        && (!result.next || within(*result.next, 10, 86400))
        && (!result.temperature || within(*result.temperature, 0, 1.5))
        && (!result.maxTokens || within(double(*result.maxTokens), 64, 8192));
}

bool knownRoles(const CartridgeResult &result)
{
    for (const CartridgeInjection &message : result.inject.value_or(QList<CartridgeInjection>())) {
        if (message.role != u"user" && message.role != u"assistant" && message.role != u"system")
            return false;
    }
    return true;
}

QByteArray written(const CartridgeResult &result)
{
    QJsonObject answer;
    const auto put = [&answer](const char *key, const auto &value) {
        if (value)
            answer.insert(QLatin1String(key), *value);
    };
    put("prompt", result.prompt);
    put("temperature", result.temperature);
    put("max_tokens", result.maxTokens);
    put("agent_name", result.agentName);
    put("name", result.name);
    put("tick_every", result.tickEvery);
    put("has_on_reply", result.hasOnReply);
    put("state", result.state);
    put("display", result.display);
    put("data", result.data);
    put("respond", result.respond);
    put("next", result.next);
    if (result.inject) {
        QJsonArray messages;
        for (const CartridgeInjection &message : *result.inject)
            messages.append(QJsonObject{{QStringLiteral("role"), message.role}, {QStringLiteral("text"), message.text}});
        answer.insert(QStringLiteral("inject"), messages);
    }
    return QJsonDocument(answer).toJson(QJsonDocument::Compact);
}

void checkAnswer(const QByteArray &answer)
{
    for (const CartridgeHook hook : hooks) {
        const Reading reading = read(answer, hook);
        const auto *result = std::get_if<CartridgeResult>(&reading);
        if (!result)
            continue;
        FUZZ_REQUIRE(withinLimits(*result, hook));
        FUZZ_REQUIRE(knownRoles(*result));
        const Reading again = read(written(*result), hook);
        FUZZ_REQUIRE(std::holds_alternative<CartridgeResult>(again) && std::get<CartridgeResult>(again) == *result);
    }
}

/// An answer put together key by key from the input: each key left out, null, of its own type
/// or of another. Numbers come from the edges of their limits as often as from anywhere.
class BuiltAnswer
{
public:
    explicit BuiltAnswer(FuzzedDataProvider &fuzz)
        : m_fuzz(fuzz)
    {
        m_expected.prompt = text("prompt");
        m_expected.temperature = number("temperature", {0, 1.5, -0.0, 1.5000000000000002, -1e-300, 0.7});
        m_expected.maxTokens = integer("max_tokens", {63, 64, 8192, 8193, -64, 0});
        m_expected.agentName = text("agent_name");
        m_expected.name = text("name");
        m_expected.tickEvery = number("tick_every", {10, 86400, 9.999999999999998, 86400.00000000001, 60});
        m_expected.hasOnReply = boolean("has_on_reply");
        m_expected.state = text("state");
        m_expected.display = text("display");
        m_expected.data = text("data");
        m_expected.inject = injections("inject");
        m_expected.respond = boolean("respond");
        m_expected.next = number("next", {10, 86400, 9.5, 1e9, 30});
        if (m_fuzz.ConsumeIntegralInRange(0, 7) == 0) {
            if (m_fuzz.ConsumeBool()) {
                m_error = QString::fromUtf8(m_fuzz.ConsumeRandomLengthString(32));
                m_answer.insert(QStringLiteral("error"), *m_error);
            } else {
                m_answer.insert(QStringLiteral("error"), 1); // not a message: ignored
            }
        }
    }

    QByteArray bytes() const { return QJsonDocument(m_answer).toJson(QJsonDocument::Compact); }
    /// The string "error" the script threw, if it did.
    const std::optional<QString> &error() const { return m_error; }
    /// A key of the wrong type, or an injection that is not a message of a known role.
    bool malformed() const { return m_malformed; }
    const CartridgeResult &expected() const { return m_expected; }

private:
    enum class Form { Absent, Null, Own, Other };

    /// How `key` appears; a value of another type than `own` is put in at once. For an
    /// integer key a number with a fraction is of another type.
    Form form(const char *key, QJsonValue::Type own, bool integer = false)
    {
        const Form chosen = m_fuzz.PickValueInArray({Form::Absent, Form::Null, Form::Own, Form::Own, Form::Other});
        if (chosen == Form::Null)
            m_answer.insert(QLatin1String(key), QJsonValue());
        if (chosen == Form::Other) {
            QList<QJsonValue> others;
            for (const QJsonValue &value : {QJsonValue(QStringLiteral("1")), QJsonValue(true),
                                            QJsonValue(QJsonArray{}), QJsonValue(QJsonObject{}),
                                            QJsonValue(512.5)}) {
                if (value.type() != own || (integer && value.isDouble()))
                    others.append(value);
            }
            m_answer.insert(QLatin1String(key), others.at(m_fuzz.ConsumeIntegralInRange<qsizetype>(0, others.size() - 1)));
            m_malformed = true;
        }
        return chosen;
    }

    std::optional<QString> text(const char *key)
    {
        if (form(key, QJsonValue::String) != Form::Own)
            return std::nullopt;
        const QString value = QString::fromUtf8(m_fuzz.ConsumeRandomLengthString(64));
        m_answer.insert(QLatin1String(key), value);
        return value;
    }

    std::optional<double> number(const char *key, std::initializer_list<const double> edges)
    {
        if (form(key, QJsonValue::Double) != Form::Own)
            return std::nullopt;
        const double value = m_fuzz.ConsumeBool() ? m_fuzz.PickValueInArray(edges)
                                                  : m_fuzz.ConsumeFloatingPoint<double>();
        m_answer.insert(QLatin1String(key), value);
        return value;
    }

    /// Integers within JSON's exact range, 2^53 either way.
    std::optional<qint64> integer(const char *key, std::initializer_list<const qint64> edges)
    {
        if (form(key, QJsonValue::Double, true) != Form::Own)
            return std::nullopt;
        constexpr qint64 exact = qint64(1) << 53;
        const qint64 value = m_fuzz.ConsumeBool() ? m_fuzz.PickValueInArray(edges)
                                                  : m_fuzz.ConsumeIntegralInRange(-exact, exact);
        // Written as a number with a fraction part of zero as often as not: 512.0 is 512.
        m_answer.insert(QLatin1String(key), m_fuzz.ConsumeBool() ? QJsonValue(value) : QJsonValue(double(value)));
        return value;
    }

    std::optional<bool> boolean(const char *key)
    {
        if (form(key, QJsonValue::Bool) != Form::Own)
            return std::nullopt;
        const bool value = m_fuzz.ConsumeBool();
        m_answer.insert(QLatin1String(key), value);
        return value;
    }

    std::optional<QList<CartridgeInjection>> injections(const char *key)
    {
        if (form(key, QJsonValue::Array) != Form::Own)
            return std::nullopt;
        QList<CartridgeInjection> messages;
        QJsonArray array;
        for (int i = m_fuzz.ConsumeIntegralInRange(0, 3); i > 0; --i) {
            CartridgeInjection message;
            message.role = m_fuzz.PickValueInArray<QString>({QStringLiteral("user"), QStringLiteral("assistant"),
                                                             QStringLiteral("system"), QStringLiteral("tool"),
                                                             QStringLiteral("User"), QString()});
            message.text = QString::fromUtf8(m_fuzz.ConsumeRandomLengthString(32));
            QJsonObject object{{QStringLiteral("role"), message.role}, {QStringLiteral("text"), message.text}};
            switch (m_fuzz.ConsumeIntegralInRange(0, 5)) {
            case 0:
                object.remove(QStringLiteral("text"));
                m_malformed = true;
                break;
            case 1:
                object.insert(QStringLiteral("role"), 1);
                m_malformed = true;
                break;
            case 2:
                array.append(QStringLiteral("not a message"));
                m_malformed = true;
                continue;
            default:
                break;
            }
            if (message.role != u"user" && message.role != u"assistant" && message.role != u"system")
                m_malformed = true;
            array.append(object);
            messages.append(message);
        }
        m_answer.insert(QLatin1String(key), array);
        return messages;
    }

    FuzzedDataProvider &m_fuzz;
    QJsonObject m_answer;
    CartridgeResult m_expected;
    std::optional<QString> m_error;
    bool m_malformed = false;
};

void checkBuilt(FuzzedDataProvider &fuzz)
{
    const BuiltAnswer built(fuzz);
    for (const CartridgeHook hook : hooks) {
        const Reading reading = read(built.bytes(), hook);
        if (built.error()) {
            // The script's own error comes first, word for word.
            const auto *refused = std::get_if<Refused>(&reading);
            FUZZ_REQUIRE(refused && !refused->unreadable && refused->message == *built.error());
        } else if (built.malformed()) {
            const auto *refused = std::get_if<Refused>(&reading);
            FUZZ_REQUIRE(refused && refused->unreadable);
        } else if (withinLimits(built.expected(), hook)) {
            const auto *result = std::get_if<CartridgeResult>(&reading);
            FUZZ_REQUIRE(result && *result == built.expected());
        } else {
            const auto *refused = std::get_if<Refused>(&reading);
            FUZZ_REQUIRE(refused && !refused->unreadable);
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    checkAnswer(QByteArray(reinterpret_cast<const char *>(data), qsizetype(size)));
    FuzzedDataProvider fuzz(data, size);
    checkBuilt(fuzz);
    return 0;
}
