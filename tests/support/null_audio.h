#pragma once

// A private PulseAudio server with two null sinks: "mic", whose monitor feeds the default
// source "microphone", so whatever is played into "mic" is what the microphone hears, and
// "speakers", the default output. It must start before anything asks Qt for audio devices: the process is
// pointed at it through PULSE_SERVER, and never starts a server of its own.

#include "speech/pcm_converter.h"
#include "speech/wav_writer.h"

#include <QDataStream>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <cmath>

#include <csignal>
#include <sys/prctl.h>

class NullAudio
{
public:
    NullAudio()
    {
        const QString socket = m_dir.filePath(QStringLiteral("native"));
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("HOME"), m_dir.path());
        environment.insert(QStringLiteral("XDG_RUNTIME_DIR"), m_dir.path());
        m_server.setProcessEnvironment(environment);
        m_server.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_server.setStandardOutputFile(QProcess::nullDevice());
        // A test killed for its time must not leave the server behind.
        m_server.setChildProcessModifier([] { prctl(PR_SET_PDEATHSIG, SIGTERM); });
        m_server.start(QStringLiteral("pulseaudio"),
                       {"-n", "--daemonize=no", "--exit-idle-time=-1", "--use-pid-file=no", "--disable-shm=yes",
                        "--log-level=0", "-L", "module-native-protocol-unix auth-anonymous=1 socket=" + socket, "-L",
                        "module-null-sink sink_name=mic", "-L", "module-null-sink sink_name=speakers", "-L",
                        // Qt lists no monitors among microphones: the monitor is wrapped in a source.
                        "module-remap-source master=mic.monitor source_name=microphone"});
        for (int waited = 0; waited < 100 && !QFileInfo::exists(socket); ++waited)
            QTest::qWait(100);
        pointAt("unix:" + socket);
        pactl({"set-default-sink", "speakers"});
        pactl({"set-default-source", "microphone"});
    }

    ~NullAudio()
    {
        m_server.terminate();
        m_server.waitForFinished(5000);
    }

    bool isRunning() const { return m_server.state() == QProcess::Running && QFileInfo::exists(m_dir.filePath("native")); }

    /// Plays the WAV file `path` into the microphone, in real time, with the event loop
    /// running; answers when it is done.
    bool playIntoMicrophone(const QString &path)
    {
        QProcess player;
        player.start(QStringLiteral("paplay"), {QStringLiteral("--device=mic"), path});
        for (int waited = 0; waited < 600 && player.state() != QProcess::NotRunning; ++waited)
            QTest::qWait(100);
        return player.state() == QProcess::NotRunning && player.exitCode() == 0;
    }

    /// Whether anything is being played to the speakers now.
    bool somethingPlays()
    {
        QProcess list;
        list.start(QStringLiteral("pactl"), {QStringLiteral("list"), QStringLiteral("short"), QStringLiteral("sink-inputs")});
        list.waitForFinished(10000);
        return !list.readAllStandardOutput().trimmed().isEmpty();
    }

    /// Points this process at `server` without starting one when it is not there: a machine
    /// without sound when `server` does not exist.
    static void pointAt(const QString &server)
    {
        qputenv("PULSE_SERVER", server.toUtf8());
        static QTemporaryDir config;
        const QString file = config.filePath(QStringLiteral("client.conf"));
        QFile conf(file);
        if (conf.open(QIODevice::WriteOnly))
            conf.write("autospawn = no\n");
        qputenv("PULSE_CLIENTCONFIG", file.toUtf8());
    }

private:
    void pactl(const QStringList &arguments)
    {
        QProcess control;
        control.start(QStringLiteral("pactl"), arguments);
        control.waitForFinished(10000);
    }

    QTemporaryDir m_dir;
    QProcess m_server;
};

/// `seconds` of a tone at `hertz` as a 16 kHz mono 16-bit WAV file.
inline QByteArray toneWav(double seconds, double hertz = 440)
{
    const auto samples = quint32(seconds * PcmConverter::outputRate);
    QByteArray wav = WavWriter::header(2 * samples);
    QDataStream out(&wav, QIODevice::Append);
    out.setByteOrder(QDataStream::LittleEndian);
    for (quint32 i = 0; i < samples; ++i)
        out << qint16(12000 * std::sin(2 * M_PI * hertz * i / PcmConverter::outputRate));
    return wav;
}
