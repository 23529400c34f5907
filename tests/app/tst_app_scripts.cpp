// Scripts acting on their own, through the real runner: the timer on a clock of the test's own
// (its delays, ticks skipped while the user types, a tick dropped when the chat changed, errors),
// and what a reply hook does after a reply with the real model: messages it adds, the replies it
// asks for and their bound.
#include "app/script_timer.h"
#include "reply_fixture.h"

#include <QCoro/QCoroSignal>
#include <sqlite3.h>
#include <QSignalSpy>
#include <QTest>

namespace {

constexpr int s_replyTimeoutMs = 120000;

/// The timer's clock: it records every delay asked for and lets each pass when told to.
class FakeClock : public QObject
{
    Q_OBJECT

public:
    ScriptTimer::Sleep sleep()
    {
        return [this](std::chrono::milliseconds delay) -> QCoro::Task<> {
            delays << qint64(delay.count());
            co_await qCoro(this, &FakeClock::advanced);
        };
    }
    /// Lets the pending delay pass.
    void advance() { Q_EMIT advanced(); }

    QList<qint64> delays;

Q_SIGNALS:
    void advanced();
};

} // namespace

class TestAppScripts : public QObject
{
    Q_OBJECT

private:
    static QStringList bodies(ReplyFixture &f, qint64 chat)
    {
        QStringList result;
        for (const Message &message : f.db().messages(chat))
            result << message.role + ": " + message.body;
        return result;
    }

    /// A chat running `source`, selected, its timer on `clock`.
    static qint64 chatWithScript(ReplyFixture &f, FakeClock &clock, const QString &source)
    {
        f.model->scriptTimer().setSleep(clock.sleep());
        const qint64 chat = f.newChat();
        f.db().setChatFields({{QStringLiteral("cartridge_source"), source}}, {}, chat);
        f.tree().reload();
        f.tree().selectChat(chat);
        return chat;
    }

private Q_SLOTS:
    void ticksKeepTheirPeriodAndSkipWhileTyping()
    {
        ReplyFixture f;
        FakeClock clock;
        const qint64 chat = chatWithScript(f, clock, QStringLiteral(
            "module.exports = {\n"
            "  prompt: 'p', tickEvery: 10,\n"
            "  onTick: ({ state }) => {\n"
            "    const n = (state ?? 0) + 1;\n"
            "    return { state: n, inject: [{ role: 'system', text: `tick ${n}` }], next: n === 1 ? 30 : null };\n"
            "  },\n"
            "};\n"));
        QSignalSpy ticked(&f.model->scriptTimer(), &ScriptTimer::ticked);
        QTRY_COMPARE(clock.delays, QList<qint64>{10000});
        clock.advance();
        QTRY_COMPARE(ticked.size(), 1);
        // The first tick asked for 30 s once; then the period applies again.
        QTRY_COMPARE(clock.delays, (QList<qint64>{10000, 30000}));
        f.session().setComposer(QStringLiteral("half a thought"));
        clock.advance();
        QTRY_COMPARE(clock.delays.size(), 3);
        QCOMPARE(clock.delays.last(), 10000);
        f.session().setComposer(QString());
        clock.advance();
        QTRY_COMPARE(ticked.size(), 2);
        QCOMPARE(bodies(f, chat), (QStringList{"system: tick 1", "system: tick 2"}));
        // The injected messages show at once, marked as the script's.
        QCOMPARE(f.session().messages().size(), 2);
        sqlite3_stmt *statement = nullptr;
        QCOMPARE(sqlite3_prepare_v2(f.db().handle(), "SELECT DISTINCT metadata FROM messages", -1, &statement, nullptr), SQLITE_OK);
        QCOMPARE(sqlite3_step(statement), SQLITE_ROW);
        QCOMPARE(QByteArray(reinterpret_cast<const char *>(sqlite3_column_text(statement, 0))), "{\"source\":\"cartridge\"}");
        QCOMPARE(sqlite3_step(statement), SQLITE_DONE);
        sqlite3_finalize(statement);
    }

    void aTickForAChatNoLongerOpenIsDropped()
    {
        ReplyFixture f;
        FakeClock clock;
        const qint64 first = chatWithScript(f, clock, QStringLiteral(
            "module.exports = { prompt: 'p', tickEvery: 10,\n"
            "  onTick: () => { const end = Date.now() + 300; while (Date.now() < end) {}\n"
            "                  return { inject: [{ role: 'system', text: 'late' }] }; } };\n"));
        QTRY_COMPARE(clock.delays.size(), 1);
        clock.advance(); // the tick runs for 300 ms
        const qint64 second = f.newChat(); // and meanwhile another chat is opened
        QTest::qWait(800);
        QCOMPARE(bodies(f, first), QStringList());
        QCOMPARE(f.tree().selectedChatID(), second);
        QVERIFY(!f.model->scriptTimer().isRunning()); // the new chat has no script
    }

