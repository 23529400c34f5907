#pragma once

#include "speech/voice.h"

#include <QObject>
#include <QString>
#include <QVariantList>

#include <QCoro/QCoroTask>

class AppSettings;
class ChatSession;
class ModelsController;
class SpeechEngine;
class StatusBanner;

/// Dictation from the microphone button and replies spoken aloud: recording, then the
/// transcription put in the composer for the user to read over (never sent by itself); the
/// voice setting and the Stop speaking control.
class Speech : public QObject
{
    Q_OBJECT
    Q_PROPERTY(bool isRecording READ isRecording NOTIFY recordingChanged)
    Q_PROPERTY(bool isTranscribing READ isTranscribing NOTIFY recordingChanged)
    Q_PROPERTY(bool isSpeaking READ isSpeaking NOTIFY speakingChanged)
    /// Seconds recorded so far and the loudness of the last moment, 0 to 1.
    Q_PROPERTY(int recordedSeconds READ recordedSeconds NOTIFY levelChanged)
    Q_PROPERTY(double level READ level NOTIFY levelChanged)
    /// The installed voices, sorted, as {id, name, language}; empty until `loadVoices`.
    Q_PROPERTY(QVariantList voices READ voices NOTIFY voicesChanged)

public:
    Speech(SpeechEngine &engine, ChatSession &chat, const ModelsController &models, AppSettings &settings,
           StatusBanner &status, QObject *parent = nullptr);

    bool isRecording() const { return m_recording; }
    bool isTranscribing() const { return m_transcribing; }
    bool isSpeaking() const;
    int recordedSeconds() const;
    double level() const;
    QVariantList voices() const;

    /// Starts recording, or stops and transcribes into the composer.
    Q_INVOKABLE void toggleRecording();
    /// `toggleRecording`, awaitable.
    QCoro::Task<> toggle();
    /// Asks the speech engine for its voices.
    Q_INVOKABLE void loadVoices();
    /// Speaks replies with `id`; ignored unless it is one of `voices` or empty (the default).
    Q_INVOKABLE void selectVoice(const QString &id);
    Q_INVOKABLE void stopSpeaking();
    /// Speaks a stored reply aloud, cutting off what was being spoken.
    void speak(const QString &text);

Q_SIGNALS:
    void recordingChanged();
    void speakingChanged();
    void levelChanged();
    void voicesChanged();

private:
    QCoro::Task<> fetchVoices();
    void setState(bool recording, bool transcribing);

    SpeechEngine &m_engine;
    ChatSession &m_chat;
    const ModelsController &m_models;
    AppSettings &m_settings;
    StatusBanner &m_status;
    bool m_recording = false;
    bool m_transcribing = false;
    QList<Voice> m_voices;
};
