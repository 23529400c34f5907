// The exchange against a scripted stand-in server, for what the real llama-server cannot be
// made to show: malformed event lines, pieces split mid-line, refusals, bodies that are not
// what they should be, and summaries that need cleaning up.
#include "inference/inference_engine.h"
#include "inference/inference_error.h"
#include "scripted_http_server.h"

#include "support/await_task.h"
#include <QJsonDocument>
#include <QTest>

namespace {

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

    QStringList streamed()
    {
        QStringList tokens;
        const QJsonArray messages{QJsonObject{{"role", "user"}, {"content", "hi"}}};
        awaitTask(m_engine->stream(messages, 16, 0.7, [&](const QString &t) { tokens << t; }));
        return tokens;
    }

private Q_SLOTS:
    void init()
    {
        m_engine = std::make_unique<InferenceEngine>();
        m_server = std::make_unique<ScriptedHttpServer>();
        QVERIFY(m_server->listen(quint16(m_engine->port())));
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
        QTest::newRow("what is not a piece is skipped")
            << QList<QByteArray>{": comment\n\n", "event: message\n",
                                 "data:{\"choices\":[{\"delta\":{\"content\":\"no space\"}}]}\n",
                                 "data: {not json}\n", "data: [1,2]\n", "data: {\"usage\":{}}\n", "data: {\"choices\":[]}\n",
                                 "data: {\"choices\":[{\"delta\":{\"role\":\"assistant\"}}]}\n",
                                 "data: {\"choices\":[{\"delta\":{\"content\":null}}]}\n", "data: [DONE] \n",
                                 piece(" Hel"), piece("lo\\n"), piece("\\u00e9\u2014"), "data: [DONE]\n\n", piece("after done")}
            << 0 << QStringList{" Hel", "lo\n", QStringLiteral("é—")};
        // Pieces arrive with pauses and break lines anywhere, even inside "data: ".
        QTest::newRow("lines split across pieces")
            << QList<QByteArray>{"da", "ta: {\"choices\":[{\"delta\":{\"con", "tent\":\"one\"}}]}\n", "\nda",
                                 "ta: {\"choices\":[{\"delta\":{\"content\":\"two\"}}]}\n\ndata: [DONE]\n"}
            << 20 << QStringList{"one", "two"};
        QTest::newRow("ending without [DONE]") << QList<QByteArray>{piece("a"), piece("b")} << 0 << QStringList{"a", "b"};
    }

    void streamedPieces()
    {
        QFETCH(QList<QByteArray>, pieces);
        QFETCH(int, pauseMs);
        QFETCH(QStringList, expected);
        m_server->respond(200, pieces, pauseMs);
        QCOMPARE(streamed(), expected);
        const auto &request = m_server->requests().first();
        QVERIFY(request.head.startsWith("POST /v1/chat/completions "));
        QVERIFY(request.head.contains("Authorization: Bearer " + m_engine->key().toLatin1()));
        const QJsonObject body = QJsonDocument::fromJson(request.body).object();
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
        if (status)
            m_server->respond(status, {body});
        else
            m_server.reset();
        QString outcome;
        try {
            if (call == QLatin1String("stream"))
                outcome = streamed().join(QLatin1Char('|'));
            else if (call == QLatin1String("count"))
                outcome = QString::number(awaitTask(m_engine->tokenCount({QJsonObject{{"role", "user"}, {"content", "hi"}}})));
            else
                outcome = awaitTask(m_engine->summarize("", "user: hi", 64));
        } catch (const InferenceError &e) {
            outcome = e.description();
        } catch (const SystemError &) {
            outcome = QStringLiteral("transport");
        }
        QCOMPARE(outcome, expected);
    }
};

QTEST_GUILESS_MAIN(TestInferenceFakeServer)
#include "tst_inference_fake_server.moc"
