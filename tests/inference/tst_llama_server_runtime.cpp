// The llama-server that the build places in libexec/corvane, started the way the application
// starts it, on the generated random-weight qwen35 model: it must become ready, insist on
// its key and serve the endpoints the application talks to.
#include "platform/auxiliary_executable.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
#include <QRandomGenerator>
#include <QSignalSpy>
#include <QTest>
#include <QUuid>

namespace {

struct Response
{
    int status = 0;
    QByteArray body;
    QNetworkReply::NetworkError error = QNetworkReply::NoError;
};

} // namespace

class TestLlamaServerRuntime : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        m_program = AuxiliaryExecutable::find(QStringLiteral("llama-server"));
        QVERIFY2(!m_program.isEmpty(), "llama-server is not in libexec/corvane");
        QCOMPARE(m_program, QStringLiteral(CORVANE_LIBEXEC_DIR "/llama-server"));
        m_port = 40000 + QRandomGenerator::system()->bounded(20001);
        m_key = QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper();
        m_arguments = {
            QStringLiteral("-m"), QStringLiteral(CORVANE_TEST_MODELS_DIR "/chat-qwen35.gguf"),
            QStringLiteral("--host"), QStringLiteral("127.0.0.1"),
            QStringLiteral("--port"), QString::number(m_port),
            QStringLiteral("--ctx-size"), QStringLiteral("16384"),
            QStringLiteral("--parallel"), QStringLiteral("1"),
            QStringLiteral("--reasoning"), QStringLiteral("off"),
            QStringLiteral("--no-webui"),
            QStringLiteral("--api-key"), m_key,
        };
        QCOMPARE(m_arguments.size(), 15);
        QVERIFY(QRegularExpression(QStringLiteral("^[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}$"))
                    .match(m_key).hasMatch());
    }

    void becomesReadyWithinTheProbeLoop()
    {
        m_server.setStandardOutputFile(QProcess::nullDevice());
        m_server.setStandardErrorFile(QProcess::nullDevice());
        m_server.start(m_program, m_arguments);
        QVERIFY(m_server.waitForStarted());

        bool ready = false;
        for (int attempt = 0; attempt < 120 && !ready; ++attempt) {
            ready = get("/v1/models", true).status == 200;
            if (!ready) {
                QVERIFY2(m_server.state() == QProcess::Running, "llama-server exited while loading");
                QTest::qWait(250);
            }
        }
        QVERIFY2(ready, "llama-server did not answer /v1/models within 120 probes");
    }

    void refusesRequestsWithoutTheKey()
    {
        QCOMPARE(get("/v1/models", false).status, 401);
        QCOMPARE(post("/tokenize", QJsonObject{{"content", "hello"}}, false).status, 401);
    }

    void keepsTheAskedContextSize()
    {
        // The generated model declares 256 tokens of training context; the test models are
        // patched so that the server keeps the context it is given.
        const Response props = get("/props", true);
        QCOMPARE(props.status, 200);
        const QJsonObject settings = QJsonDocument::fromJson(props.body)
                                         .object()
                                         .value("default_generation_settings")
                                         .toObject();
        QCOMPARE(settings.value("n_ctx").toInt(), 16384);
    }

    void templatesAndTokenizes()
    {
        const QJsonArray messages{
            QJsonObject{{"role", "system"}, {"content", "You are a thoughtful, concise companion."}},
            QJsonObject{{"role", "user"}, {"content", "Hello there"}},
        };
        const Response templated = post("/apply-template", QJsonObject{{"messages", messages}}, true);
        QCOMPARE(templated.status, 200);
        const QString prompt = QJsonDocument::fromJson(templated.body).object().value("prompt").toString();
        QVERIFY2(prompt.contains(QStringLiteral("Hello there")), qPrintable(prompt));

        const Response tokenized = post(
            "/tokenize", QJsonObject{{"content", prompt}, {"parse_special", true}}, true);
        QCOMPARE(tokenized.status, 200);
        const QJsonArray tokens = QJsonDocument::fromJson(tokenized.body).object().value("tokens").toArray();
        QVERIFY(!tokens.isEmpty());
        for (const QJsonValue &token : tokens)
            QVERIFY(token.isDouble());
    }

    void streamsACompletion()
    {
        QNetworkRequest request = requestFor("/v1/chat/completions", true);
        request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
        const QJsonObject body{
            {"messages", QJsonArray{QJsonObject{{"role", "user"}, {"content", "Say something"}}}},
            {"stream", true},
            {"max_tokens", 8},
            {"temperature", 0.7},
        };
        QNetworkReply *reply = m_network.post(request, QJsonDocument(body).toJson(QJsonDocument::Compact));
        QByteArray buffer;
        QStringList dataLines;
        QObject::connect(reply, &QIODevice::readyRead, this, [&] {
            buffer += reply->readAll();
            qsizetype end;
            while ((end = buffer.indexOf('\n')) >= 0) {
                const QByteArray line = buffer.left(end).trimmed();
                buffer.remove(0, end + 1);
                if (line.startsWith("data: "))
                    dataLines << QString::fromUtf8(line.mid(6));
            }
        });
        QSignalSpy finished(reply, &QNetworkReply::finished);
        QVERIFY(finished.wait(120000));
        QCOMPARE(reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), 200);
        reply->deleteLater();

        QVERIFY2(dataLines.size() >= 2, qPrintable(dataLines.join('\n')));
        QCOMPARE(dataLines.last(), QStringLiteral("[DONE]"));
        bool sawDelta = false;
        for (const QString &line : dataLines.mid(0, dataLines.size() - 1)) {
            const QJsonObject event = QJsonDocument::fromJson(line.toUtf8()).object();
            const QJsonArray choices = event.value("choices").toArray();
            QVERIFY2(!event.isEmpty(), qPrintable(line));
            if (!choices.isEmpty() && choices.first().toObject().value("delta").toObject().contains("content"))
                sawDelta = true;
        }
        QVERIFY(sawDelta);
    }

    void cleanupTestCase()
    {
        if (m_server.state() != QProcess::NotRunning) {
            m_server.terminate();
            if (!m_server.waitForFinished(10000))
                m_server.kill();
        }
    }

private:
    QNetworkRequest requestFor(const char *path, bool withKey) const
    {
        QNetworkRequest request(QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(m_port).arg(QLatin1String(path))));
        request.setTransferTimeout(60000);
        if (withKey)
            request.setRawHeader("Authorization", "Bearer " + m_key.toLatin1());
        return request;
    }

    Response finish(QNetworkReply *reply)
    {
        QSignalSpy finished(reply, &QNetworkReply::finished);
        if (!reply->isFinished())
            finished.wait(120000);
        Response response{reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(),
                          reply->readAll(), reply->error()};
        reply->deleteLater();
        return response;
    }

    Response get(const char *path, bool withKey) { return finish(m_network.get(requestFor(path, withKey))); }

    Response post(const char *path, const QJsonObject &body, bool withKey)
    {
        QNetworkRequest request = requestFor(path, withKey);
        request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
        return finish(m_network.post(request, QJsonDocument(body).toJson(QJsonDocument::Compact)));
    }

    QNetworkAccessManager m_network;
    QProcess m_server;
    QString m_program;
    QStringList m_arguments;
    QString m_key;
    int m_port = 0;
};

QTEST_GUILESS_MAIN(TestLlamaServerRuntime)
#include "tst_llama_server_runtime.moc"
