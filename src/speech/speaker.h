#pragma once

#include "speech/voice.h"

#include <QObject>
#include <QTimer>

#include <QCoro/QCoroTask>

#include <memory>
#include <optional>

class FliteSpeech;
class QThread;
class SpeakerWorker;

/// Speaks replies with the system's speech synthesiser: speech-dispatcher where Qt's engine
/// for it is installed, else flite's own voices. speech-dispatcher lives on a thread of its
/// own, because it can hang while it looks for a sound output; what does not answer in time
/// is reported as failed instead of freezing the window.
class Speaker : public QObject
{
    Q_OBJECT

public:
    /// `engine` is "speechd" or "flite"; empty picks speech-dispatcher when installed.
    /// Nothing is loaded until the first voice list or speech.
    explicit Speaker(const QString &engine = {}, QObject *parent = nullptr);
    ~Speaker() override;

    /// Every installed voice, sorted (`Voice::sorted`); asked once, then kept. Empty when the
    /// engine does not answer in time.
    QCoro::Task<QList<Voice>> voices();
    /// Cuts off what is being spoken at once, then speaks `text` (Markdown is read as its
    /// text) with the voice `voiceID` when it is installed, else the default voice.
    void speak(const QString &text, const QString &voiceID);
    /// Stops speaking at once.
    void stop();
    bool isSpeaking() const { return m_speaking; }

    /// What Markdown reads as: the text without its marks.
    static QString plainText(const QString &markdown);

    /// How long speech-dispatcher may take to answer before it is given up on.
    static constexpr int answerTimeoutMs = 8000;

Q_SIGNALS:
    void speakingChanged();
    /// Speaking failed or the synthesiser did not answer; `description` is for the banner.
    void failed(const QString &description);
    /// The engine answered `voices`.
    void voicesListed(const QList<Voice> &voices);

private:
    /// Starts the engine chosen by `m_engine` once.
    void start();
    void setSpeaking(bool speaking);
    void fail();

    QString m_engine;
    std::unique_ptr<FliteSpeech> m_flite;
    QThread *m_thread = nullptr;
    SpeakerWorker *m_worker = nullptr;
    std::optional<QList<Voice>> m_voices;
    bool m_speaking = false;
    QTimer m_answer;
};
