// The chat pane's rows on a real AppModel and database: what each row shows, that new
// messages are inserted rather than the list rebuilt, and where the summary marker sits.
#include "app/app_model.h"
#include "message_list_model.h"
#include "storage/database.h"
#include "support/database_rows.h"

#include <QAbstractItemModelTester>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

class TestMessageListModel : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<AppModel> m_app;
    std::unique_ptr<MessageListModel> m_list;
    std::unique_ptr<QAbstractItemModelTester> m_tester;
    qint64 m_chat = 0;
    QList<qint64> m_messageIDs;

    Database &db() { return m_app->database(); }

    QStringList texts() const
    {
        QStringList result;
        for (int i = 0; i < m_list->rowCount(); ++i)
            result.append(m_list->index(i).data(MessageListModel::TextRole).toString());
        return result;
    }

private Q_SLOTS:
    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        qputenv("CORVANE_DATA_DIR", m_dir->path().toUtf8());
        m_app = std::make_unique<AppModel>();
        m_app->tree()->addChat(-1);
        m_chat = m_app->tree()->selectedChatID();
        m_messageIDs.clear();
        for (const char *body : {"one", "two", "three"})
            m_messageIDs.append(addMessage(db(), m_chat, QString::fromLatin1(body)));
        m_app->tree()->reload();
        m_app->chat()->loadMessages();
        m_list = std::make_unique<MessageListModel>();
        m_tester = std::make_unique<QAbstractItemModelTester>(m_list.get(),
                                                              QAbstractItemModelTester::FailureReportingMode::QtTest);
        m_list->setSource(m_app->chat());
    }

    void cleanup()
    {
        m_tester.reset();
        m_list.reset();
        m_app.reset();
        m_dir.reset();
    }

    void changes_data()
    {
        QTest::addColumn<QString>("change");
        QTest::addColumn<int>("inserted"); // rows inserted; -1 for a reset
        QTest::addColumn<QStringList>("shown");
        QTest::newRow("one appended") << "append1" << 1 << QStringList{"one", "two", "three", "a"};
        QTest::newRow("three appended") << "append3" << 3 << QStringList{"one", "two", "three", "a", "b", "c"};
        QTest::newRow("display shown instead of body") << "display" << 1 << QStringList{"one", "two", "three", "shown"};
        QTest::newRow("hidden left out") << "hidden" << 0 << QStringList{"one", "two", "three"};
        QTest::newRow("nothing new") << "none" << 0 << QStringList{"one", "two", "three"};
        QTest::newRow("an earlier message edited") << "edit" << -1 << QStringList{"one", "TWO", "three"};
        QTest::newRow("a message deleted") << "delete" << -1 << QStringList{"one", "three"};
        QTest::newRow("another chat") << "otherChat" << -1 << QStringList{"elsewhere"};
    }

    void changes()
    {
        QFETCH(QString, change);
        QFETCH(int, inserted);
        QFETCH(QStringList, shown);
        QSignalSpy resets(m_list.get(), &QAbstractItemModel::modelReset);
        QSignalSpy inserts(m_list.get(), &QAbstractItemModel::rowsInserted);
        if (change.startsWith(QLatin1String("append"))) {
            for (const char *body : {"a", "b", "c"}) {
                addMessage(db(), m_chat, QString::fromLatin1(body));
                if (change == QLatin1String("append1"))
                    break;
            }
        } else if (change == QLatin1String("display")) {
            addMessage(db(), m_chat, QStringLiteral("raw"), false, QStringLiteral("shown"));
        } else if (change == QLatin1String("hidden")) {
            addMessage(db(), m_chat, QStringLiteral("secret"), true);
        } else if (change == QLatin1String("edit")) {
            db().execute(QStringLiteral("UPDATE messages SET body='TWO' WHERE id=?"), {DBValue::integer(m_messageIDs[1])});
        } else if (change == QLatin1String("delete")) {
            db().execute(QStringLiteral("DELETE FROM messages WHERE id=?"), {DBValue::integer(m_messageIDs[1])});
        } else if (change == QLatin1String("otherChat")) {
            m_app->tree()->addChat(-1);
            addMessage(db(), m_app->tree()->selectedChatID(), QStringLiteral("elsewhere"));
        }
        m_app->tree()->reload();
        m_app->chat()->loadMessages();
        QCOMPARE(texts(), shown);
        if (inserted < 0) {
            QVERIFY(resets.count() >= 1);
        } else {
            QCOMPARE(resets.count(), 0);
            QCOMPARE(inserts.count(), inserted > 0 ? 1 : 0);
            if (inserted > 0) {
                QCOMPARE(inserts.first().at(1).toInt(), 3);
                QCOMPARE(inserts.first().at(2).toInt(), 2 + inserted);
            }
        }
    }

    void summaryMarker_data()
    {
        QTest::addColumn<QString>("summary");
        QTest::addColumn<int>("throughIndex"); // index into the messages; -1 for id 0
        QTest::addColumn<int>("markerRow"); // -1 for none
        QTest::newRow("no summary") << "" << 1 << -1;
        QTest::newRow("through the first") << "gist" << 0 << 1;
        QTest::newRow("through the second") << "gist" << 1 << 2;
        QTest::newRow("through the last: nothing after it") << "gist" << 2 << -1;
        QTest::newRow("before everything") << "gist" << -1 << 0;
    }

    void summaryMarker()
    {
        QFETCH(QString, summary);
        QFETCH(int, throughIndex);
        QFETCH(int, markerRow);
        QSignalSpy changes(m_list.get(), &QAbstractItemModel::dataChanged);
        const qint64 through = throughIndex < 0 ? 0 : m_messageIDs[throughIndex];
        db().setChatSummary(summary, through, m_chat);
        m_app->tree()->reload();
        for (int row = 0; row < m_list->rowCount(); ++row)
            QCOMPARE(m_list->index(row).data(MessageListModel::ShowsSummaryMarkerRole).toBool(), row == markerRow);
        QCOMPARE(changes.count(), markerRow < 0 ? 0 : 1);

        // The marker moves with the summary: one row loses it, another gains it.
        if (markerRow >= 0 && throughIndex < 1) {
            changes.clear();
            db().setChatSummary(summary, m_messageIDs[1], m_chat);
            m_app->tree()->reload();
            QVERIFY(m_list->index(2).data(MessageListModel::ShowsSummaryMarkerRole).toBool());
            QVERIFY(!m_list->index(markerRow).data(MessageListModel::ShowsSummaryMarkerRole).toBool());
            QCOMPARE(changes.count(), 2);
        }
    }
};

QTEST_MAIN(TestMessageListModel)
#include "tst_message_list_model.moc"
