// Record hashes notice a change in any one field. (The transcript text is checked where the
// application builds the history it sends.)
#include "storage/records.h"

#include <QTest>

class TestRecords : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void hashesNoticeAChangeInOneField()
    {
        // A hash that skipped a field would let a view keep showing the old record.
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
        for (const Chat &changed : {moved, inherited, shifted})
            QVERIFY(qHash(changed, 5) != qHash(chat, 5));

        Node top;
        top.name = "Inbox";
        Node child = top;
        child.parentID = 0;
        QVERIFY(qHash(child) != qHash(top));
        Message shown;
        shown.body = "hi";
        Message hidden = shown;
        hidden.hidden = true;
        QVERIFY(qHash(hidden) != qHash(shown));
    }
};

QTEST_GUILESS_MAIN(TestRecords)
#include "tst_records.moc"
