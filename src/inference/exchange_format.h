#pragma once

#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>
#include <QString>

#include <optional>
#include <variant>

/// The wire format of the chat-completion exchange with llama-server, as pure functions so
/// that every rule can be checked without a server.
namespace ExchangeFormat {

/// An image sent with the latest message: its JPEG bytes and the context tokens it will take.
struct LatestImage
{
    QByteArray jpeg;
    qint64 tokens = 0;
};

/// What the server measured of the tokens it generated, from the "timings" of a streamed
/// event (llama-server sends them with the last one).
struct StreamTimings
{
    qint64 predictedTokens = 0;
    double tokensPerSecond = 0;

    bool operator==(const StreamTimings &) const = default;
};

/// One line of a streamed completion: nothing to do, the end of the stream, a piece of text,
/// or the server's timings.
struct Skip {};
struct Done {};
using StreamEvent = std::variant<Skip, Done, QString, StreamTimings>;

/// Reads one line of the event stream (its line break already removed). Only lines that begin
/// with exactly "data: " count; "[DONE]" ends the stream; anything malformed is skipped. A
/// line with both text and timings answers its text: the text must not be lost, and a server
/// that times every token sends timings again.
StreamEvent parseStreamLine(QByteArrayView line);

/// A plain message object.
QJsonObject message(const QString &role, const QString &content);

/// The part that carries an image: a data URL of the base64 JPEG.
QJsonObject imagePart(const QByteArray &jpeg);

/// The system message followed by the last `k` messages of `history`, less the first of those
/// when it is the assistant's, so that the kept window never starts with a reply.
QJsonArray candidate(const QJsonObject &system, const QJsonArray &history, qsizetype k);

/// `messages` with the last message's text replaced by the image part followed by the text
/// (left out when empty). Unchanged when the last message has no text content.
QJsonArray withImage(QJsonArray messages, const QByteArray &jpeg);

/// The context left for the prompt: the context less the reply, a margin for the template and
/// the image.
qint64 promptBudget(qint64 contextTokens, qint64 maxResponse, const std::optional<LatestImage> &image);

/// The body of a summary request.
QJsonObject summaryRequest(const QString &previous, const QString &transcript, int maxTokens);

/// A summary with paragraphs that the model repeated removed, each paragraph trimmed of
/// spaces, tabs and line breaks.
QString withoutRepeatedParagraphs(const QString &text);

/// The body of an image description request.
QJsonObject imageDescriptionRequest(const QByteArray &jpeg);

/// `response["choices"][0]["message"]["content"]`, trimmed; nothing when any link is missing
/// or of the wrong type.
std::optional<QString> completionText(const QJsonObject &response);

} // namespace ExchangeFormat
