// The exchange with the runner program: where it is looked up, the size and time limits on
// each side, the result checks, and how the end of the process is read.

#include "script_test_support.h"

#include "platform/auxiliary_executable.h"

#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

using namespace ScriptTest;

class TestCartridgeEngine : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void missingRunner_data();
    void missingRunner();
    void requestLimit_data();
    void requestLimit();
    void answerLimit_data();
    void answerLimit();
    void stateLimit_data();
    void stateLimit();
    void resultChecks_data();
    void resultChecks();
    void nanFailsEveryRange();
    void outlivingTheTimeLimit_data();
    void outlivingTheTimeLimit();
    void memoryBomb_data();
    void memoryBomb();
    void fakeRunnerFaults_data();
    void fakeRunnerFaults();

private:
    QString m_runner;
};

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
QString writeFakeRunner(const QTemporaryDir &dir, const QByteArray &body)
{
    const QString path = dir.filePath(QStringLiteral("fake-runner"));
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return {};
    file.write("#!/bin/sh\ncat >/dev/null\n" + body + "\n");
    file.close();
    file.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    return path;
}

} // namespace

void TestCartridgeEngine::initTestCase()
{
    m_runner = AuxiliaryExecutable::find(QLatin1String(CartridgeEngine::runnerName));
    QVERIFY2(!m_runner.isEmpty(), "corvane-script-runner is built into libexec/corvane");
}

void TestCartridgeEngine::missingRunner_data()
{
    QTest::addColumn<QString>("fileName"); // in a temporary folder; empty: no path at all
    QTest::addColumn<bool>("executable");
    QTest::newRow("no path") << QString() << false;
    QTest::newRow("no such file") << QStringLiteral("absent") << false;
    QTest::newRow("not executable") << QStringLiteral("plain") << false;
    QTest::newRow("a folder") << QStringLiteral("folder") << true;
}

void TestCartridgeEngine::missingRunner()
{
    QFETCH(QString, fileName);
    QTemporaryDir dir;
    QString path;
    if (!fileName.isEmpty()) {
        path = dir.filePath(fileName);
        if (fileName == QLatin1String("plain")) {
            QFile file(path);
            QVERIFY(file.open(QIODevice::WriteOnly));
        } else if (fileName == QLatin1String("folder")) {
            QVERIFY(QDir(dir.path()).mkdir(fileName));
        }
    }
    const QString error = errorOf([&] {
        await(CartridgeEngine::evaluateWith(path, QStringLiteral("module.exports = {}"),
                                                     context(), CartridgeHook::Info, {}));
    });
    QCOMPARE(error, QStringLiteral("The script runner is missing from this app build."));
}

void TestCartridgeEngine::requestLimit_data()
{
    QTest::addColumn<qsizetype>("requestBytes");
    QTest::addColumn<bool>("sent");
    QTest::newRow("exactly 2 MB") << qsizetype(2'097'152) << true;
    QTest::newRow("one byte more") << qsizetype(2'097'153) << false;
}

void TestCartridgeEngine::requestLimit()
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
        QCOMPARE(await(std::move(task)).display, QStringLiteral("ran"));
        return;
    }
    // Refused before any process starts: the task ends without ever suspending.
    QVERIFY(task.isReady());
    QCOMPARE(errorOf([&] { await(std::move(task)); }),
             QStringLiteral("Script: Conversation history is too large for the script"));
}

