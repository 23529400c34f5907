// The search area over a real database: what it may show (a folder's scope, chats being
// deleted), and terms typed faster than searches come back. Locked folders' chats are checked
// with the locks, in tst_app_locks.
#include "app/app_model.h"
#include "storage/database.h"
#include "support/database_rows.h"

#include <QTemporaryDir>
#include <QTest>

class TestAppSearch : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    std::unique_ptr<AppModel> m_model;
    qint64 m_work = -1;
    qint64 m_projects = -1;
    qint64 m_home = -1;
    QHash<qint64, qint64> m_chatIn; ///< a chat by its folder

    ChatTree &tree() { return *m_model->tree(); }
    Search &search() { return *m_model->search(); }

    /// The folders whose chats the hits are in, once the search came back.
    QSet<qint64> foldersFound()
    {
        QCoreApplication::processEvents(); // a refresh waits for the event loop
        [&] { QTRY_VERIFY(!search().isSearching()); }();
        QSet<qint64> folders;
        for (const SearchHit &hit : search().hits())
            folders << tree().chat(hit.chatID)->nodeID;
        return folders;
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        qputenv("CORVANE_DATA_DIR", m_dir.path().toUtf8());
        m_model = std::make_unique<AppModel>();
        m_work = tree().addFolder(ChatTree::none);
        m_projects = tree().addFolder(m_work);
        m_home = tree().addFolder(ChatTree::none);
        for (const qint64 folder : {m_work, m_projects, m_home}) {
            tree().addChat(folder);
            m_chatIn[folder] = tree().selectedChatID();
            addMessage(m_model->database(), m_chatIn[folder], QStringLiteral("the heron by the weir"));
        }
    }

    void aFolderScopeIsTheFolderSelectedWhenSearchBegan()
    {
        search().setTerm(QStringLiteral("heron"));
        QCOMPARE(foldersFound(), (QSet<qint64>{m_work, m_projects, m_home}));
        tree().selectNode(m_work);
        search().begin();
        search().setSearchAll(false);
        QCOMPARE(foldersFound(), (QSet<qint64>{m_work, m_projects}));
        // Opening a hit selects another folder; the scope stays.
        tree().selectChat(m_chatIn[m_projects]);
        QCOMPARE(foldersFound(), (QSet<qint64>{m_work, m_projects}));
        search().setSearchAll(true);
        QCOMPARE(foldersFound().size(), 3);
    }

    void aDeletedChatLeavesTheHitsAtOnce()
    {
        search().setTerm(QStringLiteral("heron"));
        QCOMPARE(foldersFound().size(), 3);
        tree().deleteChat(m_chatIn[m_home]);
        // Before its rows are gone, and before any search came back.
        for (const SearchHit &hit : search().hits())
            QVERIFY(hit.chatID != m_chatIn[m_home]);
        QCOMPARE(foldersFound(), (QSet<qint64>{m_work, m_projects}));
    }

    void hitsAreForTheTermOfTheirTime()
    {
        // A search may come back before the next key (then its hits are shown), never after.
        QStringList stale;
        connect(&search(), &Search::hitsChanged, this, [&] {
            for (const SearchHit &hit : search().hits())
                if (!hit.snippet.contains(QChar(2) + search().term()))
                    stale << hit.snippet + QStringLiteral(" for ") + search().term();
        });
        for (const char *term : {"wei", "weir", "xylograph", "the he", "the her"})
            search().setTerm(QString::fromLatin1(term));
        QCOMPARE(foldersFound(), (QSet<qint64>{m_work, m_projects}));
        disconnect(&search(), &Search::hitsChanged, this, nullptr);
        QVERIFY2(stale.isEmpty(), qPrintable(stale.join(QLatin1Char('|'))));
        QVERIFY(search().hits().first().snippet.contains(QStringLiteral("\x02the heron\x03")));
    }
};

QTEST_GUILESS_MAIN(TestAppSearch)
#include "tst_app_search.moc"
