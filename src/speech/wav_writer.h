#pragma once

#include <QFile>
#include <QString>

/// A WAV file of 16 kHz mono signed 16-bit little-endian PCM, written as samples arrive: the
/// header goes first with empty sizes, which `finish` fills in, so that whisper.cpp reads
/// exactly the samples written.
class WavWriter
{
public:
    static constexpr int headerBytes = 44;

    /// Creates the file, readable by this user only. False when it cannot be written.
    bool open(const QString &path);
    bool isOpen() const { return m_file.isOpen(); }
    bool append(const QByteArray &samples);
    /// Fills in the sizes and closes the file; false when that failed.
    bool finish();
    qint64 dataBytes() const { return m_dataBytes; }

    /// The 44-byte header for `dataBytes` bytes of samples.
    static QByteArray header(quint32 dataBytes);

private:
    QFile m_file;
    qint64 m_dataBytes = 0;
    bool m_failed = false;
};
