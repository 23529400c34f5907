#include "speech/speaker.h"

#include "speech/flite_speech.h"
#include "speech/speech_error.h"

#include <QLocale>
#include <QPointer>
#include <QTextDocument>
#include <QTextToSpeech>
#include <QThread>

#include <QCoro/QCoroSignal>

#include <algorithm>

QList<Voice> Voice::sorted(QList<Voice> voices)
{
    std::ranges::sort(voices, [](const Voice &a, const Voice &b) {
        return std::tie(a.language, a.name) < std::tie(b.language, b.name);
    });
    return voices;
}

/// The synthesiser, on the speaker's thread.
class SpeakerWorker : public QObject
{
    Q_OBJECT

public:
    explicit SpeakerWorker(QString engine)
        : m_engine(std::move(engine))
    {
    }

public Q_SLOTS:
    void listVoices()
    {
        QList<Voice> voices;
        QTextToSpeech &speech = synthesiser();
        const QLocale current = speech.locale();
        // The engine lists the voices of one language at a time.
        for (const QLocale &locale : speech.availableLocales()) {
            speech.setLocale(locale);
            const QString language = QLocale::languageToCode(locale.language()) + QLatin1Char('-')
                                     + QLocale::territoryToCode(locale.territory());
            for (const QVoice &voice : speech.availableVoices())
                voices.append({language + QLatin1Char('/') + voice.name(), voice.name(), language});
        }
        speech.setLocale(current);
        m_voices = voices;
        Q_EMIT voicesListed(Voice::sorted(voices));
    }

    void speak(const QString &text, const QString &voiceID)
    {
        QTextToSpeech &speech = synthesiser();
        useVoice(voiceID);
        speech.stop(QTextToSpeech::BoundaryHint::Immediate);
        speech.say(text);
        // The engine took the text: from here on it reports through its state.
        Q_EMIT answered();
    }

    void stop()
    {
        if (m_speech)
            m_speech->stop(QTextToSpeech::BoundaryHint::Immediate);
    }

Q_SIGNALS:
    void voicesListed(const QList<Voice> &voices);
    void stateChanged(bool speaking, bool failed);
    /// A request was taken by the engine.
    void answered();

private:
    QTextToSpeech &synthesiser()
    {
        if (!m_speech) {
            m_speech = new QTextToSpeech(m_engine, this);
            connect(m_speech, &QTextToSpeech::stateChanged, this, [this](QTextToSpeech::State state) {
                Q_EMIT stateChanged(state == QTextToSpeech::Speaking, state == QTextToSpeech::Error);
            });
        }
        return *m_speech;
    }

    void useVoice(const QString &voiceID)
    {
        if (voiceID == m_voiceID)
            return;
        QTextToSpeech &speech = synthesiser();
        m_voiceID = voiceID;
        if (voiceID.isEmpty()) {
            // The system's default voice is the default of the system's language.
            speech.setLocale(QLocale::system());
            return;
        }
        if (m_voices.isEmpty())
            listVoices();
        const auto found = std::ranges::find(m_voices, voiceID, &Voice::id);
        if (found == m_voices.end())
            return;
        speech.setLocale(QLocale(found->language));
        for (const QVoice &voice : speech.availableVoices())
            if (voice.name() == found->name)
                speech.setVoice(voice);
    }

    QString m_engine;
    QTextToSpeech *m_speech = nullptr;
    QList<Voice> m_voices;
    QString m_voiceID;
};

namespace {

/// speech-dispatcher when asked for or, unasked, when Qt's engine for it is installed; else
/// flite, whose voices Corvane plays itself.
bool usesSpeechDispatcher(const QString &engine)
{
    if (!engine.isEmpty())
        return engine == QLatin1String("speechd");
    return QTextToSpeech::availableEngines().contains(QLatin1String("speechd"));
}

} // namespace

Speaker::Speaker(const QString &engine, QObject *parent)
    : QObject(parent)
    , m_engine(engine)
{
    qRegisterMetaType<QList<Voice>>();
    m_answer.setSingleShot(true);
    m_answer.setInterval(answerTimeoutMs);
    connect(&m_answer, &QTimer::timeout, this, [this] {
        setSpeaking(false);
        fail();
    });
}

Speaker::~Speaker()
{
    if (!m_thread)
        return;
    QMetaObject::invokeMethod(m_worker, &SpeakerWorker::stop);
    m_thread->quit();
    // A synthesiser stuck on its sound output is left to the end of the process rather than
    // holding up the window's closing.
    if (m_thread->wait(2000))
        delete m_thread;
}

void Speaker::start()
{
    if (m_flite || m_worker)
        return;
    if (!usesSpeechDispatcher(m_engine)) {
        m_flite = std::make_unique<FliteSpeech>();
        m_voices = FliteSpeech::voices();
        connect(m_flite.get(), &FliteSpeech::speakingChanged, this, [this] { setSpeaking(m_flite->isSpeaking()); });
        connect(m_flite.get(), &FliteSpeech::failed, this, &Speaker::fail);
        return;
    }
    m_thread = new QThread;
    m_worker = new SpeakerWorker(QStringLiteral("speechd"));
    m_worker->moveToThread(m_thread);
    connect(m_thread, &QThread::finished, m_worker, &QObject::deleteLater);
    connect(m_worker, &SpeakerWorker::answered, &m_answer, &QTimer::stop);
    connect(m_worker, &SpeakerWorker::stateChanged, this, [this](bool speaking, bool failed) {
        setSpeaking(speaking);
        if (failed)
            fail();
    });
    connect(m_worker, &SpeakerWorker::voicesListed, this, [this](const QList<Voice> &voices) {
        m_voices = voices;
        Q_EMIT voicesListed(voices);
    });
    m_thread->setObjectName(QStringLiteral("Speaker"));
    m_thread->start();
}

QCoro::Task<QList<Voice>> Speaker::voices()
{
    start();
    if (m_voices)
        co_return *m_voices;
    const QPointer<Speaker> self(this);
    QMetaObject::invokeMethod(m_worker, &SpeakerWorker::listVoices);
    // The list arrives as this thread's signal, so that the wait resumes here.
    auto listed = qCoro(this, &Speaker::voicesListed, std::chrono::milliseconds(answerTimeoutMs));
    const std::optional<QList<Voice>> voices = co_await std::move(listed);
    if (!self)
        co_return {};
    if (!voices) {
        fail();
        co_return {};
    }
    co_return *voices;
}

void Speaker::speak(const QString &text, const QString &voiceID)
{
    const QString plain = plainText(text).trimmed();
    if (plain.isEmpty())
        return;
    start();
    if (m_flite) {
        m_flite->speak(plain, voiceID);
        return;
    }
    QMetaObject::invokeMethod(m_worker, [worker = m_worker, plain, voiceID] { worker->speak(plain, voiceID); });
    m_answer.start();
}

void Speaker::stop()
{
    if (m_flite)
        m_flite->stop();
    else if (m_worker)
        QMetaObject::invokeMethod(m_worker, &SpeakerWorker::stop);
    m_answer.stop();
    setSpeaking(false);
}

void Speaker::setSpeaking(bool speaking)
{
    if (speaking == m_speaking)
        return;
    m_speaking = speaking;
    Q_EMIT speakingChanged();
}

void Speaker::fail()
{
    Q_EMIT failed(SpeechError::speakingFailed().description());
}

QString Speaker::plainText(const QString &markdown)
{
    QTextDocument document;
    document.setMarkdown(markdown);
    return document.toPlainText();
}

#include "speaker.moc"
