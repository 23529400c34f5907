// What scripts can do in the runner: the hooks and their conventions, the shipped scripts,
// saved state, failures inside a script, and what a script must not reach.

#include "script_test_support.h"

#include "scripts/script_resources.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QTcpServer>

using namespace ScriptTest;

class TestScriptRunner : public QObject
{
    Q_OBJECT

private slots:
    void hooks_data();
    void hooks();
    void scriptSeesItsContext();
    void templateScript();
    void exampleScript();
    void stateRoundTrip();
    void scriptFailures_data();
    void scriptFailures();
    void wrongShape_data();
    void wrongShape();
    void languageLevel();
    void onlyEcmaScriptBuiltIns();
    void noFileOrNetworkAccess_data();
    void noFileOrNetworkAccess();
    void noConnectionLeaves();
};

namespace {

/// The answer fields that the hook tests compare, as compact JSON.
QString summary(const CartridgeResult &result)
{
    QJsonObject object;
    if (result.prompt)
        object.insert("prompt", *result.prompt);
    if (result.temperature)
        object.insert("temperature", *result.temperature);
    if (result.maxTokens)
        object.insert("max_tokens", *result.maxTokens);
    if (result.agentName)
        object.insert("agent_name", *result.agentName);
    if (result.name)
        object.insert("name", *result.name);
    if (result.tickEvery)
        object.insert("tick_every", *result.tickEvery);
    if (result.hasOnReply)
        object.insert("has_on_reply", *result.hasOnReply);
    if (result.state)
        object.insert("state", *result.state);
    if (result.display)
        object.insert("display", *result.display);
    if (result.data)
        object.insert("data", *result.data);
    if (result.inject) {
        QJsonArray entries;
        for (const CartridgeInjection &entry : *result.inject)
            entries.append(QJsonObject{{"role", entry.role}, {"text", entry.text}});
        object.insert("inject", entries);
    }
    if (result.respond)
        object.insert("respond", *result.respond);
    if (result.next)
        object.insert("next", *result.next);
    return QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact));
}

} // namespace

void TestScriptRunner::hooks_data()
{
    QTest::addColumn<QString>("source");
    QTest::addColumn<CartridgeHook>("hook");
    QTest::addColumn<QString>("expected");

    const QString full = QStringLiteral(
        "module.exports = { name: 'Coach', agentName: 'Kim', tickEvery: 60,"
        "  prompt: ({ agent, turn }) => `Hi ${agent.name}, turn ${turn}`,"
        "  onReply: ({ partial }, text) => ({ display: text.toUpperCase() + (partial ? '…' : '') }),"
        "  onTick: ({ trigger }) => ({ inject: [{ role: 'user', text: trigger }], respond: true, next: 30 }) };");
    QTest::newRow("turn returns text") << full << CartridgeHook::Turn
                                       << R"({"agent_name":"Kim","name":"Coach","prompt":"Hi Ada, turn 0"})";
    QTest::newRow("reply") << full << CartridgeHook::Reply << R"({"display":"HELLO"})";
    QTest::newRow("tick") << full << CartridgeHook::Tick
                          << R"({"inject":[{"role":"user","text":"user"}],"next":30,"respond":true})";
    QTest::newRow("info derived from the exports")
        << full << CartridgeHook::Info << R"({"agent_name":"Kim","has_on_reply":true,"name":"Coach","tick_every":60})";
    QTest::newRow("info of a script without onReply or timer")
        << "module.exports = { prompt: 'x' };" << CartridgeHook::Info << R"({"has_on_reply":false})";
    QTest::newRow("info() overrides what is derived")
        << "module.exports = { tickEvery: 60, info: () => ({ tick_every: 120, has_on_reply: true }) };"
        << CartridgeHook::Info << R"({"has_on_reply":true,"tick_every":120})";
    QTest::newRow("turn returns an object with every key")
        << "module.exports = { prompt: () => ({ prompt: 'p', temperature: 0.5, max_tokens: 100, agent_name: 'A',"
           " state: { n: 1 }, display: 'd', data: [1], name: 'N' }) };"
        << CartridgeHook::Turn
        << R"({"agent_name":"A","data":"[1]","display":"d","max_tokens":100,"name":"N","prompt":"p","state":"{\"n\":1}","temperature":0.5})";
    QTest::newRow("camelCase spellings") << "module.exports = { onTick: () => ({ maxTokens: 64, tickEvery: 10, agentName: 'B' }) };"
                                         << CartridgeHook::Tick << R"({"agent_name":"B","max_tokens":64,"tick_every":10})";
    QTest::newRow("a prompt that is not a function") << "module.exports = { prompt: 'Be brief.' };"
                                                     << CartridgeHook::Turn << R"({"prompt":"Be brief."})";
    QTest::newRow("async hook") << "module.exports = { onTick: async () => { await null; return { display: 'later' }; } };"
                                << CartridgeHook::Tick << R"({"display":"later"})";
    QTest::newRow("hooks that are not exported answer nothing") << "module.exports = { prompt: 'x' };"
                                                                << CartridgeHook::Tick << "{}";
    QTest::newRow("exports instead of module.exports") << "exports.prompt = () => 'short';"
                                                       << CartridgeHook::Turn << R"({"prompt":"short"})";
    QTest::newRow("nulls and undefined are left out")
        << "module.exports = { onTick: () => ({ display: null, next: undefined, respond: false }) };"
        << CartridgeHook::Tick << R"({"respond":false})";
}

