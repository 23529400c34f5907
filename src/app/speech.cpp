#include "app/speech.h"

#include "app/app_settings.h"
#include "app/chat_session.h"
#include "app/models_controller.h"
#include "app/status_banner.h"
#include "speech/speech_engine.h"

#include <QPointer>

Speech::Speech(SpeechEngine &engine, ChatSession &chat, const ModelsController &models, AppSettings &settings,
               StatusBanner &status, QObject *parent)
    : QObject(parent)
    , m_engine(engine)
    , m_chat(chat)
    , m_models(models)
    , m_settings(settings)
    , m_status(status)
{
    m_engine.setVoiceID(m_settings.selectedVoiceID());
    connect(&m_settings, &AppSettings::changed, this, [this] { m_engine.setVoiceID(m_settings.selectedVoiceID()); });
    connect(&m_engine.speaker(), &Speaker::speakingChanged, this, &Speech::speakingChanged);
    connect(&m_engine.speaker(), &Speaker::failed, this,
            [this](const QString &description) { m_status.showError(CorvaneError(description)); });
    connect(&m_engine.recorder(), &AudioRecorder::recorded, this, &Speech::levelChanged);
}

bool Speech::isSpeaking() const
{
    return m_engine.speaker().isSpeaking();
}

int Speech::recordedSeconds() const
{
    return int(m_engine.recorder().recordedMs() / 1000);
}

double Speech::level() const
{
    return m_engine.recorder().level();
}

QVariantList Speech::voices() const
{
    QVariantList list;
    for (const Voice &voice : m_voices)
        list.append(QVariantMap{{QStringLiteral("id"), voice.id},
                                {QStringLiteral("name"), voice.name},
                                {QStringLiteral("language"), voice.language}});
    return list;
}

void Speech::toggleRecording()
{
    toggle();
}

QCoro::Task<> Speech::toggle()
{
    if (m_transcribing)
        co_return;
    const std::optional<ModelSpec> model = m_models.whisperModel();
    if (!m_recording) {
        if (!model) {
            m_status.showError(CorvaneError(QStringLiteral("Install a dictation model in Settings to dictate")));
            co_return;
        }
        if (m_status.attempt([this] { m_engine.startRecording(); }))
            setState(true, false);
        co_return;
    }

    setState(false, true);
    m_status.show(QStringLiteral("Transcribing locally…"));
    const QPointer<Speech> self(this);
    try {
        // The model may have been removed while recording; the recording is lost either way.
        QCoro::Task<QString> transcribing = m_engine.stopAndTranscribe(model ? m_models.filePath(*model) : QString());
        const QString text = co_await std::move(transcribing);
        if (!self)
            co_return;
        m_chat.setComposer(text);
        m_status.show(QStringLiteral("Review transcription, then send"));
    } catch (const std::exception &error) {
        if (!self)
            co_return;
        m_status.showError(error);
    }
    setState(false, false);
}

void Speech::setState(bool recording, bool transcribing)
{
    m_recording = recording;
    m_transcribing = transcribing;
    Q_EMIT recordingChanged();
    Q_EMIT levelChanged();
}

void Speech::loadVoices()
{
    // The engine asks once and keeps the list; a list that did not come is asked for again.
    fetchVoices();
}

QCoro::Task<> Speech::fetchVoices()
{
    const QPointer<Speech> self(this);
    QCoro::Task<QList<Voice>> listing = m_engine.availableVoices();
    const QList<Voice> voices = co_await std::move(listing);
    if (!self)
        co_return;
    m_voices = voices;
    Q_EMIT voicesChanged();
}

void Speech::selectVoice(const QString &id)
{
    if (!id.isEmpty() && std::ranges::find(m_voices, id, &Voice::id) == m_voices.end())
        return;
    m_settings.setSelectedVoiceID(id);
}

void Speech::stopSpeaking()
{
    m_engine.stopSpeaking();
}

void Speech::speak(const QString &text)
{
    m_engine.speak(text);
}
