// Start-up, stored settings, setters, the status banner and erasing everything, on a real
// database file in a scratch data directory.
#include "app/app_model.h"
#include "app/settings_rules.h"
#include "platform/error.h"
#include "storage/database.h"
#include "support/await_task.h"
#include "support/database_rows.h"

#include <QDir>
#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

class TestAppSettings : public QObject
{
    Q_OBJECT

private:
    QString databasePath() const { return m_dir->filePath(QStringLiteral("chats.sqlite")); }

    /// Writes settings rows the way an earlier run (or a damaged file) left them.
    void storeBeforeStart(const QList<std::pair<QString, QString>> &rows)
    {
        Database db(databasePath());
        for (const auto &[key, value] : rows)
            db.setSetting(key, value);
    }

    std::optional<QString> storedNow(const QString &key)
    {
        Database db(databasePath());
        return db.setting(key);
    }

private Q_SLOTS:
    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        QVERIFY(m_dir->isValid());
        qputenv("CORVANE_DATA_DIR", m_dir->path().toUtf8());
    }

    void defaultsOnAFirstStart()
    {
        AppModel model;
        const AppSettings &settings = *model.settings();
        QCOMPARE(settings.globalPrompt(), QStringLiteral("You are a thoughtful, concise companion."));
        QCOMPARE(settings.globalAgentName(), QStringLiteral("Corvane"));
        QCOMPARE(settings.temperature(), 0.7);
        QCOMPARE(settings.maxResponseTokens(), 1024);
        QCOMPARE(settings.contextTokens(), 16384);
        QCOMPARE(settings.selectedModelID(), QStringLiteral("qwen-0.8b"));
        QCOMPARE(settings.selectedWhisperModelID(), QStringLiteral("whisper-base"));
        QVERIFY(QFileInfo(m_dir->filePath(QStringLiteral("Models"))).isDir());
        QVERIFY(QFileInfo(m_dir->filePath(QStringLiteral("Images"))).isDir());
        QCOMPARE(model.tree()->nodes().size(), 1);
        QCOMPARE(model.tree()->nodes().first().name, QStringLiteral("Inbox"));
        QCOMPARE(model.tree()->selectedChatID(), ChatTree::none);
        // Nothing is written merely by starting.
        QVERIFY(!storedNow(Settings::temperatureKey));
    }

    void storedValuesAtStart_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QString>("stored");
        QTest::addColumn<QString>("expected"); // the field afterwards, as text

        QTest::newRow("prompt kept") << "global_prompt" << "Be brief." << "Be brief.";
        QTest::newRow("empty prompt ignored") << "global_prompt" << "" << Settings::defaultGlobalPrompt;
        QTest::newRow("name used untrimmed") << "agent_name" << "  Ada " << "  Ada ";
        QTest::newRow("blank name ignored") << "agent_name" << " \n\t " << "Corvane";
        QTest::newRow("temperature in range") << "temperature" << "1.2" << "1.2";
        QTest::newRow("temperature too high") << "temperature" << "1.6" << "0.7";
        QTest::newRow("temperature not a number") << "temperature" << "warm" << "0.7";
        QTest::newRow("temperature padded") << "temperature" << " 0.3" << "0.7";
        QTest::newRow("response choice") << "max_response_tokens" << "2048" << "2048";
        QTest::newRow("response not a choice") << "max_response_tokens" << "1000" << "1024";
        QTest::newRow("response fractional") << "max_response_tokens" << "512.0" << "1024";
        QTest::newRow("context choice") << "context_tokens" << "65536" << "65536";
        QTest::newRow("context not a choice") << "context_tokens" << "1024" << "16384";
        QTest::newRow("context padded") << "context_tokens" << "4096\n" << "16384";
        QTest::newRow("model id, any text") << "model_id" << "not-in-catalogue" << "not-in-catalogue";
        const QString record = QStringLiteral(
            R"({"salt":"AAAAAAAAAAAAAAAAAAAAAA==","rounds":600000,"byPassword":"AQ==","byRecoveryKey":"Ag=="})");
        QTest::newRow("vault record") << "vault" << record << "600000";
        QTest::newRow("vault record that does not decode") << "vault" << "{\"salt\":1}" << "none";
    }

    void storedValuesAtStart()
    {
        QFETCH(QString, key);
        QFETCH(QString, stored);
        QFETCH(QString, expected);
        storeBeforeStart({{key, stored}});
        {
            AppModel model;
            const AppSettings &settings = *model.settings();
            const auto &vault = model.locks()->vault();
            const QHash<QString, QString> fields{
                {"global_prompt", settings.globalPrompt()},
                {"agent_name", settings.globalAgentName()},
                {"temperature", Settings::decimalText(settings.temperature())},
                {"max_response_tokens", QString::number(settings.maxResponseTokens())},
                {"context_tokens", QString::number(settings.contextTokens())},
                {"model_id", settings.selectedModelID()},
                {"whisper_model_id", settings.selectedWhisperModelID()},
                {"vault", vault ? QString::number(vault->rounds) : QStringLiteral("none")},
            };
            QCOMPARE(fields.value(key), expected);
            QVERIFY(!model.status()->isError());
        }
        // An ignored value is not rewritten: the row is exactly as it was.
        QCOMPARE(storedNow(key), std::optional<QString>(stored));
    }

    // The window comes back as it was left, on whatever screen there is; nonsense gives the
    // default window.
    void windowState_data()
    {
        QTest::addColumn<QString>("stored");
        QTest::addColumn<QRect>("screen");
        QTest::addColumn<QRect>("placed");
        QTest::addColumn<bool>("maximized");
        QTest::addColumn<int>("sidebarWidth");
        const QString state = QStringLiteral(R"({"x":%1,"y":%2,"width":%3,"height":%4,"maximized":%5,"sidebar_width":%6})");
        const QRect screen(0, 0, 1920, 1080);
        QTest::newRow("as left") << state.arg(100).arg(50).arg(1200).arg(800).arg("false").arg(320) << screen
                                 << QRect(100, 50, 1200, 800) << false << 320;
        QTest::newRow("maximised") << state.arg(0).arg(0).arg(900).arg(700).arg("true").arg(200) << screen
                                   << QRect(0, 0, 900, 700) << true << 200;
        QTest::newRow("off a screen that went away") << state.arg(2500).arg(-300).arg(1200).arg(800).arg("false").arg(320)
                                                     << screen << QRect(720, 0, 1200, 800) << false << 320;
        QTest::newRow("onto a smaller screen") << state.arg(100).arg(50).arg(1600).arg(1000).arg("false").arg(320)
                                               << QRect(0, 0, 1280, 720) << QRect(0, 0, 1280, 720) << false << 320;
        QTest::newRow("too small, sidebar nonsense") << state.arg(10).arg(10).arg(200).arg(100).arg("false").arg(-5)
                                                     << screen << QRect() << false << 0;
        QTest::newRow("not JSON") << "{x:1" << screen << QRect() << false << 0;
        QTest::newRow("nothing kept") << QString() << screen << QRect() << false << 0;
    }

    void windowState()
    {
        QFETCH(QString, stored);
        QFETCH(QRect, screen);
        QFETCH(QRect, placed);
        QFETCH(bool, maximized);
        QFETCH(int, sidebarWidth);
        if (!stored.isNull())
            storeBeforeStart({{QStringLiteral("window_state"), stored}});
        {
            AppModel model;
            const WindowState &state = *model.windowState();
            QCOMPARE(state.placedOn(screen), placed);
            QCOMPARE(state.maximized(), maximized);
            QCOMPARE(state.sidebarWidth(), sidebarWidth);
            model.windowState()->save(QRect(30, 40, 1000, 700), false, 280);
        }
        // What closing kept is what the next start finds.
        AppModel model;
        QCOMPARE(model.windowState()->placedOn(QRect(0, 0, 1920, 1080)), QRect(30, 40, 1000, 700));
        QCOMPARE(model.windowState()->sidebarWidth(), 280);
    }

    void setTemperature_data()
    {
        QTest::addColumn<double>("value");
        QTest::addColumn<double>("field");
        QTest::addColumn<QString>("stored");
        QTest::newRow("capped") << 2.0 << 1.5 << "1.5";
        QTest::newRow("rounded down") << 0.74 << 0.7 << "0.7";
        QTest::newRow("half rounds away from zero") << 0.75 << 0.8 << "0.8";
        QTest::newRow("negative") << -3.0 << 0.0 << "0.0";
        QTest::newRow("whole") << 1.0 << 1.0 << "1.0";
        QTest::newRow("tiny positive") << 0.04 << 0.0 << "0.0";
    }

    void setTemperature()
    {
        QFETCH(double, value);
        QFETCH(double, field);
        QFETCH(QString, stored);
        {
            AppModel model;
            model.settings()->setTemperature(value);
            QCOMPARE(model.settings()->temperature(), field);
        }
        QCOMPARE(storedNow(Settings::temperatureKey), std::optional<QString>(stored));
    }

    void choicesOutsideTheirSetsAreIgnoredSilently()
    {
        {
            AppModel model;
            AppSettings &settings = *model.settings();
            QSignalSpy changed(&settings, &AppSettings::changed);
            QSignalSpy restarts(&settings, &AppSettings::contextTokensChanged);
            settings.setMaxResponseTokens(1000);
            settings.setContextTokens(1000);
            settings.setContextTokens(16384); // the current value: no restart, nothing stored
            settings.selectModel(QStringLiteral("qwen-0.8b")); // not installed
            settings.selectWhisperModel(QStringLiteral("whisper-base"));
            QCOMPARE(changed.size(), 0);
            QCOMPARE(restarts.size(), 0);
            QCOMPARE(model.status()->text(), QString());
            QCOMPARE(settings.maxResponseTokens(), 1024);
            QCOMPARE(settings.contextTokens(), 16384);

            settings.setMaxResponseTokens(512);
            settings.setContextTokens(32768);
            QCOMPARE(changed.size(), 2);
            QCOMPARE(restarts.size(), 1);
        }
        QVERIFY(!storedNow(Settings::modelIDKey));
        QCOMPARE(storedNow(Settings::maxResponseTokensKey), std::optional<QString>("512"));
        QCOMPARE(storedNow(Settings::contextTokensKey), std::optional<QString>("32768"));
    }

    void aSettingThatCannotBeStoredIsShownAndKeptForThisRun()
    {
        AppModel model;
        // A failure SQLite itself reports, with its own message.
        model.database().execute(QStringLiteral(
            "CREATE TRIGGER refuse BEFORE INSERT ON settings BEGIN SELECT RAISE(ABORT, 'disk says no'); END"));
        model.settings()->setGlobalPrompt(QStringLiteral("Answer in French."));
        QCOMPARE(model.status()->text(), QStringLiteral("disk says no"));
        QVERIFY(model.status()->isError());
        QCOMPARE(model.readiness(), Readiness::Error);
        QCOMPARE(model.settings()->globalPrompt(), QStringLiteral("Answer in French."));
    }

    void startSelectsTheNewestChatThatIsNotSealed()
    {
        qint64 expected = 0;
        {
            Database db(databasePath());
            const qint64 inbox = db.nodes().first().id;
            db.addChat(inbox, QStringLiteral("oldest"));
            expected = db.addChat(inbox, QStringLiteral("middle"));
            const qint64 newest = db.addChat(inbox, QStringLiteral("newest, in a locked folder"));
            db.execute(QStringLiteral("UPDATE chats SET sealed=1 WHERE id=?"), {DBValue::integer(newest)});
            addMessage(db, expected, QStringLiteral("hello"));
        }
        AppModel model;
        QCOMPARE(model.tree()->selectedChatID(), expected);
        QCOMPARE(model.tree()->selectedNodeID(), model.tree()->nodes().first().id);
        QCOMPARE(model.chat()->messages().size(), 1);
        QCOMPARE(model.chat()->messages().first().body, QStringLiteral("hello"));
    }

    void anUnopenableDatabaseStopsStartUp()
    {
        QVERIFY(QDir().mkpath(databasePath())); // a folder where the file should be
        QVERIFY_THROWS_EXCEPTION(CorvaneError, AppModel());
    }

    void eraseAllData()
    {
        {
            Database db(databasePath());
            const qint64 folder = db.addNode(std::nullopt, QStringLiteral("folder"), QStringLiteral("Work"));
            db.addChat(folder, QStringLiteral("Plans"));
            db.setSetting(Settings::agentNameKey, QStringLiteral("Ada"));
            db.setSetting(Settings::temperatureKey, QStringLiteral("1.1"));
        }
        AppModel model;
        QDir().mkpath(m_dir->filePath(QStringLiteral("Models/partial")));
        QFile(m_dir->filePath(QStringLiteral("Models/model.gguf"))).open(QIODevice::WriteOnly);
        QFile(m_dir->filePath(QStringLiteral("Images/a.jpg"))).open(QIODevice::WriteOnly);
        QVERIFY(model.tree()->selectedChatID() != ChatTree::none);
        QCOMPARE(model.settings()->globalAgentName(), QStringLiteral("Ada"));

        QCoro::Task<bool> erasing = model.eraseAll();
        // The rows go on a worker thread; meanwhile nothing else may start.
        QVERIFY(model.isErasing());
        QVERIFY(model.isBusy());
        QCOMPARE(model.status()->text(), QStringLiteral("Erasing all Corvane data…"));
        QVERIFY(!awaitTask(model.eraseAll()));
        QVERIFY(awaitTask(std::move(erasing)));

        QVERIFY(!model.isErasing());
        QCOMPARE(model.status()->text(), QStringLiteral("All Corvane data erased"));
        QVERIFY(!model.status()->isError());
        QCOMPARE(QDir(m_dir->filePath(QStringLiteral("Models"))).entryList(QDir::NoDotAndDotDot | QDir::AllEntries), QStringList());
        QCOMPARE(QDir(m_dir->filePath(QStringLiteral("Images"))).entryList(QDir::NoDotAndDotDot | QDir::AllEntries), QStringList());
        const ChatTree &tree = *model.tree();
        QCOMPARE(tree.nodes().size(), 1);
        QCOMPARE(tree.nodes().first().name, QStringLiteral("Inbox"));
        QCOMPARE(tree.selectedNodeID(), tree.nodes().first().id);
        QVERIFY(tree.chats().isEmpty());
        QCOMPARE(tree.selectedChatID(), ChatTree::none);
        QVERIFY(model.chat()->messages().isEmpty());
        QCOMPARE(model.settings()->globalAgentName(), QStringLiteral("Corvane"));
        QCOMPARE(model.settings()->temperature(), 0.7);
        QCOMPARE(model.settings()->selectedModelID(), QString());
        QCOMPARE(model.settings()->selectedWhisperModelID(), QString());
        QVERIFY(!model.database().setting(Settings::agentNameKey));
    }

    void eraseFailureIsReportedAndRolledBack()
    {
        AppModel model;
        model.database().setSetting(Settings::agentNameKey, QStringLiteral("Ada"));
        model.database().execute(QStringLiteral(
            "CREATE TRIGGER refuse BEFORE DELETE ON nodes BEGIN SELECT RAISE(ABORT, 'cannot delete'); END"));
        QVERIFY(!awaitTask(model.eraseAll()));
        QCOMPARE(model.status()->text(), QStringLiteral("cannot delete"));
        QVERIFY(model.status()->isError());
        // The settings row deleted before the failing step is back.
        QCOMPARE(model.database().setting(Settings::agentNameKey), std::optional<QString>("Ada"));
    }

private:
    std::unique_ptr<QTemporaryDir> m_dir;
};

QTEST_GUILESS_MAIN(TestAppSettings)
#include "tst_app_settings.moc"