void TestCartridgeEngine::answerLimit_data()
{
    QTest::addColumn<qsizetype>("answerBytes");
    QTest::addColumn<bool>("accepted");
    QTest::newRow("exactly 256 KB") << qsizetype(262'144) << true;
    QTest::newRow("one byte more") << qsizetype(262'145) << false;
}

void TestCartridgeEngine::answerLimit()
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

void TestCartridgeEngine::stateLimit_data()
{
    // The runner saves a string state as JSON text: two quotes around the characters.
    QTest::addColumn<QString>("stateExpression");
    QTest::addColumn<bool>("accepted");
    QTest::newRow("65,536 bytes of two-byte characters") << QStringLiteral("\"é\".repeat(32767)") << true;
    QTest::newRow("65,537 bytes, 32,768 characters") << QStringLiteral("\"é\".repeat(32767) + \"a\"") << false;
    QTest::newRow("65,536 bytes of three-byte characters") << QStringLiteral("\"€\".repeat(21844) + \"ab\"") << true;
    QTest::newRow("65,537 bytes, 21,847 characters") << QStringLiteral("\"€\".repeat(21844) + \"abc\"") << false;
    QTest::newRow("65,536 bytes of an object") << QStringLiteral("({ note: \"😀\".repeat(16381) + \"!\" })") << true;
    QTest::newRow("65,537 bytes of an object") << QStringLiteral("({ note: \"😀\".repeat(16381) + \"!!\" })") << false;
}

void TestCartridgeEngine::stateLimit()
{
    QFETCH(QString, stateExpression);
    QFETCH(bool, accepted);
    const QString source = QStringLiteral("module.exports = { onTick: () => ({ state: %1 }) };").arg(stateExpression);
    QString state;
    const QString error = errorOf([&] { state = *run(source, CartridgeHook::Tick).state; });
    if (!accepted) {
        QCOMPARE(error, QStringLiteral("Script: state must be under 64 KB as JSON"));
        return;
    }
    QCOMPARE(error, QStringLiteral("no error"));
    QCOMPARE(state.toUtf8().size(), 65536);
}

void TestCartridgeEngine::resultChecks_data()
{
    QTest::addColumn<CartridgeHook>("hook");
    QTest::addColumn<QString>("result"); // a JavaScript object literal
    QTest::addColumn<QString>("error"); // after "Script: "; empty when it passes

    const auto turn = CartridgeHook::Turn;
    const auto tick = CartridgeHook::Tick;
    const QString emptyPrompt = QStringLiteral("Prompt is empty");
    const QString tickEvery = QStringLiteral("tick_every must be between 10 and 86400 seconds");
    const QString next = QStringLiteral("next must be between 10 and 86400 seconds");
    const QString temperature = QStringLiteral("temperature must be between 0 and 1.5");
    const QString maxTokens = QStringLiteral("max_tokens must be between 64 and 8192");
    const QString state = QStringLiteral("state must be under 64 KB as JSON");

    QTest::newRow("turn without prompt") << turn << "{}" << emptyPrompt;
    QTest::newRow("turn with blank prompt") << turn << "{ prompt: \" \\n\\t \" }" << emptyPrompt;
    QTest::newRow("tick with blank prompt") << tick << "{ prompt: \"  \" }" << QString();
    QTest::newRow("turn with prompt") << turn << "{ prompt: \"Be brief.\" }" << QString();
    QTest::newRow("tick_every 10") << tick << "{ tick_every: 10 }" << QString();
    QTest::newRow("tick_every 86400") << tick << "{ tick_every: 86400 }" << QString();
    QTest::newRow("tick_every 9.99") << tick << "{ tick_every: 9.99 }" << tickEvery;
    QTest::newRow("tick_every 86400.5") << tick << "{ tick_every: 86400.5 }" << tickEvery;
    QTest::newRow("next 10") << tick << "{ next: 10 }" << QString();
    QTest::newRow("next 86400") << tick << "{ next: 86400 }" << QString();
    QTest::newRow("next 9.99") << tick << "{ next: 9.99 }" << next;
    QTest::newRow("next 86401") << tick << "{ next: 86401 }" << next;
    QTest::newRow("temperature 0") << tick << "{ temperature: 0 }" << QString();
    QTest::newRow("temperature 1.5") << tick << "{ temperature: 1.5 }" << QString();
    QTest::newRow("temperature -0.01") << tick << "{ temperature: -0.01 }" << temperature;
    QTest::newRow("temperature 1.51") << tick << "{ temperature: 1.51 }" << temperature;
    QTest::newRow("max_tokens 64") << tick << "{ max_tokens: 64 }" << QString();
    QTest::newRow("max_tokens 8192") << tick << "{ max_tokens: 8192 }" << QString();
    QTest::newRow("max_tokens 63") << tick << "{ max_tokens: 63 }" << maxTokens;
    QTest::newRow("max_tokens 8193") << tick << "{ max_tokens: 8193 }" << maxTokens;
    // The first failing check in order is the one reported.
    const QString allBad = QStringLiteral("state: \"x\".repeat(70000), tick_every: 1, next: 1, "
                                          "temperature: 2, max_tokens: 1");
    QTest::newRow("prompt first") << turn << "{ " + allBad + " }" << emptyPrompt;
    QTest::newRow("then state") << tick << "{ " + allBad + " }" << state;
    QTest::newRow("then tick_every") << tick << "{ tick_every: 1, next: 1, temperature: 2, max_tokens: 1 }" << tickEvery;
    QTest::newRow("then next") << tick << "{ next: 1, temperature: 2, max_tokens: 1 }" << next;
    QTest::newRow("then temperature") << tick << "{ temperature: 2, max_tokens: 1 }" << temperature;
}

void TestCartridgeEngine::resultChecks()
{
    QFETCH(CartridgeHook, hook);
    QFETCH(QString, result);
    QFETCH(QString, error);
    const QString source = QStringLiteral("module.exports = { prompt: () => (%1), onTick: () => (%1) };").arg(result);
    QCOMPARE(errorOf([&] { run(source, hook); }),
             error.isEmpty() ? QStringLiteral("no error") : QStringLiteral("Script: ") + error);
}

void TestCartridgeEngine::nanFailsEveryRange()
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

void TestCartridgeEngine::outlivingTheTimeLimit_data()
{
    QTest::addColumn<QString>("hookBody");
    QTest::newRow("endless loop") << QStringLiteral("for (;;) {}");
    QTest::newRow("busy wait for 3 s") << QStringLiteral("const end = Date.now() + 3000; while (Date.now() < end) {}");
    QTest::newRow("endless promise chain") << QStringLiteral("const again = () => Promise.resolve().then(again); return again();");
    QTest::newRow("endless recursion caught") << QStringLiteral("const f = () => { try { f(); } catch { f(); } }; f();");
}

void TestCartridgeEngine::outlivingTheTimeLimit()
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

void TestCartridgeEngine::memoryBomb_data()
{
    QTest::addColumn<QString>("hookBody");
    QTest::newRow("arrays") << QStringLiteral("const a = []; for (;;) a.push(new Array(100000).fill(1));");
    QTest::newRow("objects") << QStringLiteral("const a = []; for (let i = 0; ; ++i) a.push({ i, s: String(i) });");
    QTest::newRow("buffers") << QStringLiteral("const a = []; for (;;) a.push(new Uint8Array(16 << 20).fill(1));");
    QTest::newRow("strings") << QStringLiteral("const a = []; for (let i = 0; ; ++i) a.push(\"x\".repeat(1 << 20) + i);");
}

void TestCartridgeEngine::memoryBomb()
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

void TestCartridgeEngine::fakeRunnerFaults_data()
{
    QTest::addColumn<QByteArray>("body"); // after reading the request
    QTest::addColumn<QString>("outcome"); // the prompt, or the error's description

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

void TestCartridgeEngine::fakeRunnerFaults()
{
    QFETCH(QByteArray, body);
    QFETCH(QString, outcome);
    QTemporaryDir dir;
    const QString runner = writeFakeRunner(dir, body);
    QString seen;
    const QString error = errorOf([&] {
        seen = *await(CartridgeEngine::evaluateWith(runner, QStringLiteral("unused"), context(),
                                                             CartridgeHook::Turn, {}))
                    .prompt;
    });
    QCOMPARE(error == QLatin1String("no error") ? seen : error, outcome);
}

QTEST_GUILESS_MAIN(TestCartridgeEngine)
#include "tst_cartridge_engine.moc"
