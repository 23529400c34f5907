#include "speech/pcm_converter.h"

#include <QtEndian>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

QAudioFormat PcmConverter::outputFormat()
{
    QAudioFormat format;
    format.setSampleRate(outputRate);
    format.setChannelCount(1);
    format.setSampleFormat(QAudioFormat::Int16);
    return format;
}

PcmConverter::PcmConverter(const QAudioFormat &input)
    : m_input(input)
    , m_step(double(input.sampleRate()) / outputRate)
{
}

float PcmConverter::mono(const char *frame) const
{
    const int channels = m_input.channelCount();
    const int width = m_input.bytesPerSample();
    float sum = 0;
    for (int c = 0; c < channels; ++c) {
        const char *sample = frame + c * width;
        switch (m_input.sampleFormat()) {
        case QAudioFormat::UInt8:
            sum += (float(quint8(*sample)) - 128.0f) / 128.0f;
            break;
        case QAudioFormat::Int16:
            sum += float(qFromLittleEndian<qint16>(sample)) / 32768.0f;
            break;
        case QAudioFormat::Int32:
            sum += float(double(qFromLittleEndian<qint32>(sample)) / 2147483648.0);
            break;
        case QAudioFormat::Float: {
            float value;
            std::memcpy(&value, sample, sizeof value);
            sum += value;
            break;
        }
        default:
            break;
        }
    }
    return sum / float(std::max(channels, 1));
}

QByteArray PcmConverter::convert(const QByteArray &chunk)
{
    const int frameBytes = m_input.bytesPerFrame();
    if (frameBytes <= 0 || m_step <= 0)
        return {};
    // A frame split between two reads is completed by the next one.
    const QByteArray bytes = m_partial + chunk;
    const qsizetype whole = bytes.size() - bytes.size() % frameBytes;
    m_partial = bytes.sliced(whole);
    // The chunk's frames as mono, after the last frame of the chunk before.
    std::vector<float> frames;
    frames.reserve(bytes.size() / frameBytes + 1);
    if (m_hasPrevious)
        frames.push_back(m_previous);
    for (qsizetype at = 0; at < whole; at += frameBytes)
        frames.push_back(mono(bytes.constData() + at));
    if (frames.size() < 2) {
        if (!frames.empty()) {
            m_previous = frames.back();
            m_hasPrevious = true;
        }
        return {};
    }

    QByteArray out;
    out.reserve(qsizetype(double(frames.size()) / m_step + 2) * 2);
    const double last = double(frames.size() - 1);
    for (; m_position < last; m_position += m_step) {
        const auto index = std::size_t(m_position);
        const float fraction = float(m_position - double(index));
        const float value = frames[index] * (1 - fraction) + frames[index + 1] * fraction;
        const auto sample = qint16(std::lround(std::clamp(value, -1.0f, 1.0f) * 32767.0f));
        char encoded[2];
        qToLittleEndian(sample, encoded);
        out.append(encoded, 2);
    }
    m_position -= last;
    m_previous = frames.back();
    m_hasPrevious = true;
    return out;
}
