// What records promise beyond holding fields: the transcript text, and equality and hashing
// that notice a change in any one field.
#include "storage/records.h"

#include <QTest>

class TestRecords : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void transcriptText_data()
    {
        QTest::addColumn<QString>("body");
        QTest::addColumn<QString>("image");
        QTest::addColumn<QString>("description");
        QTest::addColumn<QString>("expected");
        QTest::newRow("no image: body, description ignored") << "hello" << "" << "a cat" << "hello";
        QTest::newRow("image without description") << "hi" << "a.jpg" << "" << "[Image]\n\nhi";
        QTest::newRow("image with description") << "hi" << "a.jpg" << "a cat" << "[Image: a cat]\n\nhi";
        QTest::newRow("image only") << "" << "a.jpg" << "a cat" << "[Image: a cat]";
        QTest::newRow("bare image") << "" << "a.jpg" << "" << "[Image]";
    }

    void transcriptText()
    {
        QFETCH(QString, body);
        QFETCH(QString, image);
        QFETCH(QString, description);
        QFETCH(QString, expected);
        Message message;
        message.body = body;
        message.image = image;
        message.imageDescription = description;
        QCOMPARE(message.transcriptText(), expected);
    }

    void aChangeInOneFieldIsNoticed()
    {
        // Equality and the hash must both see every field; a hash that skipped one would let
        // a view keep showing the old record.
        Chat chat;
        chat.id = 7;
        chat.title = "Trip";
        chat.summaryThroughID = 40;
        Chat moved = chat;
        moved.summaryThroughID = 41;
        Chat inherited = chat;
        inherited.cartridgeFolderID = 0; // 0 is not absent
        Chat shifted = chat; // the same text in a neighbouring field
        shifted.prompt = shifted.title;
        shifted.title.clear();
        for (const Chat &changed : {moved, inherited, shifted}) {
            QVERIFY(!(changed == chat));
            QVERIFY(qHash(changed, 5) != qHash(chat, 5));
        }
        QCOMPARE(qHash(Chat(chat), 5), qHash(chat, 5));

        Node top;
        top.id = 1;
        top.name = "Inbox";
        Node child = top;
        child.parentID = 0;
        QVERIFY(!(child == top) && qHash(child) != qHash(top));

        Message shown;
        shown.id = 3;
        shown.body = "hi";
        Message hidden = shown;
        hidden.hidden = true;
        QVERIFY(!(hidden == shown) && qHash(hidden) != qHash(shown));
    }
};

QTEST_GUILESS_MAIN(TestRecords)
#include "tst_records.moc"
