// The sidebar's rows on a real AppModel and database: tree order and depth, collapsing, and
// selection changes that touch only the rows concerned.
#include "app/app_model.h"
#include "sidebar_model.h"
#include "storage/database.h"

#include <QAbstractItemModelTester>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

namespace {

using Row = std::tuple<QString, QString, int>; // kind, name, depth

} // namespace

class TestSidebarModel : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<AppModel> m_app;
    std::unique_ptr<SidebarModel> m_sidebar;
    std::unique_ptr<QAbstractItemModelTester> m_tester;
    QHash<QString, qint64> m_ids; // by folder name or chat title

    qint64 folder(const QString &name, qint64 parent)
    {
        const qint64 id = m_app->tree()->addFolder(parent);
        m_app->tree()->renameNode(id, name);
        m_ids.insert(name, id);
        return id;
    }

    void chat(const QString &title, qint64 folderID)
    {
        m_app->tree()->addChat(folderID);
        const qint64 id = m_app->tree()->selectedChatID();
        m_app->tree()->renameChat(id, title);
        m_ids.insert(title, id);
    }

    QList<Row> rows() const
    {
        QList<Row> result;
        for (int i = 0; i < m_sidebar->rowCount(); ++i) {
            const QModelIndex index = m_sidebar->index(i);
            result.append({index.data(SidebarModel::KindRole).toString(), index.data(SidebarModel::NameRole).toString(),
                           index.data(SidebarModel::DepthRole).toInt()});
        }
        return result;
    }

    int rowOf(const QString &name) const
    {
        for (int i = 0; i < m_sidebar->rowCount(); ++i)
            if (m_sidebar->index(i).data(SidebarModel::NameRole).toString() == name)
                return i;
        return -1;
    }

