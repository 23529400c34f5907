#include "speech/flite_speech.h"

#include <QAudioSink>
#include <QHash>
#include <QMediaDevices>
#include <QTextBoundaryFinder>
#include <QThread>

#include <flite/flite.h>

extern "C" {
cst_voice *register_cmu_us_awb(const char *voxdir);
cst_voice *register_cmu_us_kal(const char *voxdir);
cst_voice *register_cmu_us_kal16(const char *voxdir);
cst_voice *register_cmu_us_rms(const char *voxdir);
cst_voice *register_cmu_us_slt(const char *voxdir);
}

namespace {

struct FliteVoice
{
    const char *name;
    const char *language;
    cst_voice *(*registerVoice)(const char *);
};

// The first is the default: the clearest of them.
constexpr FliteVoice s_voices[] = {
    {"slt", "en-US", register_cmu_us_slt},   {"awb", "en-GB", register_cmu_us_awb},
    {"kal", "en-US", register_cmu_us_kal},   {"kal16", "en-US", register_cmu_us_kal16},
    {"rms", "en-US", register_cmu_us_rms},
};

QString voiceID(const FliteVoice &voice)
{
    return QString::fromLatin1(voice.language) + QLatin1Char('/') + QString::fromLatin1(voice.name);
}

/// `text` in sentences, long ones cut at spaces: each is synthesised while the one before
/// plays, so speech starts after the first sentence, not after the whole reply.
QStringList sentences(const QString &text)
{
    constexpr qsizetype longest = 300;
    QStringList pieces;
    QTextBoundaryFinder sentences(QTextBoundaryFinder::Sentence, text);
    qsizetype from = 0;
    while (from < text.size()) {
        qsizetype to = sentences.toNextBoundary();
        if (to < 0)
            to = text.size();
        QString sentence = text.sliced(from, to - from).simplified();
        from = to;
        while (sentence.size() > longest) {
            qsizetype cut = sentence.lastIndexOf(QLatin1Char(' '), longest);
            if (cut <= 0)
                cut = longest;
            pieces.append(sentence.first(cut));
            sentence = sentence.sliced(cut).trimmed();
        }
        if (!sentence.isEmpty())
            pieces.append(sentence);
    }
    return pieces;
}

} // namespace

/// flite itself, on the speech thread: one text at a time, a piece after the other, giving up
/// between pieces once another text is wanted.
class FliteSynthesizer : public QObject
{
    Q_OBJECT

public:
    explicit FliteSynthesizer(const std::atomic<quint64> &wanted)
        : m_wanted(wanted)
    {
    }

    void synthesize(quint64 generation, const QStringList &pieces, const QString &voiceID)
    {
        cst_voice *voice = voiceFor(voiceID);
        for (qsizetype i = 0; i < pieces.size(); ++i) {
            if (m_wanted != generation)
                return;
            cst_wave *wave = voice ? flite_text_to_wave(pieces[i].toUtf8().constData(), voice) : nullptr;
            QByteArray pcm;
            int rate = 16000;
            if (wave) {
                rate = wave->sample_rate;
                pcm = QByteArray(reinterpret_cast<const char *>(wave->samples),
                                 qsizetype(wave->num_samples) * wave->num_channels * qsizetype(sizeof(short)));
                delete_wave(wave);
            }
            Q_EMIT synthesized(generation, pcm, rate, i + 1 == pieces.size());
        }
    }

Q_SIGNALS:
    void synthesized(quint64 generation, const QByteArray &pcm, int sampleRate, bool last);

private:
    cst_voice *voiceFor(const QString &id)
    {
        if (!m_initialised) {
            flite_init();
            m_initialised = true;
        }
        const FliteVoice *chosen = &s_voices[0];
        for (const FliteVoice &voice : s_voices)
            if (voiceID(voice) == id)
                chosen = &voice;
        cst_voice *&loaded = m_loaded[chosen->name];
        if (!loaded)
            loaded = chosen->registerVoice(nullptr);
        return loaded;
    }

