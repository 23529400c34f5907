// The rules by which stored messages become a summary's transcript and a compaction's limits.
#include "app/reply_context.h"

#include <QTest>

using ReplyContext::CompactionLimits;

Q_DECLARE_METATYPE(CompactionLimits)

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
    void compactionLimits_data()
    {
        QTest::addColumn<qint64>("context");
        QTest::addColumn<qint64>("reply");
        QTest::addColumn<CompactionLimits>("expected");
        QTest::newRow("4K context, 1,024 reply")
            << qint64(4096) << qint64(1024)
            << CompactionLimits{.budget = 3040, .trigger = 2280, .keep = 1216, .fold = 1520, .summary = 380};
        QTest::newRow("64K context: the summary limit caps at 1,024")
            << qint64(65536) << qint64(300)
            << CompactionLimits{.budget = 65204, .trigger = 48903, .keep = 26081, .fold = 32602, .summary = 1024};
        QTest::newRow("odd budget rounds down") << qint64(4096) << qint64(2049)
                                                << CompactionLimits{.budget = 2015, .trigger = 1511, .keep = 806,
                                                                    .fold = 1007, .summary = 251};
    }

    void compactionLimits()
    {
        QFETCH(qint64, context);
        QFETCH(qint64, reply);
        QFETCH(CompactionLimits, expected);
        QCOMPARE(CompactionLimits::of(context, reply), expected);
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
