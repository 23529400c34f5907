// Spoken replies through the application, on a private PulseAudio server with null speakers:
// a chat that asks for its replies to be spoken reads each one aloud, another does not. The
// stand-in llama-server answers, so that the reply has words to speak.
#include "reply_fixture.h"

#include "app/speech.h"
#include "support/null_audio.h"

#include <QTest>

class TestAppSpeech : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<NullAudio> m_audio;

private Q_SLOTS:
    void initTestCase()
    {
        qputenv("CORVANE_SPEECH_ENGINE", "flite");
        m_audio = std::make_unique<NullAudio>();
        QVERIFY(m_audio->isRunning());
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
