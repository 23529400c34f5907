// Replies whose text the real model cannot be made to produce, answered by the stand-in
// llama-server: white space only, and text with white space around it.
#include "reply_fixture.h"

#include <QTest>

class TestAppRepliesFakeRuntime : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void replyTextIsTrimmedWithFakeServer_data()
    {
        QTest::addColumn<QString>("pieces");
        QTest::addColumn<QString>("stored");
        QTest::newRow("white space only stores nothing") << " |\n|\t \n" << "";
        QTest::newRow("surrounding white space is trimmed") << "\n  Hello|, world| \n" << "Hello, world";
    }

    void replyTextIsTrimmedWithFakeServer()
    {
        QFETCH(QString, pieces);
        QFETCH(QString, stored);
        qputenv("CORVANE_FAKE_REPLY", pieces.toUtf8());
        ReplyFixture f;
        const qint64 chat = f.newChat();
        f.send(QStringLiteral("Say something"));
        QTRY_VERIFY_WITH_TIMEOUT(f.idle(), 30000);
        QCOMPARE(f.status(), QStringLiteral("Ready"));
        QVERIFY(!f.model->status()->isError());

        const QList<Message> messages = f.db().messages(chat);
        QCOMPARE(f.session().messages(), messages);
        QCOMPARE(messages.first().body, QStringLiteral("Say something"));
        if (stored.isEmpty()) {
            QCOMPARE(messages.size(), 1);
        } else {
            QCOMPARE(messages.size(), 2);
            QCOMPARE(messages.last().body, stored);
        }
    }
};

QTEST_MAIN(TestAppRepliesFakeRuntime)
#include "tst_app_replies_fake_runtime.moc"
