#pragma once

#include <QAudioFormat>
#include <QByteArray>

/// Turns the samples a microphone delivers, in whatever format it opened with, into what
/// whisper.cpp reads: 16,000 frames a second, one channel, signed 16-bit little-endian.
/// Channels are averaged and the rate is changed by linear interpolation, which is plenty
/// for speech; it keeps its place between chunks, so a recording can be fed in pieces.
class PcmConverter
{
public:
    static constexpr int outputRate = 16000;

    /// The format whisper.cpp reads.
    static QAudioFormat outputFormat();

    explicit PcmConverter(const QAudioFormat &input);

    /// The converted samples of `chunk`; a frame it ends in the middle of waits for the next.
    QByteArray convert(const QByteArray &chunk);

private:
    float mono(const char *frame) const;

    QAudioFormat m_input;
    double m_step;          ///< input frames per output frame
    double m_position = 0;  ///< of the next output frame, in input frames from `m_previous`
    float m_previous = 0;   ///< the last input frame of the chunk before
    bool m_hasPrevious = false;
    QByteArray m_partial;
};
