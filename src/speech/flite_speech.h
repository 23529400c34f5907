#pragma once

#include "speech/voice.h"

#include <QByteArray>
#include <QObject>
#include <QTimer>

#include <atomic>
#include <memory>

class QAudioSink;
class QIODevice;
class QThread;
class FliteSynthesizer;

/// Speaks with flite's built-in English voices: each sentence is synthesised on a thread of
/// its own and played here through a sound output this object feeds itself, so stopping cuts
/// the sound off at once and a sound server that is slow to start only delays the first word.
class FliteSpeech : public QObject
{
    Q_OBJECT

public:
    explicit FliteSpeech(QObject *parent = nullptr);
    ~FliteSpeech() override;

    /// flite's voices, sorted.
    static QList<Voice> voices();

    /// Cuts off what is being spoken, then speaks `text` with `voiceID`, or the default voice
    /// when that is not one of `voices`.
    void speak(const QString &text, const QString &voiceID);
    void stop();
    bool isSpeaking() const { return m_speaking; }

Q_SIGNALS:
    void speakingChanged();
    /// Nothing could be played: no sound output, or it failed.
    void failed();

private:
    void received(quint64 generation, const QByteArray &pcm, int sampleRate, bool last);
    void feed();
    void setSpeaking(bool speaking);

    QThread *m_thread;
    FliteSynthesizer *m_synthesizer;
    /// Counts texts; the synthesis thread gives up on any but the current one.
    std::atomic<quint64> m_generation = 0;
    std::unique_ptr<QAudioSink> m_sink;
    QIODevice *m_output = nullptr;
    QByteArray m_pending;
    bool m_synthesised = false;
    bool m_speaking = false;
    QTimer m_feeder;
};
