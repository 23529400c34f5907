// The wire rules of the chat-completion exchange, without a server.
#include "inference/exchange_format.h"
#include "inference/inference_error.h"

#include <QLocale>
#include <QTest>

using namespace ExchangeFormat;

class TestExchangeFormat : public QObject
{
    Q_OBJECT

private Q_SLOTS:
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

    void rollingSummaryRequest()
    {
        // The earlier summary is folded into the new one, which is held to about two thirds
        // of its tokens in words.
        const QJsonArray messages = summaryRequest("Ann likes tea.", "user: hi", 512).value("messages").toArray();
        QVERIFY(messages[0].toObject().value("content").toString().endsWith("at most 341 words."));
        QCOMPARE(messages[1].toObject(),
                 message("user", "Conversation:\n\n[Earlier summary] Ann likes tea.\n\nuser: hi"));
    }

    void contextTooLongNamesTheContextInTheUsersLocale()
    {
        QLocale::setDefault(QLocale(QLocale::English, QLocale::UnitedStates));
        QVERIFY(InferenceError::contextTooLong(32768).description().contains("32,768-token context"));
    }
};

QTEST_GUILESS_MAIN(TestExchangeFormat)
#include "tst_exchange_format.moc"