void TestScriptRunner::hooks()
{
    QFETCH(QString, source);
    QFETCH(CartridgeHook, hook);
    QFETCH(QString, expected);
    QCOMPARE(summary(run(source, hook, {}, QStringLiteral("hello"))), expected);
}

void TestScriptRunner::scriptSeesItsContext()
{
    // The script gets the context as sent, plus its parsed state and, for replies, the text.
    const QString source = QStringLiteral(
        "module.exports = { onReply: (context, text) => ({ data: { context, same: text === context.text } }) };");
    auto context = ScriptTest::context();
    Message message;
    message.role = QStringLiteral("user");
    message.body = QStringLiteral("Hi");
    message.createdAt = QStringLiteral("2026-11-15T20:20:44Z");
    context = CartridgeContext::forChat(Chat(), QStringLiteral("Ada"), {message}, {},
                                        QDateTime::fromString(context.now, Qt::ISODate));
    const auto result = run(source, CartridgeHook::Reply, QStringLiteral("{\"n\":2}"), QStringLiteral("Yes"), context);
    const QJsonObject seen = QJsonDocument::fromJson(result.data->toUtf8()).object();
    QJsonObject expected = context.toJson();
    expected.insert("state", QJsonObject{{"n", 2}});
    expected.insert("text", "Yes");
    QCOMPARE(seen.value("context").toObject(), expected);
    QCOMPARE(seen.value("same").toBool(), true);
}

void TestScriptRunner::templateScript()
{
    const QString source = ScriptResources::templateSource(QStringLiteral("My Script 2"));
    QCOMPARE(source, QStringLiteral("module.exports = {\n  name: \"My Script 2\",\n\n"
                                    "  // Runs before each reply. What it returns is added to the system prompt.\n"
                                    "  // turn counts your messages, including the one being answered.\n"
                                    "  prompt: ({ agent, turn }) => `You are ${agent.name}.`,\n};\n"));
    const auto result = run(source, CartridgeHook::Turn);
    QCOMPARE(result.prompt, QStringLiteral("You are Ada."));
    QCOMPARE(result.name, QStringLiteral("My Script 2"));
    QCOMPARE(run(source, CartridgeHook::Info).hasOnReply, false);
}

