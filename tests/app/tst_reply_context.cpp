// The rules by which stored messages become a summary's transcript and what a reply still sends.
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
