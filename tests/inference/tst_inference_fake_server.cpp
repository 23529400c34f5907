// The exchange against a scripted stand-in server, for what the real llama-server cannot be
// made to show: malformed event lines, pieces split mid-line, refusals, bodies that are not
// what they should be, and summaries that need cleaning up. Also the wire rules that need no
// server at all.
#include "inference/exchange_format.h"
#include "inference/inference_engine.h"
#include "inference/inference_error.h"

#include "support/await_task.h"
#include <QJsonDocument>
#include <QLocale>
#include <QRegularExpression>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>
#include <QTimer>

namespace {

/// Answers every request on 127.0.0.1 with `status` and the body in `pieces`, sent `pauseMs`
/// apart; the connection closes after the last piece.
class ScriptedHttpServer : public QTcpServer
{
public:
    int status = 200;
    QList<QByteArray> pieces;
    int pauseMs = 0;
    QList<QByteArray> requests; ///< head, blank line and body

    ScriptedHttpServer()
    {
        connect(this, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket *socket = nextPendingConnection()) {
                connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
                connect(socket, &QTcpSocket::readyRead, socket, [this, socket] { answer(socket); });
            }
        });
    }

private:
    void answer(QTcpSocket *socket)
    {
        // Bytes stay in the socket until the whole request is there.
        static const QRegularExpression length(QStringLiteral("content-length: *(\\d+)"),
                                               QRegularExpression::CaseInsensitiveOption);
        const QByteArray data = socket->peek(socket->bytesAvailable());
        const qsizetype end = data.indexOf("\r\n\r\n");
        if (end < 0 || data.size() < end + 4 + length.match(QString::fromLatin1(data.left(end))).captured(1).toLongLong())
            return;
        requests << socket->readAll();
        socket->write("HTTP/1.1 " + QByteArray::number(status)
                      + " Scripted\r\nContent-Type: text/event-stream\r\nConnection: close\r\n\r\n");
        send(socket, 0);
    }

    void send(QTcpSocket *socket, qsizetype index)
    {
        if (index == pieces.size())
            return socket->disconnectFromHost();
        socket->write(pieces[index]);
        socket->flush();
        QTimer::singleShot(pauseMs, socket, [this, socket, index] { send(socket, index + 1); });
    }
};

using namespace ExchangeFormat;

QByteArray piece(const char *content)
{
    return QByteArray("data: {\"choices\":[{\"delta\":{\"content\":\"") + content + "\"}}]}\n\n";
}

} // namespace

class TestInferenceFakeServer : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<InferenceEngine> m_engine;
    std::unique_ptr<ScriptedHttpServer> m_server;

    ReplySpeed m_speed;

    QStringList streamed()
    {
        QStringList tokens;
        const QJsonArray messages{message("user", "hi")};
        m_speed = awaitTask(m_engine->stream(messages, 16, 0.7, [&](const QString &t) { tokens << t; }));
        return tokens;
    }

