#include "inference/exchange_format.h"

#include <QJsonDocument>
#include <QSet>

namespace ExchangeFormat {

namespace {

const QString s_summaryInstruction = QStringLiteral(
    "Summarize this conversation between a user and an assistant so the assistant can continue it "
    "later without the transcript. If an earlier summary is given, treat it as the start of the "
    "conversation; when newer messages change a fact, keep only the newer fact. Keep names, facts "
    "about the user, preferences, decisions, plans, promises, and open questions. Drop small talk. "
    "Write one short summary in the third person with no preamble, at most ");

const QString s_describeInstruction = QStringLiteral(
    "Describe this image in two or three plain sentences for a chat transcript. Name the main "
    "subjects, the setting, and quote any readable text exactly.");

// Line breaks go too: a paragraph left beginning or ending with one would join its neighbour's
// separator into a new blank line, and the joined summary would split into other paragraphs,
// repeats among them.
QString trimmedBlanks(const QString &text)
{
    qsizetype start = 0;
    qsizetype end = text.size();
    const auto blank = [](QChar c) {
        return c == QLatin1Char(' ') || c == QLatin1Char('\t') || c == QLatin1Char('\n');
    };
    while (start < end && blank(text[start]))
        ++start;
    while (end > start && blank(text[end - 1]))
        --end;
    return text.mid(start, end - start);
}

} // namespace

StreamEvent parseStreamLine(QByteArrayView line)
{
    constexpr QByteArrayView prefix("data: ");
    if (!line.startsWith(prefix))
        return Skip{};
    const QByteArrayView payload = line.sliced(prefix.size());
    if (payload == QByteArrayView("[DONE]"))
        return Done{};
    const QJsonDocument document = QJsonDocument::fromJson(payload.toByteArray());
    if (!document.isObject())
        return Skip{};
    const QJsonValue choices = document.object().value(QLatin1String("choices"));
    if (choices.isArray() && !choices.toArray().isEmpty()) {
        const QJsonValue delta = choices.toArray().first().toObject().value(QLatin1String("delta"));
        const QJsonValue content = delta.toObject().value(QLatin1String("content"));
        if (delta.isObject() && content.isString())
            return content.toString();
    }
    const QJsonObject timings = document.object().value(QLatin1String("timings")).toObject();
    const QJsonValue tokens = timings.value(QLatin1String("predicted_n"));
    const QJsonValue rate = timings.value(QLatin1String("predicted_per_second"));
    if (!tokens.isDouble() || !rate.isDouble() || tokens.toDouble() < 0 || !(rate.toDouble() >= 0))
        return Skip{};
    return StreamTimings{tokens.toInteger(), rate.toDouble()};
}

QJsonObject message(const QString &role, const QString &content)
{
    return {{QStringLiteral("role"), role}, {QStringLiteral("content"), content}};
}

QJsonObject imagePart(const QByteArray &jpeg)
{
    const QString url = QStringLiteral("data:image/jpeg;base64,") + QString::fromLatin1(jpeg.toBase64());
    return {{QStringLiteral("type"), QStringLiteral("image_url")},
            {QStringLiteral("image_url"), QJsonObject{{QStringLiteral("url"), url}}}};
}

QJsonArray candidate(const QJsonObject &system, const QJsonArray &history, qsizetype k)
{
    qsizetype first = std::max<qsizetype>(0, history.size() - k);
    if (first < history.size()
        && history[first].toObject().value(QLatin1String("role")).toString() == QLatin1String("assistant"))
        ++first;
    QJsonArray result{system};
    for (qsizetype i = first; i < history.size(); ++i)
        result.append(history[i]);
    return result;
}

QJsonArray withImage(QJsonArray messages, const QByteArray &jpeg)
{
    if (messages.isEmpty())
        return messages;
    QJsonObject last = messages.last().toObject();
    const QJsonValue content = last.value(QLatin1String("content"));
    if (!content.isString())
        return messages;
    QJsonArray parts{imagePart(jpeg)};
    if (!content.toString().isEmpty())
        parts.append(QJsonObject{{QStringLiteral("type"), QStringLiteral("text")},
                                 {QStringLiteral("text"), content.toString()}});
    last.insert(QStringLiteral("content"), parts);
    messages.replace(messages.size() - 1, last);
    return messages;
}

qint64 promptBudget(qint64 contextTokens, qint64 maxResponse, const std::optional<LatestImage> &image)
{
    constexpr qint64 templateMargin = 32;
    return contextTokens - maxResponse - templateMargin - (image ? image->tokens : 0);
}

QJsonObject summaryRequest(const QString &previous, const QString &transcript, int maxTokens)
{
    const int words = (2 * maxTokens) / 3;
    QString conversation = QStringLiteral("Conversation:\n\n");
    if (!previous.isEmpty())
        conversation += QStringLiteral("[Earlier summary] ") + previous + QStringLiteral("\n\n");
    conversation += transcript;
    return {
        {QStringLiteral("model"), QStringLiteral("local")},
        {QStringLiteral("max_tokens"), maxTokens},
        {QStringLiteral("temperature"), 0.2},
        {QStringLiteral("messages"),
         QJsonArray{message(QStringLiteral("system"),
                            s_summaryInstruction + QString::number(words) + QStringLiteral(" words.")),
                    message(QStringLiteral("user"), conversation)}},
    };
}

QString withoutRepeatedParagraphs(const QString &text)
{
    QStringList kept;
    QSet<QString> seen;
    for (const QString &paragraph : text.split(QStringLiteral("\n\n"))) {
        const QString trimmed = trimmedBlanks(paragraph);
        if (seen.contains(trimmed))
            continue;
        seen.insert(trimmed);
        kept.append(trimmed);
    }
    return kept.join(QStringLiteral("\n\n"));
}

QJsonObject imageDescriptionRequest(const QByteArray &jpeg)
{
    const QJsonArray parts{imagePart(jpeg),
                           QJsonObject{{QStringLiteral("type"), QStringLiteral("text")},
                                       {QStringLiteral("text"), s_describeInstruction}}};
    return {
        {QStringLiteral("model"), QStringLiteral("local")},
        {QStringLiteral("max_tokens"), 200},
        {QStringLiteral("temperature"), 0.2},
        {QStringLiteral("messages"),
         QJsonArray{QJsonObject{{QStringLiteral("role"), QStringLiteral("user")}, {QStringLiteral("content"), parts}}}},
    };
}

std::optional<QString> completionText(const QJsonObject &response)
{
    const QJsonValue choices = response.value(QLatin1String("choices"));
    if (!choices.isArray() || choices.toArray().isEmpty() || !choices.toArray().first().isObject())
        return std::nullopt;
    const QJsonValue message = choices.toArray().first().toObject().value(QLatin1String("message"));
    if (!message.isObject())
        return std::nullopt;
    const QJsonValue content = message.toObject().value(QLatin1String("content"));
    if (!content.isString())
        return std::nullopt;
    return content.toString().trimmed();
}

} // namespace ExchangeFormat
