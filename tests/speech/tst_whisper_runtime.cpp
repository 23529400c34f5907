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

/// Two seconds of a 220 Hz tone.
QByteArray toneRecording()
{
    constexpr quint32 rate = 16000;
    constexpr quint32 samples = 2 * rate;
    QByteArray wav;
    QDataStream out(&wav, QIODevice::WriteOnly);
    out.setByteOrder(QDataStream::LittleEndian);
    out.writeRawData("RIFF", 4);
    out << quint32(36 + 2 * samples);
    out.writeRawData("WAVEfmt ", 8);
    out << quint32(16) << quint16(1) << quint16(1) << rate << quint32(2 * rate) << quint16(2) << quint16(16);
    out.writeRawData("data", 4);
    out << quint32(2 * samples);
    for (quint32 i = 0; i < samples; ++i)
        out << qint16(8000 * std::sin(2 * M_PI * 220 * i / rate));
    return wav;
}

} // namespace

class TestWhisperRuntime : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void transcribesWithTheDictationArguments_data()
    {
        QTest::addColumn<bool>("recorded");
        QTest::newRow("a recording") << true;
        QTest::newRow("no recording") << false;
    }

    void transcribesWithTheDictationArguments()
    {
        QFETCH(bool, recorded);
        const QString program = AuxiliaryExecutable::find(QStringLiteral("whisper-cli"));
        QCOMPARE(program, QStringLiteral(CORVANE_LIBEXEC_DIR "/whisper-cli"));
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        const QString recording = dir.filePath(QUuid::createUuid().toString(QUuid::WithoutBraces) + ".wav");
        const QString outputBase = dir.filePath(QUuid::createUuid().toString(QUuid::WithoutBraces));
        if (recorded) {
            QFile wav(recording);
            QVERIFY(wav.open(QIODevice::WriteOnly));
            wav.write(toneRecording());
        }

        QProcess whisper;
        whisper.setStandardOutputFile(QProcess::nullDevice());
        whisper.setStandardErrorFile(QProcess::nullDevice());
        whisper.start(program, {"-m", CORVANE_TEST_MODELS_DIR "/whisper-random.bin", "-f", recording, "-l", "auto",
                                "-otxt", "-of", outputBase, "-np"});
        QVERIFY(whisper.waitForFinished(120000));
        QFile transcript(outputBase + QStringLiteral(".txt"));
        if (!recorded) {
            QVERIFY(whisper.exitCode() != 0);
            QVERIFY(!transcript.exists());
            return;
        }
        QCOMPARE(whisper.exitStatus(), QProcess::NormalExit);
        QCOMPARE(whisper.exitCode(), 0);
        QVERIFY2(transcript.open(QIODevice::ReadOnly), "whisper-cli wrote no transcript");
        // Random weights produce arbitrary text, but it must be valid UTF-8.
        const QByteArray text = transcript.readAll();
        QCOMPARE(QString::fromUtf8(text).toUtf8(), text);
    }
};

QTEST_GUILESS_MAIN(TestWhisperRuntime)
#include "tst_whisper_runtime.moc"
