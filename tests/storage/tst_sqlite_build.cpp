// The SQLite compiled into the application: the pinned version, with the FTS5 features
// that locked folders and search rely on, which the system's older SQLite lacks.
#include <QTemporaryDir>
#include <QTest>

#include <sqlite3.h>

namespace {

struct Connection
{
    sqlite3 *db = nullptr;
    ~Connection() { sqlite3_close(db); }

    int exec(const char *sql) { return sqlite3_exec(db, sql, nullptr, nullptr, nullptr); }
    QString error() const { return QString::fromUtf8(sqlite3_errmsg(db)); }
};

} // namespace

class TestSqliteBuild : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void linksThePinnedVersion()
    {
        QCOMPARE(QString::fromLatin1(sqlite3_libversion()), QStringLiteral("3.53.2"));
        QCOMPARE(sqlite3_libversion_number(), SQLITE_VERSION_NUMBER);
    }

    void compileOptions_data()
    {
        QTest::addColumn<QString>("option");
        QTest::addColumn<bool>("used");
        QTest::newRow("full-text search") << "ENABLE_FTS5" << true;
        QTest::newRow("thread-safe") << "THREADSAFE=1" << true;
        QTest::newRow("no extension loading") << "OMIT_LOAD_EXTENSION" << true;
        QTest::newRow("no allocation statistics") << "DEFAULT_MEMSTATUS=0" << true;
    }

    void compileOptions()
    {
        QFETCH(QString, option);
        QFETCH(bool, used);
        QCOMPARE(sqlite3_compileoption_used(option.toUtf8().constData()) == 1, used);
    }

    void fts5SecureDeleteOnAFileDatabase()
    {
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        Connection c;
        QCOMPARE(sqlite3_open(dir.filePath(QStringLiteral("t.sqlite")).toUtf8().constData(), &c.db), SQLITE_OK);
        QCOMPARE(c.exec("CREATE VIRTUAL TABLE t USING fts5(body)"), SQLITE_OK);
        QVERIFY2(c.exec("INSERT INTO t(t, rank) VALUES('secure-delete', 1)") == SQLITE_OK, qPrintable(c.error()));
        QCOMPARE(c.exec("INSERT INTO t(body) VALUES('private words')"), SQLITE_OK);
        QCOMPARE(c.exec("DELETE FROM t"), SQLITE_OK);
        QVERIFY2(c.exec("INSERT INTO t(t) VALUES('optimize')") == SQLITE_OK, qPrintable(c.error()));

        sqlite3_stmt *statement = nullptr;
        QCOMPARE(sqlite3_prepare_v2(c.db, "SELECT count(*) FROM t WHERE t MATCH 'private'", -1, &statement, nullptr), SQLITE_OK);
        QCOMPARE(sqlite3_step(statement), SQLITE_ROW);
        QCOMPARE(sqlite3_column_int(statement, 0), 0);
        sqlite3_finalize(statement);
    }
};

QTEST_GUILESS_MAIN(TestSqliteBuild)
#include "tst_sqlite_build.moc"
