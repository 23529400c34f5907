// What scripts can do in the runner: the hooks and their conventions, the shipped scripts,
// saved state, failures inside a script and the checks on its answers, and what a script
// must not reach.

#include "script_test_support.h"

#include "scripts/script_resources.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QTcpServer>

using namespace ScriptTest;

class TestScriptRunner : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void hooks_data()
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
        QTest::newRow("info() overrides what is derived")
            << "module.exports = { tickEvery: 60, info: () => ({ tick_every: 120, has_on_reply: true }) };"
            << CartridgeHook::Info << R"({"has_on_reply":true,"tick_every":120})";
        QTest::newRow("turn returns an object with every key")
            << "module.exports = { prompt: () => ({ prompt: 'p', temperature: 0.5, max_tokens: 100, agent_name: 'A',"
               " state: { n: 1 }, display: 'd', data: [1], name: 'N' }) };"
            << CartridgeHook::Turn
            << "{\"agent_name\":\"A\",\"data\":\"[1]\",\"display\":\"d\",\"max_tokens\":100,\"name\":\"N\","
               "\"prompt\":\"p\",\"state\":\"{\\\"n\\\":1}\",\"temperature\":0.5}";
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
        const QString fresh = ScriptResources::templateSource(QStringLiteral("My Script 2"));
        QTest::newRow("template of a new script") << fresh << CartridgeHook::Turn
                                                  << R"({"name":"My Script 2","prompt":"You are Ada."})";
        QTest::newRow("template's info") << fresh << CartridgeHook::Info << R"({"has_on_reply":false,"name":"My Script 2"})";
        QTest::newRow("nulls and undefined are left out")
            << "module.exports = { onTick: () => ({ display: null, next: undefined, respond: false }) };"
            << CartridgeHook::Tick << R"({"respond":false})";
    }

    void hooks()
    {
        QFETCH(QString, source);
        QFETCH(CartridgeHook, hook);
        QFETCH(QString, expected);
        // As the runner would answer: snake_case keys, state and data as JSON text.
        const auto answer = CartridgeResult::fromJson(QJsonDocument::fromJson(expected.toUtf8()).object());
        QVERIFY2(run(source, hook, {}, QStringLiteral("hello")) == answer, qPrintable(expected));
    }

    void scriptSeesItsContext()
    {
        // The names scripts are written against, plus the parsed state and, for replies, the text.
        const QString source = QStringLiteral(
            "module.exports = { onReply: (context, text) => ({ data: { context, same: text === context.text } }) };");
        Chat chat;
        chat.id = 42;
        chat.title = QStringLiteral("Plans");
        Message message;
        message.role = QStringLiteral("assistant");
        message.body = QStringLiteral("Hi");
        message.display = QStringLiteral("Hi!");
        message.hidden = true;
        message.data = QStringLiteral("{\"n\":1}");
        message.createdAt = QStringLiteral("2026-11-15T20:20:44Z");
        const QDateTime now = QDateTime::fromString(QStringLiteral("2026-11-15T20:21:57Z"), Qt::ISODate);
        auto context = CartridgeContext::forChat(chat, QStringLiteral("Sage"), {message}, now.addSecs(-90), now);
        context.trigger = QStringLiteral("tick");
        context.partial = true;
        const auto result = run(source, CartridgeHook::Reply, QStringLiteral("{\"n\":2}"), QStringLiteral("Yes"), context);

        const QJsonObject shown{{"role", "assistant"}, {"text", "Hi"}, {"display", "Hi!"}, {"hidden", true},
                                {"data", "{\"n\":1}"}, {"createdAt", "2026-11-15T20:20:44Z"}};
        const QJsonObject expected{{"agent", QJsonObject{{"name", "Sage"}}}, {"chat", QJsonObject{{"title", "Plans"}, {"id", 42}}},
                                   {"idle_seconds", 90.0}, {"messages", QJsonArray{shown}}, {"now", "2026-11-15T20:21:57Z"},
                                   {"partial", true}, {"trigger", "tick"}, {"turn", 0}, {"state", QJsonObject{{"n", 2}}},
                                   {"text", "Yes"}};
        QCOMPARE(QJsonDocument::fromJson(result.data->toUtf8()).object(),
                 (QJsonObject{{"context", expected}, {"same", true}}));
    }

    void exampleScript()
    {
        const QString source = ScriptResources::exampleSource();
        const auto info = run(source, CartridgeHook::Info);
        QCOMPARE(info.name, QStringLiteral("Example Script"));
        QCOMPARE(info.hasOnReply, true);

        const auto turn = run(source, CartridgeHook::Turn, {}, {}, context(QStringLiteral("Sage")));
        QVERIFY(turn.prompt->startsWith(QStringLiteral("You are Sage")));

        const auto reply = run(source, CartridgeHook::Reply, *turn.state, QStringLiteral("**Photosynthesis** turns light into sugar."));
        QVERIFY(reply.display->endsWith(QStringLiteral("(Reply 1, about Photosynthesis)")));
        QCOMPARE(*reply.data, QStringLiteral("{\"topic\":\"Photosynthesis\",\"replies\":1}"));

        // After a quiet half hour the timer asks a quiz question, once.
        auto quiet = context();
        quiet.idleSeconds = 3600;
        const auto tick = run(source, CartridgeHook::Tick, *reply.state, {}, quiet);
        QCOMPARE(tick.respond, true);
        QCOMPARE(tick.inject->value(0).text, QStringLiteral("Quiz me with one short question about Photosynthesis."));
        QVERIFY(run(source, CartridgeHook::Tick, *tick.state, {}, quiet) == CartridgeResult());
    }

    void stateRoundTrip()
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

    void failures_data()
    {
        QTest::addColumn<QString>("source");
        QTest::addColumn<QString>("state");
        QTest::addColumn<QString>("error"); // "no error", or a leading '^' to compare only the beginning
        QTest::addColumn<CartridgeHook>("hook");
        const auto turn = CartridgeHook::Turn;
        const auto tick = CartridgeHook::Tick;

        QTest::newRow("thrown Error") << "module.exports = { onTick() { throw new Error('Need a name'); } };"
                                      << QString() << "Script: Need a name" << tick;
        QTest::newRow("thrown text") << "module.exports = { onTick() { throw 'plain words'; } };" << QString()
                                     << "Script: plain words" << tick;
        QTest::newRow("rejected promise") << "module.exports = { onTick: async () => { throw new Error('later'); } };"
                                          << QString() << "Script: later" << tick;
        QTest::newRow("engine error with its line")
            << "// a comment\nmodule.exports = {\n  onTick() { return missing.value; } };" << QString()
            << "Script: ReferenceError: missing is not defined (line 3)" << tick;
        QTest::newRow("syntax error") << "module.exports = {\n  prompt: () => ( };" << QString()
                                      << "^Script: SyntaxError: " << tick;
        QTest::newRow("error while loading") << "throw new TypeError('not ready');" << QString()
                                             << "Script: TypeError: not ready (line 1)" << tick;
        QTest::newRow("too much recursion") << "module.exports = { onTick() { const f = () => f() + 1; return f(); } };"
                                            << QString() << "Script: InternalError: too much recursion (line 1)" << tick;
        QTest::newRow("saved state is not JSON") << "module.exports = { onTick: () => ({}) };" << "{oops"
                                                 << "Script: The saved state is not valid JSON" << tick;
        QTest::newRow("state that JSON cannot hold") << "module.exports = { onTick: () => ({ state: () => 1 }) };"
                                                     << QString() << "Script: state cannot be saved as JSON" << tick;
        QTest::newRow("promise that never settles") << "module.exports = { onTick: () => new Promise(() => {}) };"
                                                    << QString() << "Script: The hook returned a promise that never settled" << tick;
        QTest::newRow("hook returns a number") << "module.exports = { onTick: () => 5 };" << QString()
                                               << "Script: onTick must return an object, not number" << tick;

        // What a hook answered, read and checked.
        const auto check = [](const char *name, CartridgeHook hook, const QString &answer, const QString &error) {
            QTest::newRow(name) << QStringLiteral("module.exports = { prompt: () => (%1), onTick: () => (%1) };").arg(answer)
                                << QString() << error << hook;
        };
        const QString ok = QStringLiteral("no error");
        const QString unread = QStringLiteral("The script's answer could not be read: ");
        const QString emptyPrompt = QStringLiteral("Script: Prompt is empty");
        const QString state = QStringLiteral("Script: state must be under 64 KB as JSON");
        check("display as a number", tick, "{ display: 5 }", unread + "\"display\" must be a string.");
        check("respond as text", tick, "{ respond: 'yes' }", unread + "\"respond\" must be true or false.");
        check("max_tokens with a fraction", tick, "{ max_tokens: 100.5 }", unread + "\"max_tokens\" must be an integer.");
        check("temperature as text", tick, "{ temperature: '0.5' }", unread + "\"temperature\" must be a number.");
        check("turn without prompt", turn, "{}", emptyPrompt);
        check("turn with blank prompt", turn, "{ prompt: \" \\n\\t \" }", emptyPrompt);
        check("tick with blank prompt", tick, "{ prompt: \"  \" }", ok);
        // Bounds are inclusive.
        check("tick_every 86400", tick, "{ tick_every: 86400 }", ok);
        check("tick_every 9.99", tick, "{ tick_every: 9.99 }", "Script: tick_every must be between 10 and 86400 seconds");
        check("next 10", tick, "{ next: 10 }", ok);
        check("next 86401", tick, "{ next: 86401 }", "Script: next must be between 10 and 86400 seconds");
        check("temperature 1.5", tick, "{ temperature: 1.5 }", ok);
        check("temperature -0.01", tick, "{ temperature: -0.01 }", "Script: temperature must be between 0 and 1.5");
        check("max_tokens 64", tick, "{ max_tokens: 64 }", ok);
        check("max_tokens 8193", tick, "{ max_tokens: 8193 }", "Script: max_tokens must be between 64 and 8192");
        // The runner saves a string state as JSON text: two quotes around the characters.
        check("state of 65,536 bytes", tick, "{ state: \"é\".repeat(32767) }", ok);
        check("state of 65,537 bytes", tick, "{ state: \"é\".repeat(32767) + \"a\" }", state);
        check("object state of 65,536 bytes", tick, "{ state: { note: \"😀\".repeat(16381) + \"!\" } }", ok);
        check("object state of 65,537 bytes", tick, "{ state: { note: \"😀\".repeat(16381) + \"!!\" } }", state);
        // The first failing check in order is the one reported.
        check("all wrong", turn, "{ state: \"x\".repeat(70000), tick_every: 1, next: 1, temperature: 2, max_tokens: 1 }",
              emptyPrompt);
    }

    void failures()
    {
        QFETCH(QString, source);
        QFETCH(QString, state);
        QFETCH(QString, error);
        QFETCH(CartridgeHook, hook);
        const QString seen = errorOf([&] { run(source, hook, state); });
        if (error.startsWith(QLatin1Char('^')))
            QVERIFY2(seen.startsWith(error.mid(1)), qPrintable(seen));
        else
            QCOMPARE(seen, error);
    }

    void languageLevel()
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

    void onlyEcmaScriptBuiltIns()
    {
        // No require, read, os, fetch, WebSocket, process or timers: nothing outside the language.
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

    void noConnectionLeaves()
    {
        QTcpServer server;
        QVERIFY(server.listen(QHostAddress::LocalHost));
        const QString url = QStringLiteral("//127.0.0.1:%1/").arg(server.serverPort());
        // Beyond the missing globals: import() reaches neither files nor the network.
        const QString source = QStringLiteral(
            "const tries = [() => fetch('http:%1'), () => new WebSocket('ws:%1'), () => import('/etc/passwd'),"
            "  () => new XMLHttpRequest().open('GET', 'http:%1'), () => import('http:%1')];\n"
            "module.exports = { onTick: async () => { let failed = 0;\n"
            "  for (const attempt of tries) { try { await attempt(); } catch { ++failed; } }\n"
            "  return { display: String(failed) }; } };").arg(url);
        QCOMPARE(run(source, CartridgeHook::Tick).display, QStringLiteral("5"));
        QVERIFY(!server.waitForNewConnection(200));
    }
};

QTEST_GUILESS_MAIN(TestScriptRunner)
#include "tst_script_runner.moc"
