// A machine without sound (a server, CI): the application starts, the microphone says what is
// wrong in the exact words (a missing dictation model first) and leaves nothing behind, and a
// reply to be spoken neither hangs nor pretends to be spoken.
#include "reply_fixture.h"

#include "app/speech.h"
#include "support/null_audio.h"

#include <QTest>

class TestAppSpeechWithoutSound : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        NullAudio::pointAt(QStringLiteral("unix:/nonexistent/pulse/native"));
        qputenv("CORVANE_SPEECH_ENGINE", "flite");
    }

    void theMicrophoneSaysWhatIsWrong_data()
    {
        QTest::addColumn<int>("models");
        QTest::addColumn<QString>("error");
        QTest::newRow("no dictation model") << 0 << "Install a dictation model in Settings to dictate";
        QTest::newRow("no microphone") << int(ReplyFixture::DictationModel) << "Microphone access is required for dictation";
    }

    void theMicrophoneSaysWhatIsWrong()
    {
        QFETCH(int, models);
        QFETCH(QString, error);
        QTemporaryDir temporary;
        qputenv("TMPDIR", temporary.path().toUtf8());
        ReplyFixture f(models);
        f.newChat();
        Speech &speech = *f.model->speech();
        speech.toggleRecording();
        QCOMPARE(f.status(), error);
        QVERIFY(f.model->status()->isError());
        QVERIFY(!speech.isRecording());
        QVERIFY(!f.model->isBusy());
        QCOMPARE(QDir(temporary.path()).entryList({QStringLiteral("*.wav")}, QDir::Files), QStringList());
    }

    void speakingGivesUpInsteadOfHanging()
    {
        ReplyFixture f;
        Speech &speech = *f.model->speech();
        speech.speak(QStringLiteral("Nobody will hear this."));
        QTRY_VERIFY_WITH_TIMEOUT(f.model->status()->isError(), 30000);
        QCOMPARE(f.status(), QStringLiteral("Could not speak the reply"));
        QVERIFY(!speech.isSpeaking());
    }
};

QTEST_MAIN(TestAppSpeechWithoutSound)
#include "tst_app_speech_without_sound.moc"
