// The search pane as the user meets it: opened from the keyboard, searching as one types,
// the scope, a hit that opens its chat at the message, and Escape back to where one was. Also
// the hits' list model and how a snippet's marked words are drawn. Pictures go to
// build/test-output/.
#include "message_list_model.h"
#include "search_hit_list_model.h"
#include "storage/database.h"
#include "support/database_rows.h"
#include "window_test_support.h"

#include <QAbstractItemModelTester>
#include <QQmlExtensionPlugin>

Q_IMPORT_QML_PLUGIN(CorvanePlugin)

class TestSearchWindow : public WindowTest
{
    Q_OBJECT

private:
    qint64 m_plans = -1;
    qint64 m_other = -1;
    qint64 m_found = -1; ///< the one message in Plans with the word

    Search &search() { return *m_model->search(); }
    QQuickItem *hitList() { return findItem(m_window, "searchHits"); }
    int hitCount() { return hitList()->property("count").toInt(); }
    bool searching() { return object("searchPane") && object("searchPane")->property("visible").toBool(); }

    QString hitName(int row)
    {
        auto *model = qobject_cast<SearchHitListModel *>(hitList()->property("model").value<QObject *>());
        return model->data(model->index(row), SearchHitListModel::AccessibleTextRole).toString();
    }


    void typeTerm(const QString &term)
    {
        QTest::keySequence(m_window, QKeySequence(QStringLiteral("Ctrl+A")));
        type(term);
        QTRY_COMPARE(search().term(), term);
        QTRY_VERIFY(!search().isSearching());
    }

private Q_SLOTS:
    void initTestCase()
    {
        useScratchData();
        m_model = std::make_unique<AppModel>();
        ChatTree *tree = m_model->tree();
        const qint64 work = tree->addFolder(-1);
        tree->renameNode(work, "Work");
        tree->addChat(work);
        m_plans = tree->selectedChatID();
        tree->renameChat(m_plans, "Plans");
        Database &db = m_model->database();
        // A long chat, so that opening the hit has to scroll far from the end.
        db.execute("BEGIN");
        for (int i = 0; i < 300; ++i) {
            const qint64 id = addMessage(db, m_plans, i == 20 ? QStringLiteral("We met a zephyrine fox at the old mill, by the river.")
                                                              : QStringLiteral("Line %1 of the plan.").arg(i));
            if (i == 20)
                m_found = id;
        }
        db.execute("COMMIT");
        tree->addChat(tree->nodes().first().id);
        m_other = tree->selectedChatID();
        tree->renameChat(m_other, "Zephyrine notes");

        showWindow();
        m_window->setProperty("skippedSetup", true);
        QTRY_VERIFY(findItem(m_window, "chatPane"));
    }

    void escapeGoesBackToWhereTheUserWas()
    {
        QTest::keySequence(m_window, QKeySequence(QStringLiteral("Ctrl+L")));
        QTRY_VERIFY(m_window->activeFocusItem());
        QQuickItem *before = m_window->activeFocusItem();
        QTest::keySequence(m_window, QKeySequence(QStringLiteral("Ctrl+F")));
        QTRY_VERIFY(searching());
        QVERIFY(findItem(m_window, "searchField")->hasActiveFocus());
        QTest::keyClick(m_window, Qt::Key_Escape);
        QTRY_VERIFY(!searching());
        QCOMPARE(m_window->activeFocusItem(), before);
        QCOMPARE(m_model->tree()->selectedChatID(), m_other);
    }

    void hitsFollowTheTermAndTheScope()
    {
        QTest::keySequence(m_window, QKeySequence(QStringLiteral("Ctrl+K")));
        QTRY_VERIFY(searching());
        typeTerm("zephyr");
        QCOMPARE(hitCount(), 2);
        QCOMPARE(hitName(0), "Zephyrine notes: Chat title");
        QCOMPARE(hitName(1), "Plans: We met a zephyrine fox at the old mill, by the river.");
        savePicture("search-pane.png");
        // The chat behind the search is not read out.
        QAccessible::setActive(true);
        QCOMPARE(hiddenAccessibleItems(m_window), QStringList());

        // The search began in the Inbox: its scope leaves Work's chat out.
        QCOMPARE(search().scopeName(), "Inbox");
        click("searchThisFolder");
        QTRY_VERIFY(!search().searchAll());
        QTRY_COMPARE(hitCount(), 1);
        click("searchAllChats");
        findItem(m_window, "searchField")->forceActiveFocus();
        QTRY_COMPARE(hitCount(), 2);

        typeTerm("zephyrine fix");
        QCOMPARE(hitCount(), 0);
        QVERIFY(object("noSearchHits")->property("visible").toBool());
        typeTerm("zephyrine fox");
        QCOMPARE(hitCount(), 1);
    }

    void aHitOpensItsChatAtTheMessage()
    {
        QVERIFY(searching());
        typeTerm("mill");
        QTest::keyClick(m_window, Qt::Key_Down);
        QTest::keyClick(m_window, Qt::Key_Return);
        QTRY_VERIFY(!searching());
        QCOMPARE(m_model->tree()->selectedChatID(), m_plans);

        QQuickItem *list = findItem(m_window, "messageList");
        auto *messages = qobject_cast<MessageListModel *>(list->property("model").value<QObject *>());
        const int row = messages->rowOf(m_found);
        QCOMPARE(list->property("currentIndex").toInt(), row);
        QQuickItem *item = nullptr;
        QTRY_VERIFY(QMetaObject::invokeMethod(list, "itemAtIndex", Q_RETURN_ARG(QQuickItem *, item), Q_ARG(int, row)) && item);
        // On screen, and marked.
        const QRectF shownArea = list->mapRectToScene(QRectF(0, 0, list->width(), list->height()));
        QTRY_VERIFY(shownArea.intersects(item->mapRectToScene(QRectF(0, 0, item->width(), item->height()))));
        QVERIFY(item->property("isFound").toBool());
        savePicture("search-opened-hit.png", 100);
        QTRY_VERIFY_WITH_TIMEOUT(!item->property("isFound").toBool(), 5000);
    }

    void hitModelUnderTheModelTester()
    {
        SearchHitListModel model;
        QAbstractItemModelTester tester(&model, QAbstractItemModelTester::FailureReportingMode::QtTest);
        model.setSource(&search());
        search().setTerm("plan");
        QTRY_VERIFY(model.rowCount() > 10);
        QCOMPARE(model.messageIDAt(0) > 0 || model.chatIDAt(0) == m_plans, true);
        search().setTerm(" ");
        QTRY_COMPARE(model.rowCount(), 0);
    }

    void highlightedSnippet_data()
    {
        QTest::addColumn<QString>("snippet");
        QTest::addColumn<QString>("expected");
        const QString on = "<b><font color=\"#ff0000\">";
        const QString off = "</font></b>";
        QTest::newRow("starts with a match") << "\x02" "fox\x03 runs" << on + "fox" + off + " runs";
        QTest::newRow("markup is text") << "<i>\x02" "a&b\x03</i>" << "&lt;i&gt;" + on + "a&amp;b" + off + "&lt;/i&gt;";
        QTest::newRow("no match") << "Chat title" << "Chat title";
        QTest::newRow("line breaks") << "one\ntwo" << "one two";
    }

    void highlightedSnippet()
    {
        QFETCH(QString, snippet);
        QFETCH(QString, expected);
        QCOMPARE(SearchHitListModel::highlightedSnippet(snippet, QColor(Qt::red)), expected);
    }
};

QTEST_MAIN(TestSearchWindow)
#include "tst_search_window.moc"