void TestScriptRunner::exampleScript()
{
    const QString source = ScriptResources::exampleSource();
    QVERIFY(!source.isEmpty());

    const auto info = run(source, CartridgeHook::Info);
    QCOMPARE(info.name, QStringLiteral("Example Script"));
    QCOMPARE(info.tickEvery, 600.0);
    QCOMPARE(info.hasOnReply, true);

    const auto turn = run(source, CartridgeHook::Turn, {}, {}, context(QStringLiteral("Sage")));
    QVERIFY(turn.prompt->startsWith(QStringLiteral("You are Sage")));
    QCOMPARE(turn.agentName, QStringLiteral("Sage"));

    const auto reply = run(source, CartridgeHook::Reply, *turn.state, QStringLiteral("**Photosynthesis** turns light into sugar."));
    QVERIFY(reply.display->endsWith(QStringLiteral("(Reply 1, about Photosynthesis)")));
    QCOMPARE(*reply.data, QStringLiteral("{\"topic\":\"Photosynthesis\",\"replies\":1}"));

    // After a quiet half hour the timer asks a quiz question, once.
    auto quiet = context();
    quiet.idleSeconds = 3600;
    const auto tick = run(source, CartridgeHook::Tick, *reply.state, {}, quiet);
    QCOMPARE(tick.respond, true);
    QCOMPARE(tick.inject->value(0).text, QStringLiteral("Quiz me with one short question about Photosynthesis."));
    QCOMPARE(tick.next, 3600.0);
    QCOMPARE(summary(run(source, CartridgeHook::Tick, *tick.state, {}, quiet)), QStringLiteral("{}"));
}

void TestScriptRunner::stateRoundTrip()
{
    const QString source = QStringLiteral(
        "module.exports = { onTick: ({ state }) => ({ state: { n: (state?.n ?? 0) + 1, "
        "log: [...(state?.log ?? []), \"ü€😀\\u0000\\\"\"] } }) };");
    QString state;
    for (int round = 1; round <= 3; ++round)
        state = *run(source, CartridgeHook::Tick, state).state;
    const QJsonObject saved = QJsonDocument::fromJson(state.toUtf8()).object();
    QCOMPARE(saved.value("n").toInt(), 3);
    QCOMPARE(saved.value("log").toArray().size(), 3);
    QCOMPARE(saved.value("log").toArray().at(2).toString(), QStringLiteral("ü€😀") + QChar(0) + QLatin1Char('"'));

    // A state that is a bare string or a number survives as well.
    const QString echo = QStringLiteral("module.exports = { onTick: ({ state }) => ({ state }) };");
    QCOMPARE(run(echo, CartridgeHook::Tick, QStringLiteral("\"text\"")).state, QStringLiteral("\"text\""));
    QCOMPARE(run(echo, CartridgeHook::Tick, QStringLiteral("12.5")).state, QStringLiteral("12.5"));
    QCOMPARE(run(echo, CartridgeHook::Tick).state, std::nullopt);
}

void TestScriptRunner::scriptFailures_data()
{
    QTest::addColumn<QString>("source");
    QTest::addColumn<QString>("state");
    QTest::addColumn<QString>("error"); // a leading '^' compares only the beginning

    QTest::newRow("thrown Error") << "module.exports = { onTick() { throw new Error('Need a name'); } };"
                                  << QString() << "Script: Need a name";
    QTest::newRow("thrown text") << "module.exports = { onTick() { throw 'plain words'; } };" << QString()
                                 << "Script: plain words";
    QTest::newRow("rejected promise") << "module.exports = { onTick: async () => { throw new Error('later'); } };"
                                      << QString() << "Script: later";
    QTest::newRow("engine error with its line")
        << "// a comment\nmodule.exports = {\n  onTick() { return missing.value; } };" << QString()
        << "Script: ReferenceError: missing is not defined (line 3)";
    QTest::newRow("syntax error") << "module.exports = {\n  prompt: () => ( };" << QString()
                                  << "^Script: SyntaxError: ";
    QTest::newRow("error while loading") << "throw new TypeError('not ready');" << QString()
                                         << "Script: TypeError: not ready (line 1)";
    QTest::newRow("too much recursion") << "module.exports = { onTick() { const f = () => f() + 1; return f(); } };"
                                        << QString() << "Script: InternalError: too much recursion (line 1)";
    QTest::newRow("saved state is not JSON") << "module.exports = { onTick: () => ({}) };" << "{oops"
                                             << "Script: The saved state is not valid JSON";
    QTest::newRow("state that JSON cannot hold") << "module.exports = { onTick: () => ({ state: () => 1 }) };"
                                                 << QString() << "Script: state cannot be saved as JSON";
    QTest::newRow("promise that never settles") << "module.exports = { onTick: () => new Promise(() => {}) };"
                                                << QString() << "Script: The hook returned a promise that never settled";
    QTest::newRow("hook returns a number") << "module.exports = { onTick: () => 5 };" << QString()
                                           << "Script: onTick must return an object, not number";
}