private Q_SLOTS:
    void init()
    {
        m_engine = std::make_unique<InferenceEngine>();
        m_server = std::make_unique<ScriptedHttpServer>();
        QVERIFY(m_server->listen(QHostAddress::LocalHost, quint16(m_engine->port())));
    }

    void cleanup()
    {
        m_server.reset();
        m_engine.reset();
    }

    void streamedPieces_data()
    {
        QTest::addColumn<QList<QByteArray>>("pieces");
        QTest::addColumn<int>("pauseMs");
        QTest::addColumn<QStringList>("expected");
        QTest::addColumn<qint64>("tokens"); // as the server timed them; 0: no timings
        QTest::addColumn<double>("rate");
        QTest::newRow("what is not a piece is skipped")
            << QList<QByteArray>{": comment\n\n", "event: message\n",
                                 "data:{\"choices\":[{\"delta\":{\"content\":\"no space\"}}]}\n",
                                 "data: {not json}\n", "data: [1,2]\n", "data: {\"usage\":{}}\n", "data: {\"choices\":[]}\n",
                                 "data: {\"choices\":[{\"delta\":{\"role\":\"assistant\"}}]}\n",
                                 "data: {\"choices\":[{\"delta\":{\"content\":null}}]}\n", "data: [DONE] \n",
                                 piece(" Hel"), piece("lo\\n"), piece("\\u00e9\u2014"), "data: [DONE]\n\n", piece("after done")}
            << 0 << QStringList{" Hel", "lo\n", QStringLiteral("é—")} << qint64(0) << 0.0;
        // Pieces arrive with pauses and break lines anywhere, even inside "data: ".
        QTest::newRow("lines split across pieces")
            << QList<QByteArray>{"da", "ta: {\"choices\":[{\"delta\":{\"con", "tent\":\"one\"}}]}\n", "\nda",
                                 "ta: {\"choices\":[{\"delta\":{\"content\":\"two\"}}]}\n\ndata: [DONE]\n"}
            << 20 << QStringList{"one", "two"} << qint64(0) << 0.0;
        QTest::newRow("ending without [DONE]")
            << QList<QByteArray>{piece("a"), piece("b")} << 0 << QStringList{"a", "b"} << qint64(0) << 0.0;
        // llama-server times the reply in its last event; text on the same line still counts.
        QTest::newRow("timings with the last event")
            << QList<QByteArray>{piece("a"),
                                 "data: {\"choices\":[{\"delta\":{\"content\":\"b\"}}],\"timings\":{\"predicted_n\":1}}\n",
                                 "data: {\"choices\":[{\"finish_reason\":\"stop\",\"delta\":{}}],\"timings\":"
                                 "{\"prompt_n\":5,\"prompt_ms\":12.5,\"predicted_n\":7,\"predicted_per_second\":70.25}}\n",
                                 "data: [DONE]\n"}
            << 0 << QStringList{"a", "b"} << qint64(7) << 70.25;
        QTest::newRow("timings that are not numbers")
            << QList<QByteArray>{piece("a"), "data: {\"timings\":{\"predicted_n\":\"7\",\"predicted_per_second\":1}}\n",
                                 "data: {\"timings\":{\"predicted_n\":3,\"predicted_per_second\":-1}}\n"}
            << 0 << QStringList{"a"} << qint64(0) << 0.0;
    }

    void streamedPieces()
    {
        QFETCH(QList<QByteArray>, pieces);
        QFETCH(int, pauseMs);
        QFETCH(QStringList, expected);
        QFETCH(qint64, tokens);
        QFETCH(double, rate);
        m_server->pieces = pieces;
        m_server->pauseMs = pauseMs;
        QCOMPARE(streamed(), expected);
        QCOMPARE(m_speed.tokens, tokens);
        QCOMPARE(m_speed.tokensPerSecond, rate);
        QVERIFY(m_speed.firstTokenMs >= 0);
        const QByteArray request = m_server->requests.first();
        QVERIFY(request.startsWith("POST /v1/chat/completions "));
        QVERIFY(request.contains("\r\nAuthorization: Bearer " + m_engine->key().toLatin1() + "\r\n"));
        const QJsonObject body = QJsonDocument::fromJson(request.mid(request.indexOf("\r\n\r\n") + 4)).object();
        QCOMPARE(body.value("stream").toBool(), true);
        QCOMPARE(body.value("max_tokens").toInt(), 16);
    }

    void exchanges_data()
    {
        QTest::addColumn<QString>("call");
        QTest::addColumn<int>("status"); // 0: nobody listening
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("expected"); // the text, the error's description, or "transport" for Qt's own
        const QString invalid = QStringLiteral("The local model returned an invalid response");
        const QString refused = QStringLiteral("The local model rejected the request (HTTP %1)");
        QTest::newRow("reply refused: busy") << "stream" << 503 << QByteArray("{\"error\":\"no\"}") << refused.arg(503);
        QTest::newRow("reply refused: wrong key") << "stream" << 401 << QByteArray() << refused.arg(401);
        QTest::newRow("summary refused: too long") << "summary" << 400 << QByteArray("{}") << refused.arg(400);
        // A summary comes back trimmed, without the paragraphs the model repeated.
        const auto summary = [](const char *content) {
            return QJsonDocument(QJsonObject{{"choices", QJsonArray{QJsonObject{{"message", QJsonObject{{"content", content}}}}}}})
                .toJson();
        };
        QTest::newRow("summary: surrounding blanks") << "summary" << 200 << summary(" \n Hi there.\n") << "Hi there.";
        QTest::newRow("summary: only blanks") << "summary" << 200 << summary(" \n ") << "";
        QTest::newRow("summary: repeat dropped") << "summary" << 200 << summary("A\n\n B \n\n\tA \n\nC") << "A\n\nB\n\nC";
        QTest::newRow("summary: line breaks inside kept") << "summary" << 200 << summary("A\nB\n\nA\nB") << "A\nB";
        QTest::newRow("summary: empty paragraphs kept once") << "summary" << 200 << summary("A\n\n\n\n\n\nB") << "A\n\n\n\nB";
        QTest::newRow("summary: repeat behind a stray line break")
            << "summary" << 200 << summary("A\n\n\nB\n \n\nB") << "A\n\nB";
        QTest::newRow("summary: no choices") << "summary" << 200 << QByteArray("{}") << invalid;
        QTest::newRow("summary: choices empty") << "summary" << 200 << QByteArray("{\"choices\":[]}") << invalid;
        QTest::newRow("summary: no message") << "summary" << 200 << QByteArray("{\"choices\":[{}]}") << invalid;
        QTest::newRow("summary: content not text")
            << "summary" << 200 << QByteArray("{\"choices\":[{\"message\":{\"content\":5}}]}") << invalid;
        QTest::newRow("count: not JSON") << "count" << 200 << QByteArray("<html>") << "transport";
        QTest::newRow("count: array") << "count" << 200 << QByteArray("[]") << invalid;
        QTest::newRow("count: no prompt") << "count" << 200 << QByteArray("{\"text\":\"x\"}") << invalid;
        QTest::newRow("count: prompt not text") << "count" << 200 << QByteArray("{\"prompt\":3}") << invalid;
        QTest::newRow("count: nobody listening") << "count" << 0 << QByteArray() << "transport";
    }

    void exchanges()
    {
        QFETCH(QString, call);
        QFETCH(int, status);
        QFETCH(QByteArray, body);
        QFETCH(QString, expected);
        if (status) {
            m_server->status = status;
            m_server->pieces = {body};
        } else {
            m_server.reset();
        }
        QString outcome;
        try {
            if (call == QLatin1String("stream"))
                outcome = streamed().join(QLatin1Char('|'));
            else if (call == QLatin1String("count"))
                outcome = QString::number(awaitTask(m_engine->tokenCount({message("user", "hi")})));
            else
                outcome = awaitTask(m_engine->summarize("", "user: hi", 64));
        } catch (const InferenceError &e) {
            outcome = e.description();
        } catch (const SystemError &) {
            outcome = QStringLiteral("transport");
        }
        QCOMPARE(outcome, expected);
    }

    void imageRidesOnTheLastMessage()
    {
        // The text part is left out when there is no text.
        const QJsonObject image{{"type", "image_url"}, {"image_url", QJsonObject{{"url", "data:image/jpeg;base64,/9hqcGVn"}}}};
        for (const QString &text : {QStringLiteral("What is this?"), QString()}) {
            QJsonArray content{image};
            if (!text.isEmpty())
                content.append(QJsonObject{{"type", "text"}, {"text", text}});
            QCOMPARE(withImage({message("system", "s"), message("user", text)}, "\xff\xd8jpeg"),
                     (QJsonArray{message("system", "s"), QJsonObject{{"role", "user"}, {"content", content}}}));
        }
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

QTEST_GUILESS_MAIN(TestInferenceFakeServer)
#include "tst_inference_fake_server.moc"
