#include "speech/wav_writer.h"

#include "speech/pcm_converter.h"

#include <QtEndian>

namespace {

void put32(QByteArray &out, quint32 value)
{
    char bytes[4];
    qToLittleEndian(value, bytes);
    out.append(bytes, 4);
}

void put16(QByteArray &out, quint16 value)
{
    char bytes[2];
    qToLittleEndian(value, bytes);
    out.append(bytes, 2);
}

} // namespace

QByteArray WavWriter::header(quint32 dataBytes)
{
    constexpr quint16 channels = 1;
    constexpr quint16 bitsPerSample = 16;
    constexpr quint32 rate = PcmConverter::outputRate;
    QByteArray out;
    out.reserve(headerBytes);
    out.append("RIFF", 4);
    put32(out, 36 + dataBytes);
    out.append("WAVEfmt ", 8);
    put32(out, 16); // the size of the format chunk
    put16(out, 1);  // linear PCM
    put16(out, channels);
    put32(out, rate);
    put32(out, rate * channels * bitsPerSample / 8);
    put16(out, channels * bitsPerSample / 8);
    put16(out, bitsPerSample);
    out.append("data", 4);
    put32(out, dataBytes);
    return out;
}

bool WavWriter::open(const QString &path)
{
    m_file.setFileName(path);
    m_dataBytes = 0;
    m_failed = false;
    if (!m_file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    m_file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    return m_file.write(header(0)) == headerBytes;
}

bool WavWriter::append(const QByteArray &samples)
{
    if (samples.isEmpty())
        return !m_failed;
    if (m_file.write(samples) != samples.size())
        m_failed = true;
    else
        m_dataBytes += samples.size();
    return !m_failed;
}

bool WavWriter::finish()
{
    if (!m_file.isOpen())
        return false;
    const QByteArray sizes = header(quint32(m_dataBytes));
    const bool written = !m_failed && m_file.seek(4) && m_file.write(sizes.mid(4, 4)) == 4 && m_file.seek(40)
                         && m_file.write(sizes.mid(40, 4)) == 4 && m_file.flush();
    m_file.close();
    return written;
}
