// Replies end to end: AppModel driven as the window drives it, answered by the real
// llama-server on the generated model. Checks what is stored, the status texts, Stop, a
// server that dies mid-reply, the prompt the server receives, and background compaction.
#include "reply_fixture.h"

#include <QJsonArray>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>

#include <csignal>

namespace {

constexpr int s_replyTimeoutMs = 120000;

QStringList rolesOf(const QList<Message> &messages)
{
    QStringList roles;
    for (const Message &m : messages)
        roles << m.role;
    return roles;
}

QStringList contentsOf(const QJsonArray &entries)
{
    QStringList contents;
    for (const QJsonValue &entry : entries)
        contents << entry.toObject().value(QStringLiteral("content")).toString();
    return contents;
}

} // namespace

class TestAppReplies : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void replyIsStreamedAndStored()
    {
        ReplyFixture f;
        const qint64 chat = f.newChat();
        QSignalSpy liveUpdates(&f.session(), &ChatSession::liveReplyChanged);
        f.send(QStringLiteral("  Hello there  \n"));

        // The user's message is stored and shown before the model is even loaded.
        QVERIFY(f.session().isGenerating());
        QCOMPARE(f.session().composer(), QString());
        QCOMPARE(rolesOf(f.session().messages()), QStringList{"user"});
        QCOMPARE(f.session().messages().first().body, QStringLiteral("Hello there"));
        QCOMPARE(f.status(), QStringLiteral("Loading local model…"));

        QTRY_VERIFY_WITH_TIMEOUT(f.idle(), s_replyTimeoutMs);
        f.stopWatching();
        qInfo("longest main-thread gap during the reply: %lld ms", f.longestGapMs);
        QCOMPARE(f.status(), QStringLiteral("Ready"));
        QVERIFY(!f.model->status()->isError());
        QVERIFY(liveUpdates.count() > 0);
        QCOMPARE(f.session().liveReply(), QString());

        const QList<Message> stored = f.db().messages(chat);
        QCOMPARE(rolesOf(stored), (QStringList{"user", "assistant"}));
        QCOMPARE(stored, f.session().messages());
        QVERIFY(stored[0].id < stored[1].id);
        QVERIFY(!stored[1].body.isEmpty());
        QCOMPARE(stored[1].body, stored[1].body.trimmed());
        QVERIFY(QDateTime::fromString(stored[1].createdAt, Qt::ISODate).isValid());

        // The metadata records what the model was sent.
        const QJsonArray sent = f.lastRequestMessages();
        QCOMPARE(sent.first()[QStringLiteral("role")].toString(), QStringLiteral("system"));
        const QVariantMap metadata = f.session().messageMetadata(stored[1].id);
        QCOMPARE(metadata.value("model").toString(), ReplyFixture::modelID);
        QCOMPARE(metadata.value("prompt").toString(), sent.first()[QStringLiteral("content")].toString());
        QCOMPARE(metadata.value("temperature").toDouble(), 0.7);
        QCOMPARE(metadata.value("maxTokens").toLongLong(), 1024);
        QCOMPARE(f.completions.last().value(QStringLiteral("max_tokens")).toInt(), 1024);
        // How fast it came, from the server's own timings.
        QVERIFY2(QRegularExpression(QStringLiteral("^\\d+\\.\\d+ s to first token · \\d+\\.\\d tokens/s$"))
                     .match(metadata.value("speed").toString())
                     .hasMatch(),
                 qPrintable(metadata.value("speed").toString()));
        // What it ran on, as Settings shows it: on a machine without a GPU module, the CPU build
        // llama-server chose.
        QCOMPARE(metadata.value("device").toString(), f.model->compute()->runsOn());
        if (f.model->inference().device() == QLatin1String("none"))
            QVERIFY2(metadata.value("device").toString().startsWith("CPU"), qPrintable(metadata.value("device").toString()));
        // A new chat is named after its first message.
        QCOMPARE(f.tree().chat(chat)->title, QStringLiteral("Hello there"));

        // The status moved through the reply's steps in order.
        QStringList steps = f.statuses;
        steps.removeDuplicates();
        QCOMPARE(steps, (QStringList{"Loading local model…", "Preparing context…", "Generating…", "Ready"}));
    }

    void promptAndHistoryAsSent_data()
    {
        // Each row: stored messages as role|body|image|description, then what the model must
        // be sent after the user types "next".
        QTest::addColumn<QStringList>("rows");
        QTest::addColumn<QString>("promptEnd");
        QTest::addColumn<QStringList>("history");

        QTest::newRow("system messages after the last reply join the prompt")
            << QStringList{"user|hi||", "assistant|hello||", "system|a||", "system|b||"}
            << "\n\na\n\nb" << QStringList{"hi", "hello", "next"};
        QTest::newRow("system messages before the last reply are left out")
            << QStringList{"user|hi||", "system|old||", "assistant|hello||"} << "companion."
            << QStringList{"hi", "hello", "next"};
        QTest::newRow("blank system messages are dropped")
            << QStringList{"user|hi||", "assistant|hello||", "system|  \n||", "system|c||"} << "companion.\n\nc"
            << QStringList{"hi", "hello", "next"};
        QTest::newRow("older images become placeholders")
            << QStringList{"user|look at this|a.jpg|", "user|and this|b.jpg|a red boat", "user||c.jpg|"}
            << "companion."
            << QStringList{"[Image]\n\nlook at this", "[Image: a red boat]\n\nand this", "[Image]", "next"};
    }

    void promptAndHistoryAsSent()
    {
        QFETCH(QStringList, rows);
        QFETCH(QString, promptEnd);
        QFETCH(QStringList, history);

        ReplyFixture f;
        const qint64 chat = f.newChat();
        for (const QString &row : rows) {
            const QStringList fields = row.split(QLatin1Char('|'));
            f.addRow(chat, fields[0], fields[1], fields[2], fields[3]);
        }
        f.tree().selectChat(chat);
        // The title is the user's label, never the model's business.
        f.tree().renameChat(chat, QStringLiteral("Quokkatitle"));
        f.send(QStringLiteral("next"));
        QTRY_VERIFY_WITH_TIMEOUT(f.idle(), s_replyTimeoutMs);
        QCOMPARE(f.status(), QStringLiteral("Ready"));

        QVERIFY(!QJsonDocument(f.completions.last()).toJson().contains("Quokkatitle"));
        const QJsonArray sent = f.lastRequestMessages();
        const QString prompt = sent.first()[QStringLiteral("content")].toString();
        QVERIFY2(prompt.startsWith(QStringLiteral("Your name is Corvane.\n\nYou are a thoughtful, concise companion.")),
                 qPrintable(prompt));
        QVERIFY2(prompt.endsWith(promptEnd), qPrintable(prompt));
        QCOMPARE(contentsOf(sent).mid(1), history);
    }

    void scriptShapesOneReply()
    {
        ReplyFixture f;
        const qint64 chat = f.newChat();
        const QString source = QStringLiteral(
            "module.exports = {\n"
            "  prompt: ({ turn }) => ({ prompt: `Speak like a sailor on turn ${turn}.`, temperature: 1.2,\n"
            "                          max_tokens: 64, agent_name: 'Skipper', state: { turns: turn } }),\n"
            "  onReply: (context, text) => ({ display: `shown ${text.length}`, data: { seen: true } }),\n"
            "};\n");
        f.db().setChatFields({{QStringLiteral("cartridge_source"), source}}, {}, chat);
        f.tree().reload();
        f.send(QStringLiteral("Ahoy"));
        QTRY_VERIFY_WITH_TIMEOUT(f.idle(), s_replyTimeoutMs);
        QCOMPARE(f.status(), QStringLiteral("Ready"));
        QVERIFY(f.statuses.contains(QStringLiteral("Running script…")));

        const QJsonObject request = f.completions.last();
        QCOMPARE(request.value(QStringLiteral("temperature")).toDouble(), 1.2);
        QCOMPARE(request.value(QStringLiteral("max_tokens")).toInt(), 64);
        const QString prompt = request.value(QStringLiteral("messages")).toArray().first()[QStringLiteral("content")].toString();
        QVERIFY2(prompt.contains(QStringLiteral("\n\nSpeak like a sailor on turn 1.")), qPrintable(prompt));
        QVERIFY2(prompt.startsWith(QStringLiteral("Your name is Skipper.")), qPrintable(prompt));

        const Message reply = f.db().messages(chat).last();
        QCOMPARE(reply.role, QStringLiteral("assistant"));
        QCOMPARE(reply.display, QStringLiteral("shown %1").arg(reply.body.size()));
        QCOMPARE(reply.data, QStringLiteral("{\"seen\":true}"));
        QCOMPARE(f.db().cartridgeState(source, chat), QStringLiteral("{\"turns\":1}"));
        // The script's settings were for that reply only.
        QCOMPARE(f.model->settings()->temperature(), 0.7);
        QCOMPARE(f.model->settings()->maxResponseTokens(), 1024);
    }

    void stopEndsTheReplyAndKeepsTheServer()
    {
        ReplyFixture f;
        const qint64 chat = f.newChat();
        f.model->settings()->setMaxResponseTokens(2048);
        f.send(QStringLiteral("Tell me a long story"));
        QTRY_VERIFY_WITH_TIMEOUT(!f.session().liveReply().isEmpty(), s_replyTimeoutMs);
        f.session().stopReply();
        QTRY_VERIFY_WITH_TIMEOUT(f.idle(), 5000);
        QCOMPARE(f.status(), QStringLiteral("Stopped"));
        QVERIFY(!f.model->status()->isError());
        QCOMPARE(f.session().liveReply(), QString());
        QCOMPARE(rolesOf(f.db().messages(chat)), QStringList{"user"});

        // The next message is answered by the same server.
        const qint64 server = f.model->inference().serverProcessID();
        f.send(QStringLiteral("Shorter, please"));
        QTRY_VERIFY_WITH_TIMEOUT(f.idle(), s_replyTimeoutMs);
        QCOMPARE(f.status(), QStringLiteral("Ready"));
        QCOMPARE(f.model->inference().serverProcessID(), server);
        QCOMPARE(rolesOf(f.db().messages(chat)), (QStringList{"user", "user", "assistant"}));
    }

    void serverDeathMidReplyKeepsTheMessage()
    {
        ReplyFixture f;
        const qint64 chat = f.newChat();
        f.model->settings()->setMaxResponseTokens(2048);
        f.send(QStringLiteral("Keep talking"));
        QTRY_VERIFY_WITH_TIMEOUT(!f.session().liveReply().isEmpty(), s_replyTimeoutMs);
        ::kill(static_cast<pid_t>(f.model->inference().serverProcessID()), SIGKILL);
        QTRY_VERIFY_WITH_TIMEOUT(f.idle(), 30000);
        QVERIFY(f.model->status()->isError());
        QVERIFY(!f.status().isEmpty());
        QCOMPARE(rolesOf(f.db().messages(chat)), QStringList{"user"});
        QCOMPARE(rolesOf(f.session().messages()), QStringList{"user"});

        // The next reply starts a new server.
        f.send(QStringLiteral("Are you back?"));
        QTRY_VERIFY_WITH_TIMEOUT(f.idle(), s_replyTimeoutMs);
        QCOMPARE(f.status(), QStringLiteral("Ready"));
        QCOMPARE(rolesOf(f.db().messages(chat)), (QStringList{"user", "user", "assistant"}));
    }

    // Regenerate and edit-and-resend replace the reply only once a new one is stored; Stop or
    // a dead server leave the chat as it was (the edited words excepted: they are the user's).
    void revisingTheLastTurn_data()
    {
        QTest::addColumn<bool>("edit");
        QTest::addColumn<QString>("ending");
        for (const bool edit : {false, true})
            for (const char *ending : {"finishes", "stopped", "server killed"})
                QTest::addRow("%s, %s", edit ? "edit" : "regenerate", ending) << edit << QString::fromLatin1(ending);
    }

    void revisingTheLastTurn()
    {
        QFETCH(bool, edit);
        QFETCH(QString, ending);
        ReplyFixture f;
        const qint64 chat = f.newChat();
        f.model->settings()->setMaxResponseTokens(24);
        f.send(QStringLiteral("First question"));
        QTRY_VERIFY_WITH_TIMEOUT(f.idle(), s_replyTimeoutMs);
        // Long enough for the second reply to be caught mid-way.
        if (ending != QLatin1String("finishes"))
            f.model->settings()->setMaxResponseTokens(2048);
        const QList<Message> before = f.db().messages(chat);
        QCOMPARE(rolesOf(before), (QStringList{"user", "assistant"}));
        QCOMPARE(f.session().regenerableMessageID(), before[1].id);
        QCOMPARE(f.session().editableMessageID(), before[0].id);

        if (edit) {
            f.session().setComposer(QStringLiteral("a draft"));
            f.session().startEditing();
            QCOMPARE(f.session().composer(), QStringLiteral("First question"));
            f.send(QStringLiteral("Second thoughts"));
            // The draft comes back, and the edit is stored before the reply starts.
            QCOMPARE(f.session().composer(), QStringLiteral("a draft"));
            QCOMPARE(f.db().messages(chat).first().body, QStringLiteral("Second thoughts"));
            QCOMPARE(f.tree().chat(chat)->title, QStringLiteral("First question"));
        } else {
            f.session().regenerate();
        }
        QVERIFY(f.session().isGenerating());
        QVERIFY(!f.session().canRegenerate());
        QTRY_VERIFY_WITH_TIMEOUT(!f.session().liveReply().isEmpty() || f.idle(), s_replyTimeoutMs);
        // The model answers the user's message again, without the reply being replaced.
        const QStringList sent = contentsOf(f.lastRequestMessages());
        QCOMPARE(sent.mid(1), QStringList{edit ? "Second thoughts" : "First question"});
        QCOMPARE(f.db().messages(chat).size(), 2);

        if (ending == QLatin1String("stopped"))
            f.session().stopReply();
        else if (ending == QLatin1String("server killed"))
            ::kill(static_cast<pid_t>(f.model->inference().serverProcessID()), SIGKILL);
        QTRY_VERIFY_WITH_TIMEOUT(f.idle(), s_replyTimeoutMs);

        const QList<Message> after = f.db().messages(chat);
        QCOMPARE(f.session().messages(), after);
        QCOMPARE(rolesOf(after), (QStringList{"user", "assistant"}));
        QCOMPARE(after[0].id, before[0].id);
        if (ending == QLatin1String("finishes")) {
            QVERIFY2(!f.model->status()->isError(), qPrintable(f.status()));
            QVERIFY(after[1].id > before[1].id);
            QCOMPARE(f.session().regenerableMessageID(), after[1].id);
        } else {
            QCOMPARE(after[1], before[1]);
            QCOMPARE(f.model->status()->isError(), ending == QLatin1String("server killed"));
        }
    }

    void quittingMidReplyEndsCleanly_data()
    {
        QTest::addColumn<bool>("streaming");
        QTest::newRow("while the server starts") << false;
        QTest::newRow("while the reply streams") << true;
    }

    void quittingMidReplyEndsCleanly()
    {
        QFETCH(bool, streaming);
        ReplyFixture f;
        f.newChat();
        f.model->settings()->setMaxResponseTokens(2048);
        f.send(QStringLiteral("Keep going"));
        if (streaming)
            QTRY_VERIFY_WITH_TIMEOUT(!f.session().liveReply().isEmpty(), s_replyTimeoutMs);
        const qint64 server = f.model->inference().serverProcessID();
        f.model.reset();
        // Whatever was still waiting wakes up to nothing and the server is gone.
        QTest::qWait(500);
        if (server > 0)
            QTRY_VERIFY(::kill(static_cast<pid_t>(server), 0) != 0);
    }

    void refusalsStoreNothing()
    {
        ReplyFixture f;
        const qint64 chat = f.newChat();
        f.send(QStringLiteral(" \n\t "));
        QVERIFY(!f.session().isGenerating());
        QVERIFY(!f.session().canSend());
        QVERIFY(f.db().messages(chat).isEmpty());

        f.model->models()->remove(ReplyFixture::modelID);
        f.send(QStringLiteral("Hello?"));
        QCOMPARE(f.status(), QStringLiteral("Install a chat model in Settings first"));
        QVERIFY(f.model->status()->isError());
        QVERIFY(f.db().messages(chat).isEmpty());
    }

    void longChatIsCompacted()
    {
        ReplyFixture f;
        f.model->settings()->setContextTokens(4096);
        const qint64 chat = f.newChat();
        // About 3,500 tokens of older conversation: past the 2,280 that start a compaction at
        // 4,096 context tokens with replies of up to 1,024.
        QList<qint64> ids;
        for (int i = 0; i < 60; ++i)
            ids << f.addRow(chat, i % 2 ? QStringLiteral("assistant") : QStringLiteral("user"),
                            QStringLiteral("Marker %1: the garden by the river has tall reeds, old stones and "
                                           "a path that winds toward the mill. Swallows nest under the bridge "
                                           "every spring, and the miller counts them.")
                                .arg(i));
        f.tree().selectChat(chat);
        f.send(QStringLiteral("What did we talk about?"));
        QTRY_VERIFY_WITH_TIMEOUT(f.idle(), s_replyTimeoutMs);
        QCOMPARE(f.status(), QStringLiteral("Ready"));
        QTRY_VERIFY_WITH_TIMEOUT(!f.db().chatSummary(chat).first.isEmpty(), s_replyTimeoutMs);

        const auto [summary, through] = f.db().chatSummary(chat);
        QVERIFY(through >= ids.first() && through < ids.last());
        QCOMPARE(f.db().messages(chat).size(), 62); // nothing deleted

        // The next reply carries the summary and only what came after it.
        f.send(QStringLiteral("And then?"));
        QTRY_VERIFY_WITH_TIMEOUT(f.idle(), s_replyTimeoutMs);
        const QJsonArray sent = f.lastRequestMessages();
        const QString prompt = sent.first()[QStringLiteral("content")].toString();
        QVERIFY(prompt.endsWith(QStringLiteral("\n\nSummary of the earlier conversation:\n") + summary));
        const int lastFolded = int(ids.indexOf(through));
        for (const QString &content : contentsOf(sent).mid(1)) {
            for (int i = 0; i <= lastFolded; ++i)
                QVERIFY2(!content.startsWith(QStringLiteral("Marker %1:").arg(i)), qPrintable(content));
        }
    }
};

QTEST_MAIN(TestAppReplies)
#include "tst_app_replies.moc"
