// The exchange with the runner program: the context a request carries, where the runner is
// looked up, the size and time limits on each side, and how the end of the process is read.
// The names a script sees are checked in the runner's tests.

#include "script_test_support.h"

#include "platform/auxiliary_executable.h"

#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

using namespace ScriptTest;

namespace {

/// What the runner writes for `source`'s tick hook when no kill timer watches it.
QByteArray runDirectly(const QString &runner, const QString &source, QProcess::ExitStatus *status = nullptr)
{
    QProcess process;
    process.start(runner, {});
    process.write(CartridgeEngine::encodeRequest(source, context(), CartridgeHook::Tick, {}, {}));
    process.closeWriteChannel();
    process.waitForFinished(30000);
    if (status)
        *status = process.exitStatus();
    return process.readAllStandardOutput();
}

const QDateTime now = QDateTime::fromString(QStringLiteral("2026-11-15T20:21:57Z"), Qt::ISODate);
const QDateTime opened = now.addSecs(-90);

/// Messages from "role@time" words, a "!" before the "@" marking a hidden one; the times are
/// of the same day as `now`.
QList<Message> history(const QString &words)
{
    QList<Message> messages;
    for (const QString &word : words.split(QLatin1Char(' '))) {
        Message message;
        message.role = word.section(QLatin1Char('@'), 0, 0).remove(QLatin1Char('!'));
        message.hidden = word.contains(QLatin1Char('!'));
        message.createdAt = QStringLiteral("2026-11-15T%1Z").arg(word.section(QLatin1Char('@'), 1));
        messages.append(message);
    }
    return messages;
}

} // namespace

class TestCartridgeEngine : public QObject
{
    Q_OBJECT

private:
    QString m_runner;

private Q_SLOTS:
    void initTestCase()
    {
        m_runner = AuxiliaryExecutable::find(QLatin1String(CartridgeEngine::runnerName));
        QVERIFY2(!m_runner.isEmpty(), "corvane-script-runner is built into libexec/corvane");
    }

    void turnAndIdleness_data()
    {
        QTest::addColumn<QList<Message>>("messages");
        QTest::addColumn<qint64>("turn");
        QTest::addColumn<double>("idleSeconds");

        QTest::newRow("no messages: from when the chat was opened") << QList<Message>() << qint64(0) << 90.0;
        QTest::newRow("from the last message that is not hidden")
            << history("user@20:20:00 assistant@20:21:00 user!@20:21:50") << qint64(1) << 57.0;
        QTest::newRow("only user messages count, hidden ones not")
            << history("user@20:00:00 system@20:00:00 User@20:00:00 user!@20:00:00 user@20:21:56") << qint64(2) << 1.0;
        QTest::newRow("unreadable time of the last visible message")
            << history("user@20:00:00 user@yesterday") << qint64(2) << 90.0;
    }

    void turnAndIdleness()
    {
        QFETCH(QList<Message>, messages);
        QFETCH(qint64, turn);
        QFETCH(double, idleSeconds);
        const auto made = CartridgeContext::forChat(Chat(), QStringLiteral("Ada"), messages, opened, now);
        QCOMPARE(made.turn, turn);
        QCOMPARE(made.idleSeconds, idleSeconds);
    }

    void requestLimit_data()
    {
        QTest::addColumn<qsizetype>("requestBytes");
        QTest::addColumn<bool>("sent");
        QTest::newRow("exactly 2 MB") << qsizetype(2'097'152) << true;
        QTest::newRow("one byte more") << qsizetype(2'097'153) << false;
    }

