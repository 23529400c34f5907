// Dictation as the user meets it: the time from pressing stop to the text being there, for
// 5 s and 30 s of recorded sound, and the longest main-thread gap while recording. A private
// PulseAudio server's virtual microphone hears a tone; whisper-cli transcribes it with the
// generated random-weight model, or with the model file named by CORVANE_WHISPER_MODEL.
//
// Usage: bench_dictation
#include "speech/speech_engine.h"
#include "support/null_audio.h"

#include <QElapsedTimer>
#include <QGuiApplication>
#include <QTimer>

#include <QCoro/QCoroTask>

#include <cstdio>

int main(int argc, char *argv[])
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(argc, argv);
    QTemporaryDir dir;
    qputenv("TMPDIR", dir.path().toUtf8());
    NullAudio audio;
    if (!audio.isRunning())
        return 1;
    const QString model = qEnvironmentVariable("CORVANE_WHISPER_MODEL", QStringLiteral(CORVANE_TEST_MODELS_DIR "/whisper-random.bin"));

    std::printf("model: %s\n\n| Recording | stop to text | longest main-thread gap while recording |\n|---:|---:|---:|\n",
                qPrintable(QFileInfo(model).fileName()));
    for (const int seconds : {5, 30}) {
        const QString tone = dir.filePath(QStringLiteral("tone-%1.source").arg(seconds));
        QFile file(tone);
        if (!file.open(QIODevice::WriteOnly) || file.write(toneWav(seconds)) < 0)
            return 1;
        file.close();

        SpeechEngine engine(QStringLiteral("flite"));
        qint64 longestGap = 0;
        QElapsedTimer sinceTurn;
        QTimer ticker;
        ticker.setInterval(2);
        QObject::connect(&ticker, &QTimer::timeout, [&] { longestGap = std::max(longestGap, sinceTurn.restart()); });
        engine.startRecording();
        sinceTurn.start();
        ticker.start();
        if (!audio.playIntoMicrophone(tone))
            return 1;
        ticker.stop();

        QElapsedTimer timer;
        timer.start();
        const QString text = QCoro::waitFor(engine.stopAndTranscribe(model));
        std::printf("| %d s | %.2f s | %lld ms |\n", seconds, double(timer.nsecsElapsed()) / 1e9,
                    static_cast<long long>(longestGap));
    }
    return 0;
}
