#pragma once

#include "speech/pcm_converter.h"
#include "speech/wav_writer.h"

#include <QObject>

#include <memory>
#include <optional>

class QAudioSource;
class QIODevice;

/// Records the default microphone into a WAV file in the format whisper.cpp reads, converting
/// on the fly when the device cannot deliver that format itself. Reading happens as the sound
/// server hands over each few milliseconds of sound, so nothing waits on the device.
class AudioRecorder : public QObject
{
    Q_OBJECT

public:
    explicit AudioRecorder(QObject *parent = nullptr);
    ~AudioRecorder() override;

    /// Starts recording into a new file at `path`. Throws SpeechError: `microphoneDenied`
    /// when there is no microphone or the sound server refuses the stream, `recordingFailed`
    /// when the microphone or the file cannot be started.
    void start(const QString &path);
    /// Stops and completes the file; answers whether it holds a whole recording.
    bool stop();
    bool isRecording() const { return m_source != nullptr; }
    /// Sound recorded so far, in milliseconds.
    qint64 recordedMs() const { return m_writer.dataBytes() / (2 * PcmConverter::outputRate / 1000); }
    /// Loudness of the last moment recorded, 0 to 1.
    double level() const { return m_level; }

Q_SIGNALS:
    /// More sound was recorded: `level` and `recordedMs` moved.
    void recorded();

private:
    void readAvailable();
    void release();

    std::unique_ptr<QAudioSource> m_source;
    QIODevice *m_device = nullptr;
    std::optional<PcmConverter> m_converter;
    WavWriter m_writer;
    double m_level = 0;
};
