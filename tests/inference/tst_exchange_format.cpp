// The wire rules of the chat-completion exchange, without a server.
#include "inference/exchange_format.h"
#include "inference/inference_error.h"

#include <QJsonDocument>
#include <QLocale>
#include <QTest>

using namespace ExchangeFormat;

namespace {

QJsonArray history(const QStringList &roles)
{
    QJsonArray messages;
    for (qsizetype i = 0; i < roles.size(); ++i)
        messages.append(message(roles[i], QStringLiteral("m%1").arg(i)));
    return messages;
}

QStringList contents(const QJsonArray &messages)
{
    QStringList result;
    for (const QJsonValue &m : messages)
        result << m.toObject().value("content").toString();
    return result;
}

} // namespace

class TestExchangeFormat : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void streamLines_data()
    {
        QTest::addColumn<QByteArray>("line");
        QTest::addColumn<int>("kind"); // 0 skip, 1 done, 2 token
        QTest::addColumn<QString>("token");
        QTest::newRow("comment") << QByteArray(": keep-alive") << 0 << QString();
        QTest::newRow("blank") << QByteArray() << 0 << QString();
        QTest::newRow("event line") << QByteArray("event: message") << 0 << QString();
        QTest::newRow("done") << QByteArray("data: [DONE]") << 1 << QString();
        QTest::newRow("done with trailing space") << QByteArray("data: [DONE] ") << 0 << QString();
        QTest::newRow("no space after data:")
            << QByteArray(R"(data:{"choices":[{"delta":{"content":"x"}}]})") << 0 << QString();
        QTest::newRow("piece kept exactly")
            << QByteArray(R"(data: {"choices":[{"delta":{"content":"  Hello\n"}}]})") << 2 << QStringLiteral("  Hello\n");
        QTest::newRow("role only") << QByteArray(R"(data: {"choices":[{"delta":{"role":"assistant"}}]})") << 0 << QString();
        QTest::newRow("content null") << QByteArray(R"(data: {"choices":[{"delta":{"content":null}}]})") << 0 << QString();
        QTest::newRow("no choices") << QByteArray(R"(data: {"usage":{}})") << 0 << QString();
        QTest::newRow("empty choices") << QByteArray(R"(data: {"choices":[]})") << 0 << QString();
        QTest::newRow("not JSON") << QByteArray("data: {oops") << 0 << QString();
        QTest::newRow("JSON array") << QByteArray("data: [1,2]") << 0 << QString();
        QTest::newRow("unicode") << QByteArray(R"(data: {"choices":[{"delta":{"content":"é\u2014"}}]})") << 2
                                 << QStringLiteral("é—");
    }

    void streamLines()
    {
        QFETCH(QByteArray, line);
        QFETCH(int, kind);
        QFETCH(QString, token);
        const StreamEvent event = parseStreamLine(line);
        QCOMPARE(int(event.index()), kind);
        if (kind == 2)
            QCOMPARE(std::get<QString>(event), token);
    }

    void candidates_data()
    {
        QTest::addColumn<QStringList>("roles");
        QTest::addColumn<int>("k");
        QTest::addColumn<QStringList>("kept");
        QTest::newRow("last one") << QStringList{"user", "assistant", "user"} << 1 << QStringList{"sys", "m2"};
        QTest::newRow("window starting with a reply moves on")
            << QStringList{"user", "assistant", "user"} << 2 << QStringList{"sys", "m2"};
        QTest::newRow("all") << QStringList{"user", "assistant", "user"} << 3 << QStringList{"sys", "m0", "m1", "m2"};
        QTest::newRow("more than there are") << QStringList{"user"} << 5 << QStringList{"sys", "m0"};
        QTest::newRow("system messages count as any other")
            << QStringList{"system", "user"} << 2 << QStringList{"sys", "m0", "m1"};
    }

    void candidates()
    {
        QFETCH(QStringList, roles);
        QFETCH(int, k);
        QFETCH(QStringList, kept);
        QCOMPARE(contents(candidate(message("system", "sys"), history(roles), k)), kept);
    }

    void imageRidesOnTheLastMessage_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<int>("parts");
        QTest::newRow("with text") << "What is this?" << 2;
        QTest::newRow("without text") << "" << 1;
    }

    void imageRidesOnTheLastMessage()
    {
        QFETCH(QString, text);
        QFETCH(int, parts);
        const QJsonArray messages{message("system", "s"), message("user", text)};
        const QJsonArray result = withImage(messages, QByteArray("\xff\xd8jpeg"));
        QCOMPARE(result.first(), messages.first());
        const QJsonArray content = result.last().toObject().value("content").toArray();
        QCOMPARE(content.size(), parts);
        QCOMPARE(content[0].toObject().value("type").toString(), QStringLiteral("image_url"));
        QCOMPARE(content[0].toObject().value("image_url").toObject().value("url").toString(),
                 QStringLiteral("data:image/jpeg;base64,") + QString::fromLatin1(QByteArray("\xff\xd8jpeg").toBase64()));
        if (parts == 2)
            QCOMPARE(content[1].toObject(), (QJsonObject{{"type", "text"}, {"text", text}}));
    }

    void budget()
    {
        QCOMPARE(promptBudget(16384, 1024, std::nullopt), 16384 - 1024 - 32);
        QCOMPARE(promptBudget(4096, 300, LatestImage{QByteArray(), 600}), 4096 - 300 - 32 - 600);
    }

    void summaryRequest_data()
    {
        QTest::addColumn<QString>("previous");
        QTest::addColumn<int>("maxTokens");
        QTest::addColumn<QString>("words");
        QTest::addColumn<QString>("user");
        QTest::newRow("first summary") << "" << 512 << "at most 341 words." << "Conversation:\n\nuser: hi";
        QTest::newRow("rolling summary") << "Ann likes tea." << 1 << "at most 0 words."
                                         << "Conversation:\n\n[Earlier summary] Ann likes tea.\n\nuser: hi";
    }

    void summaryRequest()
    {
        QFETCH(QString, previous);
        QFETCH(int, maxTokens);
        QFETCH(QString, words);
        QFETCH(QString, user);
        const QJsonObject body = ExchangeFormat::summaryRequest(previous, QStringLiteral("user: hi"), maxTokens);
        QCOMPARE(body.value("model").toString(), QStringLiteral("local"));
        QCOMPARE(body.value("max_tokens").toInt(), maxTokens);
        QCOMPARE(body.value("temperature").toDouble(), 0.2);
        QVERIFY(!body.contains("stream"));
        const QJsonArray messages = body.value("messages").toArray();
        QCOMPARE(messages.size(), 2);
        const QString instruction = messages[0].toObject().value("content").toString();
        QVERIFY(instruction.startsWith("Summarize this conversation between a user and an assistant"));
        QVERIFY2(instruction.endsWith("Write one short summary in the third person with no preamble, " + words),
                 qPrintable(instruction));
        QCOMPARE(messages[1].toObject(), message("user", user));
    }

    void repeatedParagraphs_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("expected");
        QTest::newRow("repeat dropped, spaces trimmed") << "A\n\n B \n\n\tA \n\nC" << "A\n\nB\n\nC";
        QTest::newRow("line breaks inside kept") << "A\nB\n\nA\nB" << "A\nB";
        QTest::newRow("empty paragraphs kept once") << "A\n\n\n\n\n\nB" << "A\n\n\n\nB";
        QTest::newRow("case matters") << "A\n\na" << "A\n\na";
    }

    void repeatedParagraphs()
    {
        QFETCH(QString, text);
        QFETCH(QString, expected);
        QCOMPARE(withoutRepeatedParagraphs(text), expected);
    }

    void imageDescriptionRequest()
    {
        const QJsonObject body = ExchangeFormat::imageDescriptionRequest("jpg");
        QCOMPARE(body.value("max_tokens").toInt(), 200);
        QCOMPARE(body.value("temperature").toDouble(), 0.2);
        const QJsonArray messages = body.value("messages").toArray();
        QCOMPARE(messages.size(), 1);
        QCOMPARE(messages[0].toObject().value("role").toString(), QStringLiteral("user"));
        const QJsonArray parts = messages[0].toObject().value("content").toArray();
        QCOMPARE(parts[0].toObject().value("type").toString(), QStringLiteral("image_url"));
        QCOMPARE(parts[1].toObject().value("text").toString(),
                 QStringLiteral("Describe this image in two or three plain sentences for a chat transcript. "
                                "Name the main subjects, the setting, and quote any readable text exactly."));
    }

    void completionText_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<QString>("expected"); // null for none
        QTest::newRow("trimmed") << QByteArray(R"({"choices":[{"message":{"content":" \n Hi there.\n"}}]})") << "Hi there.";
        QTest::newRow("only blanks") << QByteArray(R"({"choices":[{"message":{"content":" \n "}}]})") << "";
        QTest::newRow("no choices") << QByteArray(R"({})") << QString();
        QTest::newRow("choices empty") << QByteArray(R"({"choices":[]})") << QString();
        QTest::newRow("no message") << QByteArray(R"({"choices":[{}]})") << QString();
        QTest::newRow("content not text") << QByteArray(R"({"choices":[{"message":{"content":5}}]})") << QString();
    }

    void completionText()
    {
        QFETCH(QByteArray, json);
        QFETCH(QString, expected);
        const auto text = ExchangeFormat::completionText(QJsonDocument::fromJson(json).object());
        QCOMPARE(text.has_value(), !expected.isNull());
        if (text)
            QCOMPARE(*text, expected);
    }

    void errorTexts()
    {
        QLocale::setDefault(QLocale(QLocale::English, QLocale::UnitedStates));
        QCOMPARE(InferenceError::contextTooLong(32768).description(),
                 QStringLiteral("The prompt and latest message exceed the 32,768-token context. Choose a larger "
                                "context or shorten them."));
        QCOMPARE(InferenceError::requestFailed(503).description(),
                 QStringLiteral("The local model rejected the request (HTTP 503)"));
        QCOMPARE(InferenceError::requestFailed(0).status(), 0);
    }
};

QTEST_GUILESS_MAIN(TestExchangeFormat)
#include "tst_exchange_format.moc"
