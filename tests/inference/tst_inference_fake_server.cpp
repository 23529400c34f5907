// The exchange against a scripted stand-in server, for the faults that the real llama-server
// cannot be made to show: malformed event lines, pieces split mid-line, refusals and bodies
// that are not what they should be.
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

    void fakeServerStreamSkipsWhatIsNotAPiece()
    {
        m_server->respond(200, {": comment\n\n", "data:{\"choices\":[{\"delta\":{\"content\":\"no space\"}}]}\n",
                                "data: {not json}\n", "data: {\"choices\":[{\"delta\":{\"role\":\"assistant\"}}]}\n",
                                piece(" Hel"), piece("lo"), "data: [DONE]\n\n", piece("after done")});
        QCOMPARE(streamed(), (QStringList{" Hel", "lo"}));
        const auto &request = m_server->requests().first();
        QVERIFY(request.head.startsWith("POST /v1/chat/completions "));
        QVERIFY(request.head.contains("Authorization: Bearer " + m_engine->key().toLatin1()));
        const QJsonObject body = QJsonDocument::fromJson(request.body).object();
        QCOMPARE(body.value("model").toString(), QStringLiteral("local"));
        QCOMPARE(body.value("stream").toBool(), true);
        QCOMPARE(body.value("max_tokens").toInt(), 16);
    }

    void fakeServerLinesSplitAcrossPieces()
    {
        // Pieces arrive with pauses and break lines anywhere, even inside "data: ".
        m_server->respond(200, {"da", "ta: {\"choices\":[{\"delta\":{\"con", "tent\":\"one\"}}]}\n", "\nda",
                                "ta: {\"choices\":[{\"delta\":{\"content\":\"two\"}}]}\n\ndata: [DONE]\n"},
                          20);
        QCOMPARE(streamed(), (QStringList{"one", "two"}));
    }

    void fakeServerStreamEndingWithoutDone()
    {
        m_server->respond(200, {piece("a"), piece("b")});
        QCOMPARE(streamed(), (QStringList{"a", "b"}));
    }

    void fakeServerOnlyCommentsAndDone()
    {
        m_server->respond(200, {": hello\n", "\n", "data: [DONE]\n"});
        QCOMPARE(streamed(), QStringList());
    }

    void fakeServerRefusals_data()
    {
        QTest::addColumn<int>("status");
        QTest::newRow("busy") << 503;
        QTest::newRow("wrong key") << 401;
        QTest::newRow("too long") << 400;
    }

    void fakeServerRefusals()
    {
        QFETCH(int, status);
        m_server->respond(status, {"{\"error\":\"no\"}"});
        try {
            streamed();
            QFAIL("expected a refusal");
        } catch (const InferenceError &error) {
            QCOMPARE(error.kind(), InferenceError::Case::RequestFailed);
            QCOMPARE(error.description(), QStringLiteral("The local model rejected the request (HTTP %1)").arg(status));
        }
        m_server->respond(status, {"{}"});
        QVERIFY_THROWS_EXCEPTION(InferenceError, awaitTask(m_engine->summarize("", "user: hi", 64)));
    }

    void fakeServerBodies_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<bool>("invalidResponse"); // else the JSON parser's own error
        QTest::newRow("not JSON") << QByteArray("<html>") << false;
        QTest::newRow("array") << QByteArray("[]") << true;
        QTest::newRow("no prompt") << QByteArray("{\"text\":\"x\"}") << true;
        QTest::newRow("prompt not text") << QByteArray("{\"prompt\":3}") << true;
    }

    void fakeServerBodies()
    {
        QFETCH(QByteArray, body);
        QFETCH(bool, invalidResponse);
        m_server->respond(200, {body});
        const QJsonArray messages{QJsonObject{{"role", "user"}, {"content", "hi"}}};
        try {
            awaitTask(m_engine->tokenCount(messages));
            QFAIL("expected an error");
        } catch (const InferenceError &error) {
            QVERIFY(invalidResponse);
            QCOMPARE(error.description(), QStringLiteral("The local model returned an invalid response"));
        } catch (const SystemError &error) {
            QVERIFY(!invalidResponse);
            QVERIFY(!error.description().isEmpty());
        }
    }

    void fakeServerSummaryIsCleanedUp()
    {
        m_server->respond(200, {R"({"choices":[{"message":{"content":"  A \n\n B\n\nA\n\nC \n"}}]})"});
        QCOMPARE(awaitTask(m_engine->summarize("", "user: hi", 64)), QStringLiteral("A\n\nB\n\nC"));
    }

    void unreachableServerIsATransportError()
    {
        m_server.reset();
        const QJsonArray messages{QJsonObject{{"role", "user"}, {"content", "hi"}}};
        QVERIFY_THROWS_EXCEPTION(SystemError, awaitTask(m_engine->tokenCount(messages)));
    }

    void describingAnImageWithoutVisionSendsNothing()
    {
        m_server->respond(200, {"{}"});
        try {
            awaitTask(m_engine->describeImage("jpeg"));
            QFAIL("expected an error");
        } catch (const InferenceError &error) {
            QCOMPARE(error.kind(), InferenceError::Case::VisionUnavailable);
            QCOMPARE(error.description(), QStringLiteral("The local model could not load its vision support"));
        }
        QVERIFY(m_server->requests().isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestInferenceFakeServer)
#include "tst_inference_fake_server.moc"
