// InferenceEngine against the real llama-server that the build places in libexec/corvane, on
// the generated random-weight model: the server's life (start, reuse, restart, recovery after
// it died, its end with a killed application), what it lets in, and the exchanges (exact
// token counts, fitting by binary search, streaming, Stop).
#include "inference/device_probe.h"
#include "inference/exchange_format.h"
#include "inference/inference_engine.h"
#include "inference/inference_error.h"
#include "platform/auxiliary_executable.h"

#include "support/await_task.h"

#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QNetworkReply>
#include <QProcess>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <cmath>
#include <csignal>

namespace {

using ExchangeFormat::message;

const QString s_model = QStringLiteral(CORVANE_TEST_MODELS_DIR "/chat-qwen35.gguf");

/// Not yet reaped: for a child of this process, until QProcess has seen it end.
bool processAlive(qint64 pid)
{
    return pid > 0 && ::kill(static_cast<pid_t>(pid), 0) == 0;
}

/// Gone, or ended and waiting for whoever adopted it to reap it.
bool processEnded(qint64 pid)
{
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return true;
    const QByteArray line = stat.readAll();
    return line.mid(line.lastIndexOf(')') + 2, 1) == "Z";
}

} // namespace

class TestInferenceEngine : public QObject
{
    Q_OBJECT

private:
    InferenceEngine m_engine;
    QNetworkAccessManager m_network;

    void load(qint64 contextTokens, std::optional<QString> projector = std::nullopt)
    {
        awaitTask(m_engine.load(s_model, projector, contextTokens));
    }

    /// The status and JSON body of a request made to the server past the engine.
    std::pair<int, QJsonObject> direct(const QString &path, std::optional<QJsonObject> body = std::nullopt,
                                       bool withKey = false)
    {
        QNetworkRequest request(QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(m_engine.port()).arg(path)));
        request.setHeader(QNetworkRequest::ContentTypeHeader, "application/json");
        if (withKey)
            request.setRawHeader("Authorization", "Bearer " + m_engine.key().toLatin1());
        QNetworkReply *reply = body ? m_network.post(request, QJsonDocument(*body).toJson()) : m_network.get(request);
        QSignalSpy(reply, &QNetworkReply::finished).wait(60000); // always emitted from the event loop
        reply->deleteLater();
        return {reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(),
                QJsonDocument::fromJson(reply->readAll()).object()};
    }

