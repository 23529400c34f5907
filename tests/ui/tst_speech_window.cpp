// Dictation and the voice as the user meets them in the window, on a private PulseAudio server
// whose microphone hears a tone: the microphone button starts recording and shows the time
// (nothing else runs meanwhile), a second press transcribes into the composer without
// sending, and Settings lists the voices.
// Pictures go to build/test-output/.
#include "app/app_model.h"
#include "app/script_timer.h"
#include "qml_types.h"
#include "support/null_audio.h"
#include "support/test_chat_model.h"
#include "window_test_support.h"

#include <QAccessible>
#include <QQmlExtensionPlugin>
#include <QTest>

Q_IMPORT_QML_PLUGIN(CorvanePlugin)

class TestSpeechWindow : public WindowTest
{
    Q_OBJECT

private:
    std::unique_ptr<NullAudio> m_audio;
    QString m_tone;


private Q_SLOTS:
    void initTestCase()
    {
        qputenv("CORVANE_SPEECH_ENGINE", "flite");
        m_audio = std::make_unique<NullAudio>();
        QVERIFY(m_audio->isRunning());
        const QString support = useScratchData();
        m_tone = m_data.filePath(QStringLiteral("tone.wav"));
        QFile file(m_tone);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(toneWav(2));
        file.close();
        m_model = std::make_unique<AppModel>(QList<ModelSpec>{linkTestChatModel(support), linkTestWhisperModel(support)});
        m_model->tree()->addChat(-1);
        showWindow();
    }

    void dictatesIntoTheComposer()
    {
        // An empty chat offers screen readers nothing that is not shown.
        QAccessible::setActive(true);
        QCOMPARE(hiddenAccessibleItems(m_window), QStringList());
        QCOMPARE(accessibleName("microphoneButton"), QStringLiteral("Dictate"));
        click(QStringLiteral("microphoneButton"));
        QTRY_VERIFY(m_model->speech()->isRecording());
        QCOMPARE(accessibleName("microphoneButton"), QStringLiteral("Stop dictation"));
        QVERIFY(m_model->isBusy());
        // A script's timer waits while the user dictates.
        QVERIFY(!m_model->scriptTimer().canTick());
        QVERIFY(m_audio->playIntoMicrophone(m_tone));
        QTRY_COMPARE(textOf("microphoneButton"), QStringLiteral("Stop 0:02"));
        savePicture(QStringLiteral("speech-recording.png"), 100);

        click(QStringLiteral("microphoneButton"));
        QTRY_VERIFY_WITH_TIMEOUT(!m_model->speech()->isTranscribing(), 120000);
        QCOMPARE(m_model->status()->text(), QStringLiteral("Review transcription, then send"));
        // What whisper-cli heard waits in the composer; nothing was sent.
        QCOMPARE(textOf("composerInput"), m_model->chat()->composer());
        QVERIFY(m_model->chat()->messages().isEmpty());
        QCOMPARE(textOf("microphoneButton"), QStringLiteral("Dictate"));
        QVERIFY(!m_model->isBusy());
    }

    void settingsListTheVoices()
    {
        QTest::keyClick(m_window, Qt::Key_Comma, Qt::ControlModifier);
        QTRY_VERIFY(isOpened("settingsSheet"));
        QObject *choice = object("voiceChoice");
        QTRY_COMPARE(choice->property("count").toInt(), 1 + 5); // the default and flite's voices
        QCOMPARE(choice->property("currentText").toString(), QStringLiteral("System default"));
        m_model->speech()->selectVoice(QStringLiteral("en-GB/awb"));
        QCOMPARE(m_model->settings()->selectedVoiceID(), QStringLiteral("en-GB/awb"));
        QCOMPARE(choice->property("currentText").toString(), QStringLiteral("awb (en-GB)"));
        // A voice that is not installed is not taken.
        m_model->speech()->selectVoice(QStringLiteral("xx-XX/nobody"));
        QCOMPARE(m_model->settings()->selectedVoiceID(), QStringLiteral("en-GB/awb"));
        closePopup("settingsSheet");
    }
};

QTEST_MAIN(TestSpeechWindow)
#include "tst_speech_window.moc"
