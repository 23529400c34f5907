// The whisper-cli that the build places in libexec/corvane, run with the application's exact
// dictation arguments on the generated random-weight model and a recording in the format the
// microphone writes (16 kHz, mono, 16-bit little-endian WAV).
#include "platform/auxiliary_executable.h"

#include <QDataStream>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>
#include <QUuid>

#include <cmath>

namespace {

QByteArray wavFile(int sampleRate, double seconds)
{
    QByteArray samples;
    QDataStream pcm(&samples, QIODevice::WriteOnly);
    pcm.setByteOrder(QDataStream::LittleEndian);
    const int count = static_cast<int>(sampleRate * seconds);
    for (int i = 0; i < count; ++i) {
        const double t = static_cast<double>(i) / sampleRate;
        pcm << static_cast<qint16>(8000 * std::sin(2 * M_PI * 220 * t) * std::sin(M_PI * t / seconds));
    }
    QByteArray wav;
    QDataStream out(&wav, QIODevice::WriteOnly);
    out.setByteOrder(QDataStream::LittleEndian);
    out.writeRawData("RIFF", 4);
    out << quint32(36 + samples.size());
    out.writeRawData("WAVEfmt ", 8);
    out << quint32(16) << quint16(1) << quint16(1) << quint32(sampleRate) << quint32(sampleRate * 2)
        << quint16(2) << quint16(16);
    out.writeRawData("data", 4);
    out << quint32(samples.size());
    out.writeRawData(samples.constData(), static_cast<int>(samples.size()));
    return wav;
}

} // namespace

class TestWhisperRuntime : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void transcribesWithTheDictationArguments()
    {
        const QString program = AuxiliaryExecutable::find(QStringLiteral("whisper-cli"));
        QCOMPARE(program, QStringLiteral(CORVANE_LIBEXEC_DIR "/whisper-cli"));

        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        const QString recording = dir.filePath(QUuid::createUuid().toString(QUuid::WithoutBraces) + ".wav");
        const QString outputBase = dir.filePath(QUuid::createUuid().toString(QUuid::WithoutBraces));
        QFile wav(recording);
        QVERIFY(wav.open(QIODevice::WriteOnly));
        wav.write(wavFile(16000, 2.0));
        wav.close();

        const QStringList arguments{
            QStringLiteral("-m"), QStringLiteral(CORVANE_TEST_MODELS_DIR "/whisper-random.bin"),
            QStringLiteral("-f"), recording,
            QStringLiteral("-l"), QStringLiteral("auto"),
            QStringLiteral("-otxt"),
            QStringLiteral("-of"), outputBase,
            QStringLiteral("-np"),
        };
        QProcess whisper;
        whisper.setStandardOutputFile(QProcess::nullDevice());
        whisper.setStandardErrorFile(QProcess::nullDevice());
        whisper.start(program, arguments);
        QVERIFY(whisper.waitForStarted());
        QVERIFY(whisper.waitForFinished(120000));
        QCOMPARE(whisper.exitStatus(), QProcess::NormalExit);
        QCOMPARE(whisper.exitCode(), 0);

        QFile transcript(outputBase + QStringLiteral(".txt"));
        QVERIFY2(transcript.open(QIODevice::ReadOnly), "whisper-cli wrote no transcript");
        // Random weights produce arbitrary text, but it must be valid UTF-8.
        const QByteArray text = transcript.readAll();
        QCOMPARE(QString::fromUtf8(text).toUtf8(), text);
    }

    void aMissingRecordingFails()
    {
        QTemporaryDir dir;
        QProcess whisper;
        whisper.setStandardOutputFile(QProcess::nullDevice());
        whisper.setStandardErrorFile(QProcess::nullDevice());
        whisper.start(AuxiliaryExecutable::find(QStringLiteral("whisper-cli")),
                      {QStringLiteral("-m"), QStringLiteral(CORVANE_TEST_MODELS_DIR "/whisper-random.bin"),
                       QStringLiteral("-f"), dir.filePath(QStringLiteral("absent.wav")),
                       QStringLiteral("-l"), QStringLiteral("auto"), QStringLiteral("-otxt"),
                       QStringLiteral("-of"), dir.filePath(QStringLiteral("out")), QStringLiteral("-np")});
        QVERIFY(whisper.waitForFinished(60000));
        QVERIFY(whisper.exitCode() != 0);
        QVERIFY(!QFile::exists(dir.filePath(QStringLiteral("out.txt"))));
    }
};

QTEST_GUILESS_MAIN(TestWhisperRuntime)
#include "tst_whisper_runtime.moc"
