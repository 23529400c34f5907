#include "speech/speech_engine.h"

#include "platform/auxiliary_executable.h"
#include "speech/speech_error.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QUuid>

#include <QCoro/QCoroProcess>

namespace {

QString temporaryPath(const QString &suffix)
{
    return QDir(QDir::tempPath()).filePath(QUuid::createUuid().toString(QUuid::WithoutBraces) + suffix);
}

/// Removes the files it names when it goes, whatever way the transcription ends.
struct RemovedAtEnd
{
    QStringList paths;
    ~RemovedAtEnd()
    {
        for (const QString &path : paths)
            QFile::remove(path);
    }
};

} // namespace

SpeechEngine::SpeechEngine(const QString &speechEngine, QObject *parent)
    : QObject(parent)
    , m_speaker(speechEngine)
{
}

SpeechEngine::~SpeechEngine()
{
    if (m_recorder.isRecording()) {
        m_recorder.stop();
        QFile::remove(m_recordingPath);
    }
}

void SpeechEngine::startRecording()
{
    const QString path = temporaryPath(QStringLiteral(".wav"));
    try {
        m_recorder.start(path);
    } catch (...) {
        QFile::remove(path);
        throw;
    }
    m_recordingPath = path;
}

QCoro::Task<QString> SpeechEngine::stopAndTranscribe(QString model)
{
    const QString recording = std::exchange(m_recordingPath, QString());
    const bool recorded = m_recorder.stop();
    const QString outputBase = temporaryPath(QString());
    const RemovedAtEnd cleanup{{recording, outputBase + QStringLiteral(".txt")}};
    if (!recorded || recording.isEmpty())
        throw SpeechError::recordingFailed();

    const QString program = m_whisperProgram.isEmpty() ? AuxiliaryExecutable::find(QStringLiteral("whisper-cli"))
                                                       : m_whisperProgram;
    if (program.isEmpty() || !QFileInfo(program).isExecutable())
        throw SpeechError::missingRuntime();
    QProcess process;
    process.setStandardOutputFile(QProcess::nullDevice());
    process.setStandardErrorFile(QProcess::nullDevice());
    AuxiliaryExecutable::endWithParent(process);
    const QStringList arguments{QStringLiteral("-m"), model,         QStringLiteral("-f"),  recording,
                                QStringLiteral("-l"), QStringLiteral("auto"), QStringLiteral("-otxt"),
                                QStringLiteral("-of"), outputBase,   QStringLiteral("-np")};
    if (!co_await qCoro(process).start(program, arguments))
        throw SystemError(process.errorString());
    if (process.state() != QProcess::NotRunning)
        co_await qCoro(process).waitForFinished(std::chrono::milliseconds(-1));
    if (process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0)
        throw SpeechError::transcriptionFailed();

    QFile text(outputBase + QStringLiteral(".txt"));
    if (!text.open(QIODevice::ReadOnly))
        throw SpeechError::transcriptionFailed();
    co_return QString::fromUtf8(text.readAll()).trimmed();
}
