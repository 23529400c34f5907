#pragma once

#include "speech/audio_recorder.h"
#include "speech/speaker.h"

#include <QObject>
#include <QString>

#include <QCoro/QCoroTask>

/// Dictation and spoken replies: records the microphone to a temporary WAV file, has
/// `whisper-cli` write out what was said, and speaks replies with the chosen voice.
class SpeechEngine : public QObject
{
    Q_OBJECT

public:
    /// `speechEngine` names the Qt speech engine for replies; empty picks the best installed.
    explicit SpeechEngine(const QString &speechEngine = {}, QObject *parent = nullptr);
    ~SpeechEngine() override;

    /// Starts recording into a fresh temporary file. Throws SpeechError.
    void startRecording();
    /// Stops the recording and answers what was said in it, transcribed with the Whisper
    /// model file at `model`. Throws SpeechError, or SystemError when whisper-cli cannot be
    /// started. The recording and the transcript's file are removed in every case.
    QCoro::Task<QString> stopAndTranscribe(QString model);
    bool isRecording() const { return m_recorder.isRecording(); }
    /// Runs `program` instead of the whisper-cli beside the application: for tests of what
    /// the real one cannot be made to do.
    void setWhisperProgram(const QString &program) { m_whisperProgram = program; }
    const AudioRecorder &recorder() const { return m_recorder; }

    /// The voice for spoken replies; empty for the system's default.
    void setVoiceID(const QString &id) { m_voiceID = id; }
    const QString &voiceID() const { return m_voiceID; }
    QCoro::Task<QList<Voice>> availableVoices() { return m_speaker.voices(); }
    /// Cuts off any speech at once, then speaks `text` with the chosen voice.
    void speak(const QString &text) { m_speaker.speak(text, m_voiceID); }
    void stopSpeaking() { m_speaker.stop(); }
    Speaker &speaker() { return m_speaker; }

private:
    AudioRecorder m_recorder;
    Speaker m_speaker;
    QString m_recordingPath;
    QString m_voiceID;
    QString m_whisperProgram;
};
