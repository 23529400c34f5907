#include "app/app_paths.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

namespace {

void touch(const QString &path)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("x");
}

} // namespace

class TestAppPaths : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        QVERIFY(m_root.isValid());
        qunsetenv("CORVANE_DATA_DIR");
        qputenv("XDG_DATA_HOME", m_root.filePath(QStringLiteral("xdg")).toUtf8());
    }

    void cleanup()
    {
        qunsetenv("CORVANE_DATA_DIR");
        QDir(m_root.path()).removeRecursively();
        QDir().mkpath(m_root.path());
    }

    void supportDirectory_data()
    {
        QTest::addColumn<QString>("dataDirOverride");
        QTest::addColumn<QString>("expected");
        QTest::newRow("XDG data home") << QString() << QStringLiteral("xdg/Corvane");
        QTest::newRow("override, nested and missing") << QStringLiteral("portable/a/b")
                                                       << QStringLiteral("portable/a/b");
        QTest::newRow("override, not normalised") << QStringLiteral("portable//c/../d/")
                                                  << QStringLiteral("portable/d");
    }

    void supportDirectory()
    {
        QFETCH(QString, dataDirOverride);
        QFETCH(QString, expected);
        if (!dataDirOverride.isEmpty())
            qputenv("CORVANE_DATA_DIR", m_root.filePath(dataDirOverride).toUtf8());
        const QString path = AppPaths::supportDirectory();
        QCOMPARE(path, QDir::cleanPath(m_root.filePath(expected)));
        QVERIFY(QFileInfo(path).isDir());
        // Asking again finds the existing folder.
        QCOMPARE(AppPaths::supportDirectory(), path);
    }

    void aFileInTheWayIsAnError()
    {
        touch(m_root.filePath(QStringLiteral("blocker")));
        qputenv("CORVANE_DATA_DIR", m_root.filePath(QStringLiteral("blocker")).toUtf8());
        QVERIFY_THROWS_EXCEPTION(AppPathsError, AppPaths::supportDirectory());
        qputenv("CORVANE_DATA_DIR", m_root.filePath(QStringLiteral("blocker/below")).toUtf8());
        QVERIFY_THROWS_EXCEPTION(AppPathsError, AppPaths::supportDirectory());

        qunsetenv("CORVANE_DATA_DIR");
        QDir().mkpath(m_root.filePath(QStringLiteral("xdg/Corvane")));
        touch(m_root.filePath(QStringLiteral("xdg/Corvane/Images")));
        try {
            AppPaths::directory(QStringLiteral("Images"));
            QFAIL("expected an error");
        } catch (const AppPathsError &error) {
            QVERIFY(error.description().contains(QStringLiteral("Images")));
        }
    }

    void removeContentsEmptiesTheFolderButKeepsIt()
    {
        const QString dir = AppPaths::directory(QStringLiteral("Models"));
        touch(dir + QStringLiteral("/a.gguf"));
        touch(dir + QStringLiteral("/.hidden"));
        QDir().mkpath(dir + QStringLiteral("/nested/deeper"));
        touch(dir + QStringLiteral("/nested/deeper/b"));
        // A link to a folder outside is removed as a link; what it points at stays.
        const QString outside = m_root.filePath(QStringLiteral("outside"));
        QDir().mkpath(outside);
        touch(outside + QStringLiteral("/keep"));
        QVERIFY(QFile::link(outside, dir + QStringLiteral("/link")));

        AppPaths::removeContents(dir);

        QVERIFY(QFileInfo(dir).isDir());
        QCOMPARE(QDir(dir).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot),
                 QStringList());
        QVERIFY(QFile::exists(outside + QStringLiteral("/keep")));
    }

private:
    QTemporaryDir m_root;
};

QTEST_GUILESS_MAIN(TestAppPaths)
#include "tst_app_paths.moc"