private Q_SLOTS:
    // Inbox
    //   Work
    //     Drafts
    //       d1
    //     w2 (newer), w1
    //   i1
    // Projects
    //   p1
    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        qputenv("CORVANE_DATA_DIR", m_dir->path().toUtf8());
        m_app = std::make_unique<AppModel>();
        m_ids.clear();
        const qint64 inbox = m_app->tree()->nodes().first().id;
        m_ids.insert(QStringLiteral("Inbox"), inbox);
        const qint64 work = folder(QStringLiteral("Work"), inbox);
        const qint64 drafts = folder(QStringLiteral("Drafts"), work);
        const qint64 projects = folder(QStringLiteral("Projects"), -1);
        chat(QStringLiteral("i1"), inbox);
        chat(QStringLiteral("w1"), work);
        chat(QStringLiteral("w2"), work);
        chat(QStringLiteral("d1"), drafts);
        chat(QStringLiteral("p1"), projects);
        m_sidebar = std::make_unique<SidebarModel>();
        m_tester = std::make_unique<QAbstractItemModelTester>(m_sidebar.get(),
                                                              QAbstractItemModelTester::FailureReportingMode::QtTest);
        m_sidebar->setSource(m_app->tree());
    }

    void cleanup()
    {
        m_tester.reset();
        m_sidebar.reset();
        m_app.reset();
        m_dir.reset();
    }

    void treeOrder()
    {
        // Sub-folders first, then the folder's chats newest first.
        const QList<Row> expected{
            {"folder", "Inbox", 0}, {"folder", "Work", 1}, {"folder", "Drafts", 2}, {"chat", "d1", 3},
            {"chat", "w2", 2},      {"chat", "w1", 2},     {"chat", "i1", 1},       {"folder", "Projects", 0},
            {"chat", "p1", 1},
        };
        QCOMPARE(rows(), expected);
    }

    void collapsing_data()
    {
        QTest::addColumn<QStringList>("collapsed");
        QTest::addColumn<QStringList>("visible");
        QTest::newRow("none") << QStringList() << QStringList{"Inbox", "Work", "Drafts", "d1", "w2", "w1", "i1", "Projects", "p1"};
        QTest::newRow("innermost") << QStringList{"Drafts"} << QStringList{"Inbox", "Work", "Drafts", "w2", "w1", "i1", "Projects", "p1"};
        QTest::newRow("middle hides nested folders") << QStringList{"Work"} << QStringList{"Inbox", "Work", "i1", "Projects", "p1"};
        QTest::newRow("inner inside collapsed outer") << QStringList{"Inbox", "Drafts"} << QStringList{"Inbox", "Projects", "p1"};
    }

    void collapsing()
    {
        QFETCH(QStringList, collapsed);
        QFETCH(QStringList, visible);
        QSignalSpy resets(m_sidebar.get(), &QAbstractItemModel::modelReset);
        for (const QString &name : collapsed)
            m_sidebar->setCollapsed(m_ids.value(name), true);
        QStringList names;
        for (const auto &[kind, name, depth] : rows())
            names.append(name);
        QCOMPARE(names, visible);
        for (const QString &name : collapsed)
            if (rowOf(name) >= 0)
                QVERIFY(m_sidebar->index(rowOf(name)).data(SidebarModel::IsCollapsedRole).toBool());
        QCOMPARE(resets.count(), 0); // rows are removed, not the whole list rebuilt

        // Expanding again, innermost first, brings every row back in its place.
        for (auto it = collapsed.crbegin(); it != collapsed.crend(); ++it)
            m_sidebar->setCollapsed(m_ids.value(*it), false);
        QCOMPARE(rows().size(), 9);
        QCOMPARE(std::get<1>(rows().at(3)), QStringLiteral("d1"));
    }

    void collapsedStaysAcrossTreeChanges()
    {
        m_sidebar->setCollapsed(m_ids.value(QStringLiteral("Work")), true);
        chat(QStringLiteral("w3"), m_ids.value(QStringLiteral("Work")));
        QCOMPARE(rowOf(QStringLiteral("w3")), -1);
        QVERIFY(m_sidebar->index(rowOf(QStringLiteral("Work"))).data(SidebarModel::IsCollapsedRole).toBool());
    }

    void selection_data()
    {
        QTest::addColumn<QString>("select"); // a chat title or a folder name
        QTest::addColumn<QStringList>("selected"); // rows shown selected afterwards
        QTest::addColumn<int>("changedRows");
        // The last chat made (p1) starts selected, with its folder.
        QTest::newRow("chat in another folder") << "w1" << QStringList{"Work", "w1"} << 4;
        QTest::newRow("chat in the same folder") << "p1" << QStringList{"Projects", "p1"} << 0;
        QTest::newRow("folder keeps the chat") << "Drafts" << QStringList{"Drafts", "p1"} << 2;
    }

    void selection()
    {
        QFETCH(QString, select);
        QFETCH(QStringList, selected);
        QFETCH(int, changedRows);
        QCOMPARE(m_app->tree()->selectedChatID(), m_ids.value(QStringLiteral("p1")));
        QSignalSpy resets(m_sidebar.get(), &QAbstractItemModel::modelReset);
        QSignalSpy changes(m_sidebar.get(), &QAbstractItemModel::dataChanged);
        const qint64 id = m_ids.value(select);
        if (std::ranges::any_of(m_app->tree()->nodes(), [&](const Node &n) { return n.id == id && n.name == select; }))
            m_app->tree()->selectNode(id);
        else
            m_app->tree()->selectChat(id);

        QStringList shown;
        for (int i = 0; i < m_sidebar->rowCount(); ++i)
            if (m_sidebar->index(i).data(SidebarModel::IsSelectedRole).toBool())
                shown.append(m_sidebar->index(i).data(SidebarModel::NameRole).toString());
        std::ranges::sort(shown);
        std::ranges::sort(selected);
        QCOMPARE(shown, selected);
        QCOMPARE(resets.count(), 0);
        QCOMPARE(changes.count(), changedRows);
        for (const QList<QVariant> &change : changes) {
            QCOMPARE(change.at(0).toModelIndex(), change.at(1).toModelIndex()); // one row each
            QCOMPARE(change.at(2).value<QList<int>>(), QList<int>{SidebarModel::IsSelectedRole});
        }
    }

    void lockedAwayFolderHidesItsContents()
    {
        // Work is locked and not opened in this run: it and everything below it are sealed.
        Database &db = m_app->database();
        const qint64 work = m_ids.value(QStringLiteral("Work"));
        db.execute(QStringLiteral("UPDATE nodes SET locked=1, sealed=1 WHERE id=?"), {DBValue::integer(work)});
        db.execute(QStringLiteral("UPDATE nodes SET sealed=1 WHERE id=?"), {DBValue::integer(m_ids.value(QStringLiteral("Drafts")))});
        db.execute(QStringLiteral("UPDATE chats SET sealed=1 WHERE node_id IN (?,?)"),
                   {DBValue::integer(work), DBValue::integer(m_ids.value(QStringLiteral("Drafts")))});
        m_app->tree()->reload();
        const QList<Row> expected{
            {"folder", "Inbox", 0}, {"folder", "Work", 1}, {"chat", "i1", 1}, {"folder", "Projects", 0}, {"chat", "p1", 1},
        };
        QCOMPARE(rows(), expected);
        const QModelIndex locked = m_sidebar->index(1);
        QVERIFY(locked.data(SidebarModel::LockedAwayRole).toBool());
        QVERIFY(locked.data(SidebarModel::IsLockedRole).toBool());
        QVERIFY(!locked.data(SidebarModel::HasChildrenRole).toBool());
        QVERIFY(!m_sidebar->index(0).data(SidebarModel::LockedAwayRole).toBool());
    }
};

QTEST_MAIN(TestSidebarModel)
#include "tst_sidebar_model.moc"