void TestScriptRunner::scriptFailures()
{
    QFETCH(QString, source);
    QFETCH(QString, state);
    QFETCH(QString, error);
    const QString seen = errorOf([&] { run(source, CartridgeHook::Tick, state); });
    if (error.startsWith(QLatin1Char('^')))
        QVERIFY2(seen.startsWith(error.mid(1)), qPrintable(seen));
    else
        QCOMPARE(seen, error);
}

void TestScriptRunner::wrongShape_data()
{
    QTest::addColumn<QString>("result");
    QTest::addColumn<QString>("key");
    QTest::newRow("display as a number") << "{ display: 5 }" << "\"display\" must be a string";
    QTest::newRow("respond as text") << "{ respond: 'yes' }" << "\"respond\" must be true or false";
    QTest::newRow("max_tokens with a fraction") << "{ max_tokens: 100.5 }" << "\"max_tokens\" must be an integer";
    QTest::newRow("temperature as text") << "{ temperature: '0.5' }" << "\"temperature\" must be a number";
    QTest::newRow("inject as an object") << "{ inject: { role: 'user', text: 'x' } }" << "\"inject\" must be a list";
    QTest::newRow("injection without role") << "{ inject: [{ text: 'x' }] }" << "\"inject\" must be a list";
    QTest::newRow("injection text as a number") << "{ inject: [{ role: 'user', text: 1 }] }" << "\"inject\" must be a list";
}

void TestScriptRunner::wrongShape()
{
    QFETCH(QString, result);
    QFETCH(QString, key);
    const QString source = QStringLiteral("module.exports = { onTick: () => (%1) };").arg(result);
    try {
        run(source, CartridgeHook::Tick);
        QFAIL("the answer was accepted");
    } catch (const CartridgeAnswerError &error) {
        QVERIFY2(error.description().startsWith(QStringLiteral("The script's answer could not be read: ") + key),
                 qPrintable(error.description()));
    }
}

void TestScriptRunner::languageLevel()
{
    // What docs/scripts.md promises script authors: ECMAScript 2022.
    const QString source = QStringLiteral(
        "class Counter { #n = 0n; static #made = 0; static { Counter.ready = true; }\n"
        "  add() { this.#n += 1n; return this; } get n() { return this.#n; } }\n"
        "module.exports = { onTick: async ({ state, missing }) => {\n"
        "  const { a, ...rest } = { a: 1, b: 2, ...state };\n"
        "  const text = [[1, [2]], 3].flat(2).at(-1) + Object.fromEntries([['k', 'v']]).k\n"
        "    + (missing?.deep?.value ?? 'none') + 'a-b'.replaceAll('-', '+') + Object.hasOwn(rest, 'b')\n"
        "    + new Counter().add().add().n + (2n ** 64n) + Counter.ready + (await Promise.any([1])) + /(?<y>\\d{4})/.exec('in 2026').groups.y + typeof WeakRef;\n"
        "  return { display: text }; } };");
    QCOMPARE(run(source, CartridgeHook::Tick, QStringLiteral("{\"c\":3}")).display,
             QStringLiteral("3vnonea+btrue218446744073709551616true12026function"));
}

