// The corvane executable as a user's desktop starts it: it creates its data directory for the
// user's eyes only, draws its window without a display, stops cleanly when the session asks it
// to, and explains a data directory it cannot create instead of starting half-way; a script
// file named on its command line joins the script library.
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

namespace {

const QString s_program = QStringLiteral(CORVANE_BIN_DIR "/corvane");

void prepare(QProcess &process, const QString &dataDir)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("CORVANE_DATA_DIR"), dataDir);
    environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    process.setProcessEnvironment(environment);
}

} // namespace

class TestApplicationProcess : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { QVERIFY(m_dir.isValid()); }

    void screenshotOfTheFirstStart_data()
    {
        QTest::addColumn<bool>("openFolderExists");
        QTest::newRow("new data folder") << false;
        QTest::newRow("data folder left open to others") << true;
    }

    void screenshotOfTheFirstStart()
    {
        QFETCH(bool, openFolderExists);
        const QString data = m_dir.filePath(QStringLiteral("data"));
        const QString picture = m_dir.filePath(QStringLiteral("window.png"));
        if (openFolderExists) {
            QVERIFY(QDir().mkpath(data + QStringLiteral("/Images")));
            for (const QString &folder : {data, data + QStringLiteral("/Images")})
                QVERIFY(QFile::setPermissions(folder, QFile::Permissions(0x7755)));
        }
        QProcess corvane;
        prepare(corvane, data);
        corvane.start(s_program, {QStringLiteral("--screenshot"), picture});
        QVERIFY(corvane.waitForFinished(60000));
        QCOMPARE(corvane.exitStatus(), QProcess::NormalExit);
        QVERIFY2(corvane.exitCode() == 0, corvane.readAllStandardError().constData());
        QVERIFY(QFileInfo(data).isDir());
        const QImage image(picture);
        QCOMPARE(image.size(), QSize(1000, 700));

        // Nothing in the data folder is open to other users.
        constexpr QFile::Permissions others = QFile::ReadGroup | QFile::WriteGroup | QFile::ExeGroup
                                              | QFile::ReadOther | QFile::WriteOther | QFile::ExeOther;
        QStringList paths{data};
        QDirIterator it(data, QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot, QDirIterator::Subdirectories);
        while (it.hasNext())
            paths << it.next();
        QStringList open;
        for (const QString &path : paths)
            if (QFileInfo(path).permissions().testAnyFlags(others))
                open << path;
        QCOMPARE(open, QStringList());
        QVERIFY(QFileInfo::exists(data + QStringLiteral("/chats.sqlite")));
    }

    void aScriptFileNamedOnTheCommandLineJoinsTheLibrary()
    {
        const QString data = m_dir.filePath(QStringLiteral("data"));
        const QString script = m_dir.filePath(QStringLiteral("Tidy.corvane"));
        QFile file(script);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("module.exports = { name: 'Tidy', prompt: 'Be tidy.' };");
        file.close();
        QProcess corvane;
        prepare(corvane, data);
        corvane.start(s_program, {script});
        QVERIFY(corvane.waitForStarted());
        // Checked by running it once, then kept.
        QTRY_VERIFY_WITH_TIMEOUT(QFileInfo::exists(data + QStringLiteral("/Scripts/Tidy.corvane")), 30000);
        corvane.terminate();
        QVERIFY(corvane.waitForFinished(15000));
    }

    void terminationSignals_data()
    {
        QTest::addColumn<int>("signalNumber");
        QTest::newRow("SIGTERM") << SIGTERM;
        QTest::newRow("SIGHUP") << SIGHUP;
    }

    void terminationSignals()
    {
        QFETCH(int, signalNumber);
        const QString data = m_dir.filePath(QStringLiteral("data"));
        QProcess corvane;
        prepare(corvane, data);
        corvane.start(s_program, {});
        QVERIFY(corvane.waitForStarted());
        QTRY_VERIFY_WITH_TIMEOUT(QFileInfo(data).isDir(), 30000);
        // Give the event loop time to start; a signal before that is still handled at once.
        QTest::qWait(500);
        QCOMPARE(::kill(static_cast<pid_t>(corvane.processId()), signalNumber), 0);
        QVERIFY(corvane.waitForFinished(15000));
        QCOMPARE(corvane.exitStatus(), QProcess::NormalExit);
        QCOMPARE(corvane.exitCode(), 0);
    }

    void unusableDataDirectoryStopsWithAnExplanation()
    {
        const QString blocker = m_dir.filePath(QStringLiteral("file"));
        QFile file(blocker);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.close();
        QProcess corvane;
        prepare(corvane, blocker + QStringLiteral("/data"));
        corvane.start(s_program, {QStringLiteral("--screenshot"), m_dir.filePath(QStringLiteral("failure.png"))});
        QVERIFY(corvane.waitForFinished(60000));
        QCOMPARE(corvane.exitCode(), 1);
        QVERIFY(corvane.readAllStandardError().contains("Could not open local storage: "));
        QVERIFY(QFile::exists(m_dir.filePath(QStringLiteral("failure.png"))));
    }

private:
    QTemporaryDir m_dir;
};

QTEST_GUILESS_MAIN(TestApplicationProcess)
#include "tst_application_process.moc"