    const std::atomic<quint64> &m_wanted;
    bool m_initialised = false;
    QHash<QByteArray, cst_voice *> m_loaded;
};

FliteSpeech::FliteSpeech(QObject *parent)
    : QObject(parent)
    , m_thread(new QThread)
{
    m_synthesizer = new FliteSynthesizer(m_generation);
    m_synthesizer->moveToThread(m_thread);
    connect(m_thread, &QThread::finished, m_synthesizer, &QObject::deleteLater);
    connect(m_synthesizer, &FliteSynthesizer::synthesized, this, &FliteSpeech::received);
    m_feeder.setInterval(20);
    connect(&m_feeder, &QTimer::timeout, this, &FliteSpeech::feed);
    m_thread->setObjectName(QStringLiteral("Speech synthesis"));
    m_thread->start();
}

FliteSpeech::~FliteSpeech()
{
    stop();
    m_thread->quit();
    m_thread->wait();
    delete m_thread;
}

QList<Voice> FliteSpeech::voices()
{
    QList<Voice> voices;
    for (const FliteVoice &voice : s_voices)
        voices.append({voiceID(voice), QString::fromLatin1(voice.name), QString::fromLatin1(voice.language)});
    return Voice::sorted(voices);
}

void FliteSpeech::speak(const QString &text, const QString &voiceID)
{
    stop();
    const QStringList pieces = sentences(text);
    if (pieces.isEmpty())
        return;
    if (QMediaDevices::defaultAudioOutput().isNull()) {
        Q_EMIT failed();
        return;
    }
    const quint64 generation = ++m_generation;
    m_synthesised = false;
    setSpeaking(true);
    QMetaObject::invokeMethod(m_synthesizer, [synthesizer = m_synthesizer, generation, pieces, voiceID] {
        synthesizer->synthesize(generation, pieces, voiceID);
    });
}

void FliteSpeech::stop()
{
    ++m_generation;
    m_feeder.stop();
    m_pending.clear();
    m_output = nullptr;
    if (m_sink) {
        m_sink->stop();
        m_sink.reset();
    }
    setSpeaking(false);
}

void FliteSpeech::received(quint64 generation, const QByteArray &pcm, int sampleRate, bool last)
{
    if (generation != m_generation)
        return;
    m_pending += pcm;
    m_synthesised = last;
    if (!m_sink) {
        QAudioFormat format;
        format.setSampleRate(sampleRate);
        format.setChannelCount(1);
        format.setSampleFormat(QAudioFormat::Int16);
        m_sink = std::make_unique<QAudioSink>(QMediaDevices::defaultAudioOutput(), format);
        m_output = m_sink->start();
        if (!m_output || m_sink->error() != QAudio::NoError) {
            stop();
            Q_EMIT failed();
            return;
        }
        m_feeder.start();
    }
    feed();
}

void FliteSpeech::feed()
{
    if (!m_sink || !m_output)
        return;
    if (m_sink->error() != QAudio::NoError && m_sink->error() != QAudio::UnderrunError) {
        stop();
        Q_EMIT failed();
        return;
    }
    if (!m_pending.isEmpty()) {
        const qint64 written = m_output->write(m_pending.constData(), std::min<qint64>(m_pending.size(), m_sink->bytesFree()));
        if (written > 0)
            m_pending.remove(0, written);
        return;
    }
    // All handed over: done once the output has played it out.
    if (m_synthesised && (m_sink->state() == QAudio::IdleState || m_sink->bytesFree() >= m_sink->bufferSize())) {
        m_feeder.stop();
        m_sink->stop();
        m_sink.reset();
        m_output = nullptr;
        setSpeaking(false);
    }
}

void FliteSpeech::setSpeaking(bool speaking)
{
    if (speaking == m_speaking)
        return;
    m_speaking = speaking;
    Q_EMIT speakingChanged();
}

#include "flite_speech.moc"