void TestScriptRunner::onlyEcmaScriptBuiltIns()
{
    const QString source = QStringLiteral(
        "module.exports = { onTick: () => ({ data: Object.getOwnPropertyNames(globalThis) }) };");
    const QStringList globals
        = QJsonDocument::fromJson(run(source, CartridgeHook::Tick).data->toUtf8()).toVariant().toStringList();
    // ECMAScript 2022 and ECMA-402 globals, with Annex B's escape/unescape and the engine's
    // InternalError (thrown for too much recursion).
    const QStringList allowed = QStringLiteral(
        "globalThis Infinity NaN undefined eval isFinite isNaN parseFloat parseInt decodeURI "
        "decodeURIComponent encodeURI encodeURIComponent escape unescape AggregateError Array "
        "ArrayBuffer BigInt BigInt64Array BigUint64Array Boolean DataView Date Error EvalError "
        "FinalizationRegistry Float32Array Float64Array Function Int8Array Int16Array Int32Array "
        "InternalError Map Number Object Promise Proxy RangeError ReferenceError RegExp Set String "
        "Symbol SyntaxError TypeError Uint8Array Uint8ClampedArray Uint16Array Uint32Array URIError "
        "WeakMap WeakRef WeakSet Atomics JSON Math Reflect Intl").split(QLatin1Char(' '));
    QVERIFY(globals.contains(QStringLiteral("JSON")));
    for (const QString &name : globals)
        QVERIFY2(allowed.contains(name), qPrintable(name));
}

void TestScriptRunner::noFileOrNetworkAccess_data()
{
    QTest::addColumn<QString>("attempt");
    QTest::addColumn<QString>("error");
    QTest::newRow("require") << "require('fs').readFileSync('/etc/passwd', 'utf8')"
                             << "Script: ReferenceError: require is not defined (line 1)";
    QTest::newRow("dynamic import") << "(await import('/etc/passwd')).default"
                                    << "Script: Dynamic module import is disabled or not supported in this context";
    QTest::newRow("shell read") << "read('/etc/passwd')" << "Script: ReferenceError: read is not defined (line 1)";
    QTest::newRow("shell os.file") << "os.file.readFile('/etc/passwd')"
                                   << "Script: ReferenceError: os is not defined (line 1)";
    QTest::newRow("fetch") << "(await fetch('http://127.0.0.1/')).text()"
                           << "Script: ReferenceError: fetch is not defined (line 1)";
    QTest::newRow("WebSocket") << "new WebSocket('ws://127.0.0.1/')"
                               << "Script: ReferenceError: WebSocket is not defined (line 1)";
    QTest::newRow("process") << "process.exit(0)" << "Script: ReferenceError: process is not defined (line 1)";
    QTest::newRow("timers") << "setTimeout(() => {}, 5000)" << "Script: ReferenceError: setTimeout is not defined (line 1)";
}

void TestScriptRunner::noFileOrNetworkAccess()
{
    QFETCH(QString, attempt);
    QFETCH(QString, error);
    const QString source = QStringLiteral("module.exports = { onTick: async () => ({ display: String(%1) }) };").arg(attempt);
    QCOMPARE(errorOf([&] { run(source, CartridgeHook::Tick); }), error);
}

void TestScriptRunner::noConnectionLeaves()
{
    QTcpServer server;
    QVERIFY(server.listen(QHostAddress::LocalHost));
    const QString url = QStringLiteral("//127.0.0.1:%1/").arg(server.serverPort());
    const QString source = QStringLiteral(
        "const tries = [() => fetch('http:%1'), () => new WebSocket('ws:%1'),"
        "  () => new XMLHttpRequest().open('GET', 'http:%1'), () => import('http:%1')];\n"
        "module.exports = { onTick: async () => { let failed = 0;\n"
        "  for (const attempt of tries) { try { await attempt(); } catch { ++failed; } }\n"
        "  return { display: String(failed) }; } };").arg(url);
    QCOMPARE(run(source, CartridgeHook::Tick).display, QStringLiteral("4"));
    QVERIFY(!server.waitForNewConnection(200));
}

QTEST_GUILESS_MAIN(TestScriptRunner)
#include "tst_script_runner.moc"
