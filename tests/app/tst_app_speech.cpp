// Dictation and spoken replies through the application, on a private PulseAudio server whose
// microphone hears what is played into a null sink: the microphone's states and texts, the
// transcription put in the composer and never sent, and a chat that asks for spoken replies
// reading its reply aloud. The stand-in llama-server answers, so that the reply has words.
#include "reply_fixture.h"

#include "app/script_timer.h"
#include "app/speech.h"
#include "support/null_audio.h"

#include <QTest>

class TestAppSpeech : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<NullAudio> m_audio;
    QTemporaryDir m_temporary;
    QString m_tone;

    QStringList recordings() const
    {
        return QDir(m_temporary.path()).entryList({QStringLiteral("*.wav"), QStringLiteral("*.txt")}, QDir::Files);
    }

private Q_SLOTS:
    void initTestCase()
    {
        qputenv("TMPDIR", m_temporary.path().toUtf8());
        qputenv("CORVANE_SPEECH_ENGINE", "flite");
        m_audio = std::make_unique<NullAudio>();
        QVERIFY(m_audio->isRunning());
        m_tone = m_temporary.filePath(QStringLiteral("tone.source"));
        QFile file(m_tone);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(toneWav(1.5));
    }

    void withoutADictationModelNothingStarts()
    {
        ReplyFixture f;
        f.newChat();
        f.model->speech()->toggleRecording();
        QCOMPARE(f.status(), QStringLiteral("Install a dictation model in Settings to dictate"));
        QVERIFY(f.model->status()->isError());
        QVERIFY(!f.model->speech()->isRecording());
        QVERIFY(recordings().isEmpty());
    }

    void dictatesIntoTheComposer()
    {
        ReplyFixture f(ReplyFixture::DictationModel);
        const qint64 chat = f.newChat();
        Speech &speech = *f.model->speech();
        f.session().setComposer(QStringLiteral("typed before"));

        speech.toggleRecording();
        QVERIFY2(speech.isRecording(), qPrintable(f.status()));
        QVERIFY(f.model->isBusy());
        // A script's timer waits while the user dictates.
        f.session().setComposer(QString());
        QVERIFY(!f.model->scriptTimer().canTick());
        QVERIFY(m_audio->playIntoMicrophone(m_tone));
        QVERIFY(speech.recordedSeconds() >= 1);

        speech.toggleRecording();
        QVERIFY(!speech.isRecording());
        QVERIFY(speech.isTranscribing());
        QCOMPARE(f.status(), QStringLiteral("Transcribing locally…"));
        QTRY_VERIFY_WITH_TIMEOUT(!speech.isTranscribing(), 120000);
        QCOMPARE(f.status(), QStringLiteral("Review transcription, then send"));
        QVERIFY(!f.model->status()->isError());
        QVERIFY(!f.model->isBusy());
        // The words wait in the composer (random weights say anything); nothing was sent.
        QCOMPARE(f.session().composer(), f.session().composer().trimmed());
        QVERIFY(f.db().messages(chat).isEmpty());
        QVERIFY(recordings().isEmpty());
    }

    void speaksRepliesInChatsThatAskForIt_data()
    {
        QTest::addColumn<bool>("autoSpeak");
        QTest::newRow("auto play on") << true;
        QTest::newRow("auto play off") << false;
    }

    void speaksRepliesInChatsThatAskForIt()
    {
        QFETCH(bool, autoSpeak);
        qputenv("CORVANE_FAKE_REPLY", "Here is a **long** answer, |read aloud word by word. |And it goes on for a while.");
        ReplyFixture f;
        const qint64 chat = f.newChat();
        f.tree().setChatAutoSpeakReplies(chat, autoSpeak);
        Speech &speech = *f.model->speech();
        bool spoke = false;
        connect(&speech, &Speech::speakingChanged, this, [&] { spoke |= speech.isSpeaking(); });

        f.send(QStringLiteral("Tell me something"));
        QTRY_VERIFY_WITH_TIMEOUT(f.idle(), 30000);
        QCOMPARE(f.db().messages(chat).size(), 2);
        if (!autoSpeak) {
            QTest::qWait(500);
            QVERIFY(!spoke);
            return;
        }
        QTRY_VERIFY_WITH_TIMEOUT(spoke, 20000);
        QTRY_VERIFY_WITH_TIMEOUT(m_audio->somethingPlays(), 20000);
        speech.stopSpeaking();
        QVERIFY(!speech.isSpeaking());
        QVERIFY2(!f.model->status()->isError(), qPrintable(f.status()));
    }
};

QTEST_MAIN(TestAppSpeech)
#include "tst_app_speech.moc"