private Q_SLOTS:
    void startsAndReusesOneServer()
    {
        load(16384);
        const qint64 first = m_engine.serverProcessID();
        QVERIFY(processAlive(first));
        QVERIFY(!m_engine.hasVision());
        load(16384);
        QCOMPARE(m_engine.serverProcessID(), first);
    }

    void theServerListensOnLoopbackForItsKeyOnly()
    {
        QCOMPARE(AuxiliaryExecutable::find("llama-server"), CORVANE_LIBEXEC_DIR "/llama-server");
        load(16384);
        // The running server's command line as every user of the machine can read it.
        QFile cmdline(QStringLiteral("/proc/%1/cmdline").arg(m_engine.serverProcessID()));
        QVERIFY(cmdline.open(QIODevice::ReadOnly));
        const QByteArray commandLine = cmdline.readAll();
        const QList<QByteArray> arguments = commandLine.split('\0');
        QCOMPARE(arguments.value(arguments.indexOf("--host") + 1), "127.0.0.1");
        QCOMPARE(arguments.value(arguments.indexOf("--device") + 1), "none");
        // So the key travels in the environment, which only the same user can read.
        QVERIFY(!commandLine.contains(m_engine.key().toLatin1()));
        QVERIFY(InferenceEngine().key() != m_engine.key());
        // Listening on the loopback address only, never on all of them or on IPv6.
        QStringList listeners;
        for (const char *table : {"/proc/net/tcp", "/proc/net/tcp6"}) {
            QFile file(QString::fromLatin1(table));
            QVERIFY(file.open(QIODevice::ReadOnly));
            for (const QByteArray &line : file.readAll().split('\n')) {
                const QList<QByteArray> fields = line.simplified().split(' ');
                // sl, local address:port (hex), remote, state (0A: listening)
                if (fields.size() > 3 && fields[3] == "0A"
                    && fields[1].endsWith(':' + QByteArray::number(m_engine.port(), 16).toUpper().rightJustified(4, '0')))
                    listeners << QString::fromLatin1(fields[1]);
            }
        }
        QCOMPARE(listeners, QStringList{QStringLiteral("0100007F:%1").arg(m_engine.port(), 4, 16, QLatin1Char('0')).toUpper()});
        QCOMPARE(direct("/v1/models").first, 401);
        QCOMPARE(direct("/tokenize", QJsonObject{{"content", "hello"}}).first, 401);
        // The generated model declares 256 tokens of training context; the server must keep
        // the context it is given.
        const QJsonObject props = direct("/props", std::nullopt, true).second;
        QCOMPARE(props.value("default_generation_settings").toObject().value("n_ctx").toInt(), 16384);
    }

    void aKilledApplicationTakesItsServerAlong()
    {
        QProcess application;
        application.start(QStringLiteral(CORVANE_BIN_DIR "/../tests/corvane-server-holder"), {s_model});
        QVERIFY(application.waitForReadyRead(60000));
        const qint64 server = application.readLine().trimmed().toLongLong();
        QVERIFY(server > 0 && !processEnded(server));
        ::kill(static_cast<pid_t>(application.processId()), SIGKILL);
        QVERIFY(application.waitForFinished());
        QTRY_VERIFY_WITH_TIMEOUT(processEnded(server), 10000);
    }

    void listsItsDevicesAndTheCpuModuleItLoads()
    {
        const DeviceProbe probe = awaitTask(
            probeComputeDevices(AuxiliaryExecutable::find("llama-server"), std::chrono::seconds(30)));
#if defined(__x86_64__)
        // Every x86-64 processor runs at least the SSE4.2 build.
        QVERIFY2(cpuLabel(probe.cpuVariant).startsWith("CPU, "), qPrintable(probe.cpuVariant));
#endif
        // A driver that hangs is given up on (else the test's own time limit ends it): the CPU.
        QTemporaryDir dir;
        QFile hangs(dir.filePath("llama-server"));
        QVERIFY(hangs.open(QIODevice::WriteOnly));
        hangs.write("#!/bin/sh\nexec sleep 900\n");
        hangs.close();
        hangs.setPermissions(QFile::ReadOwner | QFile::ExeOwner);
        const DeviceProbe none = awaitTask(probeComputeDevices(hangs.fileName(), std::chrono::milliseconds(300)));
        QVERIFY(none.devices.isEmpty() && none.cpuVariant.isEmpty());
    }

    void restartsForAnotherContextSizeOnTheSamePortAndKey()
    {
        const qint64 before = m_engine.serverProcessID();
        const int port = m_engine.port();
        const QString key = m_engine.key();
        load(8192);
        QVERIFY(m_engine.serverProcessID() != before);
        QCOMPARE(m_engine.port(), port);
        QCOMPARE(m_engine.key(), key);
        QTRY_VERIFY(!processAlive(before));
    }

    void aProjectorTheServerCannotLoadIsAFailedStart()
    {
        // A projector changes the command line, so the server restarts; this one is not a
        // projector at all, and the server gives up on it.
        try {
            load(8192, s_model);
            QFAIL("expected the start to fail");
        } catch (const InferenceError &error) {
            QCOMPARE(error.kind(), InferenceError::Case::StartFailed);
            QCOMPARE(error.description(), QStringLiteral("The local model could not start"));
        }
        QVERIFY(!m_engine.hasVision());
        load(8192);
        QVERIFY(processAlive(m_engine.serverProcessID()));
    }

    void aServerThatDiedIsStartedAgain()
    {
        const qint64 before = m_engine.serverProcessID();
        QCOMPARE(::kill(static_cast<pid_t>(before), SIGKILL), 0);
        QTRY_VERIFY(!processAlive(before));
        load(8192);
        QVERIFY(m_engine.serverProcessID() != before);
        QCOMPARE(awaitTask(m_engine.tokenCount({message("user", "hello")})) > 0, true);
    }

    void tokenCountsMatchTheServer()
    {
        load(16384);
        const QJsonArray messages{message("system", "You are brief."), message("user", "Tell me about rivers.")};
        const qint64 counted = awaitTask(m_engine.tokenCount(messages));

        // What the server itself reports as the prompt of a completion of the same messages.
        const QJsonObject usage =
            direct("/v1/chat/completions", QJsonObject{{"messages", messages}, {"max_tokens", 1}}, true)
                .second.value("usage").toObject();
        QCOMPARE(counted, qint64(usage.value("prompt_tokens").toInt()));
    }

    void fittingKeepsTheNewestMessagesThatFit_data()
    {
        QTest::addColumn<bool>("uneven");
        QTest::addColumn<double>("share");
        QTest::newRow("everything fits with room to spare") << false << 3.0;
        QTest::newRow("a third fits") << false << 0.33;
        QTest::newRow("a third of uneven messages fits") << true << 0.33;
        QTest::newRow("only the newest few fit") << true << 0.05;
    }

    void fittingKeepsTheNewestMessagesThatFit()
    {
        QFETCH(bool, uneven);
        QFETCH(double, share);
        load(16384);
        QJsonArray history;
        for (int i = 0; i < 60; ++i) {
            // Uneven lengths make text length a poor guide to where the cut is.
            const QString text = uneven && i % 3 == 0 ? QStringLiteral("long %1 ").arg(i).repeated(i < 30 ? 40 : 2)
                                                      : QStringLiteral("Message number %1 talks about gardens and rivers.").arg(i);
            history.append(message(i % 2 ? "assistant" : "user", text));
        }
        const QString system = QStringLiteral("You are a thoughtful, concise companion.");
        QJsonArray everything{message("system", system)};
        for (const QJsonValue &m : history)
            everything.append(m);
        const qint64 all = awaitTask(m_engine.tokenCount(everything));
        const qint64 contextTokens = qint64(all * share) + 300 + 32;

        const int countsBefore = m_engine.tokenCountsMade();
        const QJsonArray fitted = awaitTask(m_engine.fittedMessages(system, history, std::nullopt, contextTokens, 300));
        const int counts = m_engine.tokenCountsMade() - countsBefore;
        QVERIFY2(counts <= std::log2(60.0) + 2, qPrintable(QString::number(counts)));
        if (share > 1) {
            QCOMPARE(counts, 1);
            QCOMPARE(fitted, everything);
            return;
        }

        QCOMPARE(fitted.first().toObject(), message("system", system));
        QVERIFY(fitted.size() >= 2 && fitted.size() < 61);
        QCOMPARE(fitted.last(), history.last());
        QVERIFY(fitted[1].toObject().value("role").toString() != QStringLiteral("assistant"));
        const qint64 budget = contextTokens - 300 - 32;
        QVERIFY(awaitTask(m_engine.tokenCount(fitted)) <= budget);
        // One more message (two, when that one is a reply) would not fit.
        const qsizetype kept = fitted.size() - 1;
        QJsonArray larger{message("system", system)};
        for (qsizetype i = history.size() - kept - 2; i < history.size(); ++i)
            larger.append(history[i]);
        QVERIFY(awaitTask(m_engine.tokenCount(larger)) > budget);
    }

    void aPromptThatCannotFitIsTooLong()
    {
        load(16384);
        const QString huge = QStringLiteral("word ").repeated(5000);
        try {
            awaitTask(m_engine.fittedMessages(huge, {message("user", "hi")}, std::nullopt, 4096, 1024));
            QFAIL("expected contextTooLong");
        } catch (const InferenceError &error) {
            QCOMPARE(error.kind(), InferenceError::Case::ContextTooLong);
        }
        QVERIFY_THROWS_EXCEPTION(InferenceError,
                                 awaitTask(m_engine.fittedMessages("s", {}, std::nullopt, 4096, 1024)));
    }

    void stopEndsTheStreamAtOnce()
    {
        load(16384);
        CancellationToken stop;
        int pieces = 0;
        int afterStop = 0;
        QElapsedTimer sinceStop;
        auto task = m_engine.stream({message("user", "Write a long story.")}, 4000, 0.7,
                                    [&](const QString &) {
                                        ++pieces;
                                        if (stop.isCancelled())
                                            ++afterStop;
                                        else if (pieces == 3) {
                                            sinceStop.start();
                                            stop.cancel();
                                        }
                                    },
                                    stop);
        QVERIFY_THROWS_EXCEPTION(CancelledError, awaitTask(std::move(task)));
        // The transfer is dropped at once (about a millisecond here); the bound only catches a
        // stream that runs on to its end, without making a loaded machine fail the test.
        qInfo("stopped %lld ms after Stop", static_cast<long long>(sinceStop.elapsed()));
        QVERIFY2(sinceStop.elapsed() < 2000, qPrintable(QString::number(sinceStop.elapsed())));
        QCOMPARE(afterStop, 0);
        // The server is ready for the next request.
        QVERIFY(awaitTask(m_engine.tokenCount({message("user", "again")})) > 0);
    }

    void shutdownStopsTheServer()
    {
        load(16384);
        const qint64 pid = m_engine.serverProcessID();
        m_engine.shutdown();
        QCOMPARE(m_engine.serverProcessID(), 0);
        // A server slow to stop is killed after the grace period.
        QTRY_VERIFY_WITH_TIMEOUT(!processAlive(pid), 15000);
    }
};

QTEST_GUILESS_MAIN(TestInferenceEngine)
#include "tst_inference_engine.moc"
