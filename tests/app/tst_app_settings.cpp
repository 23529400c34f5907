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
        QCOMPARE(model.globalPrompt(), QStringLiteral("You are a thoughtful, concise companion."));
        QCOMPARE(model.globalAgentName(), QStringLiteral("Corvane"));
        QCOMPARE(model.temperature(), 0.7);
        QCOMPARE(model.maxResponseTokens(), 1024);
        QCOMPARE(model.contextTokens(), 16384);
        QCOMPARE(model.selectedModelID(), QStringLiteral("qwen-0.8b"));
        QCOMPARE(model.selectedWhisperModelID(), QStringLiteral("whisper-base"));
        QCOMPARE(model.selectedVoiceID(), QString());
        QVERIFY(QFileInfo(m_dir->filePath(QStringLiteral("Models"))).isDir());
        QVERIFY(QFileInfo(m_dir->filePath(QStringLiteral("Images"))).isDir());
        QCOMPARE(model.nodes().size(), 1);
        QCOMPARE(model.nodes().first().name, QStringLiteral("Inbox"));
        QVERIFY(!model.selectedChatID());
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
        QTest::newRow("temperature at the top") << "temperature" << "1.5" << "1.5";
        QTest::newRow("temperature zero") << "temperature" << "0" << "0.0";
        QTest::newRow("temperature too high") << "temperature" << "1.6" << "0.7";
        QTest::newRow("temperature negative") << "temperature" << "-0.1" << "0.7";
        QTest::newRow("temperature not a number") << "temperature" << "warm" << "0.7";
        QTest::newRow("temperature NaN") << "temperature" << "nan" << "0.7";
        QTest::newRow("temperature padded") << "temperature" << " 0.3" << "0.7";
        QTest::newRow("response choice") << "max_response_tokens" << "2048" << "2048";
        QTest::newRow("response not a choice") << "max_response_tokens" << "1000" << "1024";
        QTest::newRow("response fractional") << "max_response_tokens" << "512.0" << "1024";
        QTest::newRow("context choice") << "context_tokens" << "65536" << "65536";
        QTest::newRow("context not a choice") << "context_tokens" << "1024" << "16384";
        QTest::newRow("context padded") << "context_tokens" << "4096\n" << "16384";
        QTest::newRow("model id, any text") << "model_id" << "not-in-catalogue" << "not-in-catalogue";
        QTest::newRow("whisper id, any text") << "whisper_model_id" << "" << "";
        QTest::newRow("voice id") << "voice_id" << "en-GB/Alan" << "en-GB/Alan";
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
            const QHash<QString, QString> fields{
                {"global_prompt", model.globalPrompt()},
                {"agent_name", model.globalAgentName()},
                {"temperature", Settings::decimalText(model.temperature())},
                {"max_response_tokens", QString::number(model.maxResponseTokens())},
                {"context_tokens", QString::number(model.contextTokens())},
                {"model_id", model.selectedModelID()},
                {"whisper_model_id", model.selectedWhisperModelID()},
                {"voice_id", model.selectedVoiceID()},
                {"vault", model.vault() ? QString::number(model.vault()->rounds) : QStringLiteral("none")},
            };
            QCOMPARE(fields.value(key), expected);
            QVERIFY(!model.statusIsError());
        }
        // An ignored value is not rewritten: the row is exactly as it was.
        QCOMPARE(storedNow(key), std::optional<QString>(stored));
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
        QTest::newRow("zero") << 0.0 << 0.0 << "0.0";
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
            model.setTemperature(value);
            QCOMPARE(model.temperature(), field);
        }
        QCOMPARE(storedNow(Settings::temperatureKey), std::optional<QString>(stored));
    }

    void choicesOutsideTheirSetsAreIgnoredSilently()
    {
        {
            AppModel model;
            QSignalSpy changed(&model, &AppModel::settingsChanged);
            model.setMaxResponseTokens(1000);
            model.setContextTokens(1000);
            model.setContextTokens(16384); // the current value: no restart, nothing stored
            model.selectModel(QStringLiteral("qwen-0.8b")); // not installed
            model.selectWhisperModel(QStringLiteral("whisper-base"));
            model.selectVoice(QStringLiteral("no-such-voice"));
            QCOMPARE(changed.size(), 0);
            QCOMPARE(model.status(), QString());
            QCOMPARE(model.maxResponseTokens(), 1024);
            QCOMPARE(model.contextTokens(), 16384);

            model.setMaxResponseTokens(512);
            model.setContextTokens(32768);
            model.selectVoice(QString());
            QCOMPARE(changed.size(), 3);
        }
        QVERIFY(!storedNow(Settings::modelIDKey));
        QCOMPARE(storedNow(Settings::maxResponseTokensKey), std::optional<QString>("512"));
        QCOMPARE(storedNow(Settings::contextTokensKey), std::optional<QString>("32768"));
        QCOMPARE(storedNow(Settings::voiceIDKey), std::optional<QString>(""));
    }

    void aSettingThatCannotBeStoredIsShownAndKeptForThisRun()
    {
        AppModel model;
        // A failure SQLite itself reports, with its own message.
        model.database().execute(QStringLiteral(
            "CREATE TRIGGER refuse BEFORE INSERT ON settings BEGIN SELECT RAISE(ABORT, 'disk says no'); END"));
        model.setGlobalPrompt(QStringLiteral("Answer in French."));
        QCOMPARE(model.status(), QStringLiteral("disk says no"));
        QVERIFY(model.statusIsError());
        QCOMPARE(model.readiness(), Readiness::Error);
        QCOMPARE(model.globalPrompt(), QStringLiteral("Answer in French."));
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
        QCOMPARE(model.selectedChatID(), std::optional<qint64>(expected));
        QCOMPARE(model.selectedNodeID(), std::optional<qint64>(model.nodes().first().id));
        QCOMPARE(model.messages().size(), 1);
        QCOMPARE(model.messages().first().body, QStringLiteral("hello"));
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
        QVERIFY(model.selectedChatID());
        QCOMPARE(model.globalAgentName(), QStringLiteral("Ada"));

        QCoro::Task<bool> erasing = model.eraseAll();
        // The rows go on a worker thread; meanwhile nothing else may start.
        QVERIFY(model.isErasing());
        QVERIFY(model.isBusy());
        QCOMPARE(model.status(), QStringLiteral("Erasing all Corvane data…"));
        QVERIFY(!awaitTask(model.eraseAll()));
        QVERIFY(awaitTask(std::move(erasing)));

        QVERIFY(!model.isErasing());
        QCOMPARE(model.status(), QStringLiteral("All Corvane data erased"));
        QVERIFY(!model.statusIsError());
        QCOMPARE(QDir(m_dir->filePath(QStringLiteral("Models"))).entryList(QDir::NoDotAndDotDot | QDir::AllEntries), QStringList());
        QCOMPARE(QDir(m_dir->filePath(QStringLiteral("Images"))).entryList(QDir::NoDotAndDotDot | QDir::AllEntries), QStringList());
        QCOMPARE(model.nodes().size(), 1);
        QCOMPARE(model.nodes().first().name, QStringLiteral("Inbox"));
        QCOMPARE(model.selectedNodeID(), std::optional<qint64>(model.nodes().first().id));
        QVERIFY(model.chats().isEmpty());
        QVERIFY(!model.selectedChatID());
        QVERIFY(model.messages().isEmpty());
        QCOMPARE(model.globalAgentName(), QStringLiteral("Corvane"));
        QCOMPARE(model.temperature(), 0.7);
        QCOMPARE(model.selectedModelID(), QString());
        QCOMPARE(model.selectedWhisperModelID(), QString());
        QCOMPARE(model.selectedVoiceID(), QString());
        QVERIFY(!model.database().setting(Settings::agentNameKey));
    }

    void eraseFailureIsReportedAndRolledBack()
    {
        AppModel model;
        model.database().setSetting(Settings::agentNameKey, QStringLiteral("Ada"));
        model.database().execute(QStringLiteral(
            "CREATE TRIGGER refuse BEFORE DELETE ON nodes BEGIN SELECT RAISE(ABORT, 'cannot delete'); END"));
        QVERIFY(!awaitTask(model.eraseAll()));
        QCOMPARE(model.status(), QStringLiteral("cannot delete"));
        QVERIFY(model.statusIsError());
        // The settings row deleted before the failing step is back.
        QCOMPARE(model.database().setting(Settings::agentNameKey), std::optional<QString>("Ada"));
    }

    void readiness_data()
    {
        QTest::addColumn<bool>("error");
        QTest::addColumn<bool>("busy");
        QTest::addColumn<bool>("chatModel");
        QTest::addColumn<bool>("missing");
        QTest::addColumn<Readiness::Value>("expected");
        QTest::newRow("error wins over all") << true << true << false << true << Readiness::Error;
        QTest::newRow("busy before models") << false << true << false << true << Readiness::Busy;
        QTest::newRow("no chat model") << false << false << false << true << Readiness::NoChatModel;
        QTest::newRow("models missing") << false << false << true << true << Readiness::ModelsMissing;
        QTest::newRow("ready") << false << false << true << false << Readiness::Ready;
    }

    void readiness()
    {
        QFETCH(bool, error);
        QFETCH(bool, busy);
        QFETCH(bool, chatModel);
        QFETCH(bool, missing);
        QFETCH(Readiness::Value, expected);
        QCOMPARE(Readiness::of({error, busy, chatModel, missing}), expected);
    }

private:
    std::unique_ptr<QTemporaryDir> m_dir;
};

QTEST_GUILESS_MAIN(TestAppSettings)
#include "tst_app_settings.moc"