    void requestLimit()
    {
        QFETCH(qsizetype, requestBytes);
        QFETCH(bool, sent);
        // A long comment fills the request to the byte: ASCII letters are encoded as they are.
        const QString head = QStringLiteral("module.exports = { onTick: () => ({ display: \"ran\" }) };\n// ");
        const qsizetype baseSize
            = CartridgeEngine::encodeRequest(head, context(), CartridgeHook::Tick, {}, {}).size();
        const QString source = head + QString(requestBytes - baseSize, QLatin1Char('x'));
        QCOMPARE(CartridgeEngine::encodeRequest(source, context(), CartridgeHook::Tick, {}, {}).size(),
                 requestBytes);

        auto task = CartridgeEngine::evaluate(source, context(), CartridgeHook::Tick, {});
        if (sent) {
            QCOMPARE(awaitTask(std::move(task)).display, QStringLiteral("ran"));
            return;
        }
        // Refused before any process starts: the task ends without ever suspending.
        QVERIFY(task.isReady());
        QCOMPARE(errorOf([&] { awaitTask(std::move(task)); }),
                 QStringLiteral("Script: Conversation history is too large for the script"));
    }

    void answerLimit_data()
    {
        QTest::addColumn<qsizetype>("answerBytes");
        QTest::addColumn<bool>("accepted");
        QTest::newRow("exactly 256 KB") << qsizetype(262'144) << true;
        QTest::newRow("one byte more") << qsizetype(262'145) << false;
    }

    void answerLimit()
    {
        QFETCH(qsizetype, answerBytes);
        QFETCH(bool, accepted);
        // The bytes the runner writes around a `display` value of ten plain letters.
        const qsizetype overhead = runDirectly(
            m_runner, QStringLiteral("module.exports = { onTick: () => ({ display: \"0123456789\" }) };")).size() - 10;
        QVERIFY(overhead > 0);
        const qsizetype length = answerBytes - overhead;
        const QString source
            = QStringLiteral("module.exports = { onTick: () => ({ display: \"d\".repeat(%1) }) };").arg(length);
        const QString error = errorOf([&] {
            QCOMPARE(run(source, CartridgeHook::Tick).display->size(), length);
        });
        QCOMPARE(error, accepted ? QStringLiteral("no error")
                                 : QStringLiteral("The script runner returned an invalid result."));
    }

    void nanFailsEveryRange()
    {
        // JSON cannot carry NaN, but a result built in code can.
        const double nan = std::numeric_limits<double>::quiet_NaN();
        CartridgeResult temperature, tick, next;
        temperature.temperature = tick.tickEvery = next.next = nan;
        for (const CartridgeResult &result : {temperature, tick, next})
            QVERIFY(errorOf([&] { result.check(CartridgeHook::Tick); }).startsWith(QStringLiteral("Script: ")));
    }

    void runawayScripts_data()
    {
        QTest::addColumn<QString>("hookBody");
        QTest::addColumn<bool>("endless"); // else it runs out of memory first
        QTest::newRow("endless loop") << QStringLiteral("for (;;) {}") << true;
        QTest::newRow("endless promise chain")
            << QStringLiteral("const again = () => Promise.resolve().then(again); return again();") << true;
        QTest::newRow("endless recursion caught") << QStringLiteral("const f = () => { try { f(); } catch { f(); } }; f();") << true;
        QTest::newRow("objects") << QStringLiteral("const a = []; for (let i = 0; ; ++i) a.push({ i, s: String(i) });") << false;
        QTest::newRow("buffers") << QStringLiteral("const a = []; for (;;) a.push(new Uint8Array(16 << 20).fill(1));") << false;
        QTest::newRow("strings") << QStringLiteral("const a = []; for (let i = 0; ; ++i) a.push(\"x\".repeat(1 << 20) + i);") << false;
    }

    void runawayScripts()
    {
        QFETCH(QString, hookBody);
        QFETCH(bool, endless);
        const QString source = QStringLiteral("module.exports = { onTick() { %1 } };").arg(hookBody);
        QElapsedTimer clock;
        clock.start();
        QCOMPARE(errorOf([&] { run(source, CartridgeHook::Tick); }),
                 QStringLiteral("The script exceeded its execution time limit."));
        const qint64 elapsed = clock.elapsed();
        QVERIFY2(elapsed >= (endless ? 1900 : 0) && elapsed < 8000, qPrintable(QString::number(elapsed)));

        // Without the application's kill timer the runner's own limits end it, by a signal.
        QProcess::ExitStatus status = QProcess::NormalExit;
        QVERIFY(runDirectly(m_runner, source, &status).isEmpty());
        QCOMPARE(status, QProcess::CrashExit);
    }

    void runnerFaults_data()
    {
        QTest::addColumn<QByteArray>("body"); // of the stand-in after reading the request, or a <case>
        QTest::addColumn<QString>("outcome"); // the prompt, or the error's description

        const QString missing = QStringLiteral("The script runner is missing from this app build.");
        QTest::newRow("no path") << QByteArray("<no path>") << missing;
        QTest::newRow("no such file") << QByteArray("<absent>") << missing;
        QTest::newRow("not executable") << QByteArray("<not executable>") << missing;
        QTest::newRow("a folder") << QByteArray("<folder>") << missing;
        QTest::newRow("exit status 3 after a valid answer")
            << QByteArray("printf '%s' '{\"prompt\":\"ok\"}'; exit 3") << QStringLiteral("ok");
        QTest::newRow("signal after a valid answer")
            << QByteArray("printf '%s' '{\"prompt\":\"ok\"}'; kill -SEGV $$")
            << QStringLiteral("The script exceeded its execution time limit.");
        QTest::newRow("error that is not a string is ignored")
            << QByteArray("printf '%s' '{\"error\":5,\"prompt\":\"ok\",\"extra\":[1]}'") << QStringLiteral("ok");
        QTest::newRow("not JSON") << QByteArray("printf 'hello'")
                                  << QStringLiteral("The script's answer could not be read: illegal value at byte 1.");
        QTest::newRow("nothing") << QByteArray("exit 0")
                                 << QStringLiteral("The script's answer could not be read: illegal value at byte 0.");
        QTest::newRow("a JSON list") << QByteArray("printf '[1]'")
                                     << QStringLiteral("The script's answer could not be read: it is not a JSON object.");
        QTest::newRow("injection without text")
            << QByteArray("printf '%s' '{\"prompt\":\"ok\",\"inject\":[{\"role\":\"user\"}]}'")
            << QStringLiteral("The script's answer could not be read: \"inject\" must be a list of messages with a string \"role\" and \"text\".");
        QTest::newRow("injection of an unknown role")
            << QByteArray("printf '%s' '{\"prompt\":\"ok\",\"inject\":[{\"role\":\"tool\",\"text\":\"x\"}]}'")
            << QStringLiteral("The script's answer could not be read: \"inject\" must be a list of messages whose \"role\" is \"user\", \"assistant\" or \"system\".");
    }

    void runnerFaults()
    {
        QFETCH(QByteArray, body);
        QFETCH(QString, outcome);
        QTemporaryDir dir;
        QString runner = dir.filePath(QStringLiteral("runner"));
        if (body == "<no path>")
            runner.clear();
        else if (body == "<folder>")
            QVERIFY(QDir().mkdir(runner));
        else if (body != "<absent>") {
            // A shell script stands in for the runner, for faults the real one never shows.
            QFile file(runner);
            QVERIFY(file.open(QIODevice::WriteOnly));
            file.write("#!/bin/sh\ncat >/dev/null\n" + body + "\n");
            file.close();
            if (body != "<not executable>")
                QVERIFY(file.setPermissions(file.permissions() | QFile::ExeOwner));
        }
        QString seen;
        const QString error = errorOf([&] {
            const auto result = awaitTask(CartridgeEngine::evaluateWith(runner, "unused", context(), CartridgeHook::Turn, {}));
            seen = result.prompt.value_or(QString());
        });
        QCOMPARE(error == QLatin1String("no error") ? seen : error, outcome);
    }
};

QTEST_GUILESS_MAIN(TestCartridgeEngine)
#include "tst_cartridge_engine.moc"