    void timersWithoutPeriodOrWithErrors_data()
    {
        QTest::addColumn<QString>("source");
        QTest::addColumn<QString>("status");
        QTest::newRow("no tickEvery: no timer, whatever onTick says")
            << "module.exports = { prompt: 'p', onTick: () => ({ next: 10 }) };" << "";
        QTest::newRow("an info hook that throws")
            << "module.exports = { prompt: 'p', tickEvery: 10, info: () => { throw new Error('No clock here'); } };"
            << "Script: No clock here";
        QTest::newRow("a period out of bounds")
            << "module.exports = { prompt: 'p', tickEvery: 5 };" << "Script: tick_every must be between 10 and 86400 seconds";
    }

    void timersWithoutPeriodOrWithErrors()
    {
        QFETCH(QString, source);
        QFETCH(QString, status);
        ReplyFixture f;
        FakeClock clock;
        chatWithScript(f, clock, source);
        QTRY_VERIFY(!f.model->scriptTimer().isRunning());
        QCOMPARE(clock.delays, QList<qint64>());
        QCOMPARE(f.model->status()->isError(), !status.isEmpty());
        if (!status.isEmpty())
            QCOMPARE(f.status(), status);
    }

    void repliesAScriptAsksForAreBounded()
    {
        ReplyFixture f;
        FakeClock clock;
        const qint64 chat = chatWithScript(f, clock, QStringLiteral(
            "module.exports = {\n"
            "  prompt: () => ({ prompt: 'Answer briefly.', max_tokens: 64 }),\n"
            "  onReply: () => ({ inject: [{ role: 'user', text: 'Go on' }], respond: true }),\n"
            "};\n"));
        f.send(QStringLiteral("Tell me a story"));
        QTRY_COMPARE_WITH_TIMEOUT(f.status(), QStringLiteral("Script paused until you reply"), s_replyTimeoutMs);
        QTRY_VERIFY(f.idle());
        // Your message, its reply, then four rounds the script asked for; the fifth waits.
        QStringList roles;
        for (const Message &message : f.db().messages(chat))
            roles << message.role;
        QCOMPARE(roles.count("assistant"), 5);
        QCOMPARE(roles.count("user"), 6);
        QCOMPARE(roles.last(), "user");
    }

    void aFailingScriptKeepsTheMessageAndTheState_data()
    {
        QTest::addColumn<QString>("turn");
        QTest::addColumn<QString>("status");
        QTest::newRow("throws") << "() => { throw new Error('No topic yet'); }" << "Script: No topic yet";
        QTest::newRow("loops") << "() => { for (;;) {} }" << "The script exceeded its execution time limit.";
        QTest::newRow("answers megabytes") << "() => 'x'.repeat(1 << 20)" << "The script runner returned an invalid result.";
        QTest::newRow("a wrong type") << "() => ({ prompt: 'p', max_tokens: 'many' })"
                                      << "The script's answer could not be read: \"max_tokens\" must be a number.";
        QTest::newRow("out of bounds") << "() => ({ prompt: 'p', temperature: 1.51, state: 'lost' })"
                                       << "Script: temperature must be between 0 and 1.5";
    }

    void aFailingScriptKeepsTheMessageAndTheState()
    {
        QFETCH(QString, turn);
        QFETCH(QString, status);
        ReplyFixture f;
        FakeClock clock;
        const QString source = QStringLiteral("module.exports = { prompt: %1 };").arg(turn);
        const qint64 chat = chatWithScript(f, clock, source);
        f.db().setCartridgeState(QStringLiteral("{\"kept\":true}"), source, chat);
        f.send(QStringLiteral("Hello"));
        QTRY_VERIFY_WITH_TIMEOUT(f.idle(), s_replyTimeoutMs);
        QCOMPARE(f.status(), status);
        QVERIFY(f.model->status()->isError());
        QCOMPARE(bodies(f, chat), QStringList{"user: Hello"});
        QCOMPARE(f.db().cartridgeState(source, chat), QStringLiteral("{\"kept\":true}"));
        QVERIFY(f.completions.isEmpty()); // the model was never asked
    }

    void askingForAReplyWithNothingToAnswerIsAnError()
    {
        ReplyFixture f;
        FakeClock clock;
        const qint64 chat = chatWithScript(f, clock, QStringLiteral(
            "module.exports = { prompt: () => ({ prompt: 'p', max_tokens: 64 }), onReply: () => ({ respond: true }) };"));
        f.send(QStringLiteral("Hello"));
        QTRY_VERIFY_WITH_TIMEOUT(f.model->status()->isError(), s_replyTimeoutMs);
        QCOMPARE(f.status(), "Script: respond needs a user message injected after the agent's last reply");
        // The reply it came with is kept.
        QCOMPARE(f.db().messages(chat).size(), 2);
    }
};

QTEST_MAIN(TestAppScripts)
#include "tst_app_scripts.moc"
