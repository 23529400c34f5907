#include "speech/audio_recorder.h"

#include "speech/speech_error.h"

#include <QAudioDevice>
#include <QAudioSource>
#include <QMediaDevices>
#include <QtEndian>

#include <cmath>

AudioRecorder::AudioRecorder(QObject *parent)
    : QObject(parent)
{
}

AudioRecorder::~AudioRecorder()
{
    if (m_source)
        stop();
}

void AudioRecorder::start(const QString &path)
{
    if (m_source)
        stop();
    // On a desktop without a permission prompt, no microphone at all is the refusal.
    const QAudioDevice device = QMediaDevices::defaultAudioInput();
    if (device.isNull())
        throw SpeechError::microphoneDenied();
    QAudioFormat format = PcmConverter::outputFormat();
    if (!device.isFormatSupported(format))
        format = device.preferredFormat();
    if (!format.isValid() || !m_writer.open(path))
        throw SpeechError::recordingFailed();

    m_converter.emplace(format);
    m_level = 0;
    m_source = std::make_unique<QAudioSource>(device, format);
    m_device = m_source->start();
    if (!m_device || m_source->error() != QAudio::NoError) {
        // A stream the sound server (or the portal in front of it) would not open is a
        // refusal; anything else is the device failing.
        const bool refused = m_source->error() == QAudio::OpenError;
        release();
        m_writer.finish();
        throw refused ? SpeechError::microphoneDenied() : SpeechError::recordingFailed();
    }
    connect(m_device, &QIODevice::readyRead, this, &AudioRecorder::readAvailable);
}

void AudioRecorder::readAvailable()
{
    if (!m_device)
        return;
    const QByteArray samples = m_converter->convert(m_device->readAll());
    if (samples.isEmpty())
        return;
    m_writer.append(samples);
    double sum = 0;
    const qsizetype count = samples.size() / 2;
    for (qsizetype i = 0; i < count; ++i) {
        const double value = qFromLittleEndian<qint16>(samples.constData() + 2 * i) / 32768.0;
        sum += value * value;
    }
    m_level = std::min(1.0, std::sqrt(sum / double(count)) * 4);
    Q_EMIT recorded();
}

bool AudioRecorder::stop()
{
    if (!m_source)
        return false;
    readAvailable();
    release();
    m_level = 0;
    return m_writer.finish();
}

void AudioRecorder::release()
{
    if (m_source)
        m_source->stop();
    m_device = nullptr;
    m_source.reset();
}
