// Dictation and speaking on a private PulseAudio server whose microphone hears what is played
// into a null sink: the conversion to whisper.cpp's format, a recording's WAV file byte for
// byte, transcription by the real whisper-cli on the generated model and its failures, and
// flite's voices in order, speaking and being cut off on the null speakers.
#include "speech/pcm_converter.h"
#include "speech/speech_engine.h"
#include "speech/speech_error.h"

#include "support/await_task.h"
#include "support/null_audio.h"

#include <QAudioDevice>
#include <QMediaDevices>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QtEndian>

#include <cmath>
#include <memory>

namespace {

const QString s_whisperModel = QStringLiteral(CORVANE_TEST_MODELS_DIR "/whisper-random.bin");

/// One second of a 440 Hz tone at half scale in `format`, the same in every channel.
QByteArray tone(const QAudioFormat &format)
{
    QByteArray bytes;
    for (int i = 0; i < format.sampleRate(); ++i) {
        const double value = 0.5 * std::sin(2 * M_PI * 440 * i / format.sampleRate());
        for (int c = 0; c < format.channelCount(); ++c) {
            char sample[4];
            switch (format.sampleFormat()) {
            case QAudioFormat::UInt8:
                sample[0] = char(quint8(std::lround(128 + value * 127)));
                break;
            case QAudioFormat::Int16:
                qToLittleEndian(qint16(std::lround(value * 32767)), sample);
                break;
            case QAudioFormat::Int32:
                qToLittleEndian(qint32(std::lround(value * 2147483647.0)), sample);
                break;
            default: {
                const float f = float(value);
                std::memcpy(sample, &f, 4);
            }
            }
            bytes.append(sample, format.bytesPerSample());
        }
    }
    return bytes;
}

QList<qint16> samplesOf(const QByteArray &pcm)
{
    QList<qint16> samples;
    for (qsizetype i = 0; i + 1 < pcm.size(); i += 2)
        samples.append(qFromLittleEndian<qint16>(pcm.constData() + i));
    return samples;
}

QByteArray le32(quint32 value)
{
    char bytes[4];
    qToLittleEndian(value, bytes);
    return QByteArray(bytes, 4);
}

} // namespace

class TestSpeechEngine : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<NullAudio> m_audio;
    QTemporaryDir m_temporary;
    QString m_tone;

    QStringList temporaryFiles() const { return QDir(m_temporary.path()).entryList(QDir::Files); }

