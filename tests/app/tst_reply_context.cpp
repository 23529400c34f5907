// The rules by which stored messages become a summary's transcript, what a reply still sends,
// and the title a chat takes from its first message.
#include "app/chat_session.h"
#include "app/reply_context.h"

#include <QTest>

namespace {

Message message(const QString &role, const QString &body, bool hidden = false, const QString &image = {},
                const QString &description = {})
{
    Message m;
    m.role = role;
    m.body = body;
    m.hidden = hidden;
    m.image = image;
    m.imageDescription = description;
    return m;
}

} // namespace

class TestReplyContext : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void titleFromFirstMessage_data()
    {
        QTest::addColumn<QString>("message");
        QTest::addColumn<QString>("title");
        QTest::newRow("short") << "How do magnets work?" << "How do magnets work?";
        QTest::newRow("first line with text, spaces collapsed") << "\n  \n  Plan\tthe   trip \nDay one…" << "Plan the trip";
        QTest::newRow("long: cut at a word")
            << "Please summarise the following article about the history of the printing press in Europe"
            << "Please summarise the following article about the history of…";
        QTest::newRow("one long word: cut where it must")
            << QString(80, QLatin1Char('x')) << QString(59, QLatin1Char('x')) + QStringLiteral("…");
        QTest::newRow("only blanks") << " \n\t " << "";
    }

    void titleFromFirstMessage()
    {
        QFETCH(QString, message);
        QFETCH(QString, title);
        QCOMPARE(ChatSession::titleFromMessage(message), title);
        QVERIFY(title.size() <= ChatSession::maxTitleLength);
    }

    void transcript()
    {
        const QList<Message> messages{
            message("user", "Hi"),
            message("assistant", "Hello"),
            message("user", "Look", false, "a.jpg", "a cat"),
            message("assistant", "A note from a script", true),
            message("system", "Be brief"),
            message("user", "", false, "b.jpg"),
        };
        QCOMPARE(ReplyContext::transcript(messages),
                 QStringLiteral("User: Hi\n\nAssistant: Hello\n\nUser: [Image: a cat]\n\nLook\n\n"
                                "Note: A note from a script\n\nAssistant: Be brief\n\nUser: [Image]"));
    }

    void unsummarizedLeavesOutSystemAndCoveredMessages()
    {
        QList<Message> messages;
        for (int i = 1; i <= 5; ++i) {
            messages << message(i == 4 ? "system" : "user", QString::number(i));
            messages.last().id = i;
        }
        QStringList bodies;
        for (const Message &m : ReplyContext::unsummarized(messages, 2))
            bodies << m.body;
        QCOMPARE(bodies, (QStringList{"3", "5"}));
    }
};

QTEST_GUILESS_MAIN(TestReplyContext)
#include "tst_reply_context.moc"
