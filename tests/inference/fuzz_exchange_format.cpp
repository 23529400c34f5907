// libFuzzer target for what llama-server sends back: the lines of a streamed reply, the body of
// a summary or image description, and the summary's paragraphs. Whatever arrives must not
// crash the readers; only lines that begin with "data: " mean anything; timings read are never
// negative nor infinite; the text a well-formed event or response carries comes out exactly as
// it was sent (trimmed, for a response), with or without timings beside it; and a summary with
// its repeated paragraphs removed has none left to remove.
#include "inference/exchange_format.h"
#include "support/fuzz_require.h"

#include <QJsonDocument>

#include <fuzzer/FuzzedDataProvider.h>

#include <cmath>
#include <cstdint>
#include <limits>

using namespace ExchangeFormat;

namespace {

QByteArray compact(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

void checkLine(QByteArrayView line)
{
    const StreamEvent event = parseStreamLine(line);
    if (!line.startsWith("data: "))
        FUZZ_REQUIRE(std::holds_alternative<Skip>(event));
    if (const auto *timings = std::get_if<StreamTimings>(&event)) {
        FUZZ_REQUIRE(timings->predictedTokens >= 0);
        FUZZ_REQUIRE(timings->tokensPerSecond >= 0 && std::isfinite(timings->tokensPerSecond));
    }
}

void checkResponse(const QByteArray &body)
{
    const auto text = completionText(QJsonDocument::fromJson(body).object());
    if (text)
        FUZZ_REQUIRE(*text == text->trimmed());
}

void checkSummary(const QString &summary)
{
    const QString kept = withoutRepeatedParagraphs(summary);
    FUZZ_REQUIRE(withoutRepeatedParagraphs(kept) == kept);
}

/// Events as llama-server writes them, around text and numbers taken from the input.
void checkWellFormed(FuzzedDataProvider &fuzz)
{
    const QString piece = QString::fromUtf8(fuzz.ConsumeRandomLengthString(256));
    const StreamTimings timings{fuzz.ConsumeIntegralInRange<qint64>(0, std::numeric_limits<qint64>::max()),
                                std::abs(fuzz.ConsumeFloatingPoint<double>())};
    const QJsonObject timingsObject{{QStringLiteral("prompt_n"), 12},
                                    {QStringLiteral("predicted_n"), timings.predictedTokens},
                                    {QStringLiteral("predicted_per_second"), timings.tokensPerSecond}};
    const bool withTimings = fuzz.ConsumeBool();

    QJsonObject event{
        {QStringLiteral("object"), QStringLiteral("chat.completion.chunk")},
        {QStringLiteral("choices"),
         QJsonArray{QJsonObject{{QStringLiteral("index"), 0},
                                {QStringLiteral("finish_reason"), QJsonValue()},
                                {QStringLiteral("delta"), QJsonObject{{QStringLiteral("content"), piece}}}}}},
    };
    if (withTimings)
        event.insert(QStringLiteral("timings"), timingsObject);
    const StreamEvent text = parseStreamLine(QByteArray("data: ") + compact(event));
    FUZZ_REQUIRE(std::holds_alternative<QString>(text) && std::get<QString>(text) == piece);

    // The last event: an empty delta, and the timings.
    const QJsonObject last{
        {QStringLiteral("choices"),
         QJsonArray{QJsonObject{{QStringLiteral("index"), 0},
                                {QStringLiteral("finish_reason"), QStringLiteral("stop")},
                                {QStringLiteral("delta"), QJsonObject{}}}}},
        {QStringLiteral("timings"), timingsObject},
    };
    const StreamEvent measured = parseStreamLine(QByteArray("data: ") + compact(last));
    FUZZ_REQUIRE(std::holds_alternative<StreamTimings>(measured) && std::get<StreamTimings>(measured) == timings);

    const QJsonObject response{
        {QStringLiteral("choices"),
         QJsonArray{QJsonObject{{QStringLiteral("index"), 0},
                                {QStringLiteral("message"),
                                 QJsonObject{{QStringLiteral("role"), QStringLiteral("assistant")},
                                             {QStringLiteral("content"), piece}}}}}},
    };
    FUZZ_REQUIRE(completionText(QJsonDocument::fromJson(compact(response)).object()) == piece.trimmed());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char *>(data), qsizetype(size));
    checkLine(bytes);
    // The same bytes as the payload of an event, so that the JSON gets fuzzed whatever the
    // input begins with.
    checkLine(QByteArray("data: ") + bytes);
    checkResponse(bytes);
    checkSummary(QString::fromUtf8(bytes));

    FuzzedDataProvider fuzz(data, size);
    checkWellFormed(fuzz);
    return 0;
}