private Q_SLOTS:
    void initTestCase()
    {
        // Recordings and transcripts go to a folder of this test's, to be checked for leftovers.
        qputenv("TMPDIR", m_temporary.path().toUtf8());
        m_audio = std::make_unique<NullAudio>();
        QVERIFY(m_audio->isRunning());
        QVERIFY(!QMediaDevices::defaultAudioInput().isNull());
        m_tone = m_temporary.filePath(QStringLiteral("tone.source"));
        QFile file(m_tone);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(toneWav(1.5));
    }

    void convertsToWhisperFormat_data()
    {
        QTest::addColumn<int>("rate");
        QTest::addColumn<int>("channels");
        QTest::addColumn<QAudioFormat::SampleFormat>("sampleFormat");
        QTest::newRow("already right") << 16000 << 1 << QAudioFormat::Int16;
        QTest::newRow("48 kHz stereo float") << 48000 << 2 << QAudioFormat::Float;
        QTest::newRow("44.1 kHz mono 16-bit") << 44100 << 1 << QAudioFormat::Int16;
        QTest::newRow("8 kHz 8-bit") << 8000 << 1 << QAudioFormat::UInt8;
        QTest::newRow("96 kHz 6 channels 32-bit") << 96000 << 6 << QAudioFormat::Int32;
    }

    void convertsToWhisperFormat()
    {
        QFETCH(int, rate);
        QFETCH(int, channels);
        QFETCH(QAudioFormat::SampleFormat, sampleFormat);
        QAudioFormat format;
        format.setSampleRate(rate);
        format.setChannelCount(channels);
        format.setSampleFormat(sampleFormat);
        const QByteArray input = tone(format);

        // Fed in reads that split frames, as a sound server may hand them over.
        PcmConverter converter(format);
        QByteArray output;
        for (qsizetype at = 0; at < input.size(); at += 1001)
            output += converter.convert(input.mid(at, 1001));
        const QList<qint16> samples = samplesOf(output);

        // One second at 16 kHz, still a 440 Hz tone at half scale.
        QVERIFY2(std::abs(samples.size() - 16000) <= 2, qPrintable(QString::number(samples.size())));
        int crossings = 0;
        for (qsizetype i = 1; i < samples.size(); ++i)
            crossings += (samples[i - 1] < 0) != (samples[i] < 0);
        QVERIFY2(std::abs(crossings - 880) <= 4, qPrintable(QString::number(crossings)));
        const qint16 peak = *std::ranges::max_element(samples);
        QVERIFY2(peak > 15500 && peak < 17000, qPrintable(QString::number(peak)));
    }

    void recordsWhatTheMicrophoneHears()
    {
        AudioRecorder recorder;
        const QString path = m_temporary.filePath(QStringLiteral("recording.wav"));
        recorder.start(path);
        QVERIFY(recorder.isRecording());
        QVERIFY(m_audio->playIntoMicrophone(m_tone));
        QVERIFY(recorder.stop());

        QFile file(path);
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray wav = file.readAll();
        QVERIFY(wav.size() > 44);
        const quint32 data = quint32(wav.size() - 44);
        const QByteArray header = "RIFF" + le32(36 + data) + "WAVEfmt "
                                  + QByteArray::fromHex("10000000" "0100" "0100" "803e0000" "007d0000" "0200" "1000")
                                  + "data" + le32(data);
        QCOMPARE(wav.first(44).toHex(), header.toHex());
        QVERIFY(file.permissions() & QFileDevice::ReadOwner);
        QVERIFY(!(file.permissions() & QFileDevice::ReadOther));

        // The tone is in it: at least a second of it, loud.
        const QList<qint16> samples = samplesOf(wav.sliced(44));
        QVERIFY2(samples.size() >= 16000, qPrintable(QString::number(samples.size())));
        const qint16 peak = *std::ranges::max_element(samples);
        QVERIFY2(peak > 8000, qPrintable(QString::number(peak)));
        QVERIFY(recorder.recordedMs() >= 1000);
        QFile::remove(path);
    }

    void transcribes_data()
    {
        QTest::addColumn<QString>("program");
        QTest::addColumn<QString>("model");
        QTest::addColumn<int>("failure"); // -1: none
        QTest::newRow("the real whisper-cli") << "" << s_whisperModel << -1;
        QTest::newRow("no whisper-cli") << "/nonexistent/whisper-cli" << s_whisperModel
                                        << int(SpeechError::Case::MissingRuntime);
        QTest::newRow("a model whisper-cli cannot read") << "" << "/nonexistent/model.bin"
                                                         << int(SpeechError::Case::TranscriptionFailed);
        QTest::newRow("a program that writes no transcript") << "/bin/true" << s_whisperModel
                                                             << int(SpeechError::Case::TranscriptionFailed);
    }

    void transcribes()
    {
        QFETCH(QString, program);
        QFETCH(QString, model);
        QFETCH(int, failure);
        SpeechEngine engine(QStringLiteral("flite"));
        engine.setWhisperProgram(program);
        engine.startRecording();
        QVERIFY(engine.isRecording());
        QCOMPARE(temporaryFiles().filter(QStringLiteral(".wav")).size(), 1);
        // Enough sound for whisper-cli, however slowly the sound server starts.
        QTRY_VERIFY_WITH_TIMEOUT(engine.recorder().recordedMs() >= 1000, 20000);
        try {
            const QString text = awaitTask(engine.stopAndTranscribe(model));
            QCOMPARE(failure, -1);
            // Random weights say anything, but it arrives trimmed.
            QCOMPARE(text, text.trimmed());
        } catch (const SpeechError &error) {
            QCOMPARE(int(error.kind()), failure);
        }
        QVERIFY(!engine.isRecording());
        // The recording and the transcript are gone whatever happened.
        QCOMPARE(temporaryFiles(), QStringList{QStringLiteral("tone.source")});
    }

    void speaksAndIsCutOffAtOnce()
    {
        SpeechEngine engine(QStringLiteral("flite"));
        QSignalSpy failures(&engine.speaker(), &Speaker::failed);
        // By language code, then by name.
        QStringList ids;
        for (const Voice &voice : awaitTask(engine.availableVoices()))
            ids << voice.id;
        QCOMPARE(ids, (QStringList{"en-GB/awb", "en-US/kal", "en-US/kal16", "en-US/rms", "en-US/slt"}));
        engine.setVoiceID(ids.first());

        const QString longText = QStringLiteral("This is a **long** reply. ").repeated(40);
        engine.speak(longText);
        QTRY_VERIFY_WITH_TIMEOUT(engine.speaker().isSpeaking(), 20000);
        QTRY_VERIFY_WITH_TIMEOUT(m_audio->somethingPlays(), 20000);
        // Speaking again ends the first reply at once and starts the second.
        QSignalSpy changes(&engine.speaker(), &Speaker::speakingChanged);
        engine.speak(QStringLiteral("Second reply. ").repeated(40));
        QCOMPARE(changes.count(), 2);
        QVERIFY(engine.speaker().isSpeaking());
        QTRY_VERIFY_WITH_TIMEOUT(m_audio->somethingPlays(), 20000);
        engine.stopSpeaking();
        QVERIFY(!engine.speaker().isSpeaking());
        QTRY_VERIFY_WITH_TIMEOUT(!m_audio->somethingPlays(), 5000);
        QVERIFY2(failures.isEmpty(), failures.isEmpty() ? "" : qPrintable(failures.first().first().toString()));
    }
};

QTEST_MAIN(TestSpeechEngine)
#include "tst_speech_engine.moc"
