// The exchange with the runner program: where it is looked up, the size and time limits on
// each side, and how the end of the process is read.

#include "script_test_support.h"

#include "platform/auxiliary_executable.h"

#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

using namespace ScriptTest;

namespace {

/// Bytes the runner writes around a `display` value of plain letters, found by asking it.
qsizetype answerOverhead(const QString &runner)
{
    const QString source = QStringLiteral("module.exports = { onTick: () => ({ display: \"0123456789\" }) };");
    QProcess process;
    process.start(runner, {});
    process.write(CartridgeEngine::encodeRequest(source, context(), CartridgeHook::Tick, {}, {}));
    process.closeWriteChannel();
    if (!process.waitForFinished(10000))
        return -1;
    return process.readAllStandardOutput().size() - 10;
}

/// A shell script that stands in for the runner, for faults the real one never shows.
void writeFakeRunner(const QString &path, const QByteArray &body, bool executable)
{
    QFile file(path);
    if (file.open(QIODevice::WriteOnly))
        file.write("#!/bin/sh\ncat >/dev/null\n" + body + "\n");
    file.close();
    file.setPermissions(executable ? QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner
                                   : QFile::ReadOwner | QFile::WriteOwner);
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
        const qsizetype overhead = answerOverhead(m_runner);
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
        CartridgeResult tick;
        tick.tickEvery = nan;
        QCOMPARE(errorOf([&] { tick.check(CartridgeHook::Tick); }),
                 QStringLiteral("Script: tick_every must be between 10 and 86400 seconds"));
        CartridgeResult temperature;
        temperature.temperature = nan;
        QCOMPARE(errorOf([&] { temperature.check(CartridgeHook::Tick); }),
                 QStringLiteral("Script: temperature must be between 0 and 1.5"));
    }

    void outlivingTheTimeLimit_data()
    {
        QTest::addColumn<QString>("hookBody");
        QTest::newRow("endless loop") << QStringLiteral("for (;;) {}");
        QTest::newRow("endless promise chain") << QStringLiteral("const again = () => Promise.resolve().then(again); return again();");
        QTest::newRow("endless recursion caught") << QStringLiteral("const f = () => { try { f(); } catch { f(); } }; f();");
    }

    void outlivingTheTimeLimit()
    {
        QFETCH(QString, hookBody);
        const QString source = QStringLiteral("module.exports = { onTick() { %1 } };").arg(hookBody);
        QElapsedTimer clock;
        clock.start();
        const QString error = errorOf([&] { run(source, CartridgeHook::Tick); });
        const qint64 elapsed = clock.elapsed();
        QCOMPARE(error, QStringLiteral("The script exceeded its execution time limit."));
        QVERIFY2(elapsed >= 1900 && elapsed < 8000, qPrintable(QString::number(elapsed)));
    }

    void memoryBomb_data()
    {
        QTest::addColumn<QString>("hookBody");
        QTest::newRow("objects") << QStringLiteral("const a = []; for (let i = 0; ; ++i) a.push({ i, s: String(i) });");
        QTest::newRow("buffers") << QStringLiteral("const a = []; for (;;) a.push(new Uint8Array(16 << 20).fill(1));");
        QTest::newRow("strings") << QStringLiteral("const a = []; for (let i = 0; ; ++i) a.push(\"x\".repeat(1 << 20) + i);");
    }

    void memoryBomb()
    {
        QFETCH(QString, hookBody);
        const QString source = QStringLiteral("module.exports = { onTick() { %1 } };").arg(hookBody);
        QCOMPARE(errorOf([&] { run(source, CartridgeHook::Tick); }),
                 QStringLiteral("The script exceeded its execution time limit."));

        // Without the application's kill timer the runner's own limits end it, by a signal.
        QProcess process;
        process.start(m_runner, {});
        process.write(CartridgeEngine::encodeRequest(source, context(), CartridgeHook::Tick, {}, {}));
        process.closeWriteChannel();
        QVERIFY(process.waitForFinished(30000));
        QCOMPARE(process.exitStatus(), QProcess::CrashExit);
        QVERIFY(process.readAllStandardOutput().isEmpty());
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
        else if (body != "<absent>")
            writeFakeRunner(runner, body, body != "<not executable>");
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
