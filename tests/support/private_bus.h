#pragma once

// A dbus-daemon of the test's own, as a session bus: any name may be owned, anything sent.

#include <QFile>
#include <QProcess>
#include <QString>
#include <QTemporaryDir>

class PrivateBus
{
public:
    ~PrivateBus()
    {
        m_daemon.terminate();
        m_daemon.waitForFinished();
    }

    /// Starts the daemon; answers its address, or an empty string when it did not start.
    QString start()
    {
        QFile config(m_dir.filePath(QStringLiteral("bus.conf")));
        if (!config.open(QIODevice::WriteOnly))
            return {};
        config.write("<busconfig><type>session</type><listen>unix:dir=" + m_dir.path().toUtf8()
                     + "</listen><auth>EXTERNAL</auth><policy context='default'><allow own='*'/>"
                       "<allow send_destination='*'/><allow receive_sender='*'/></policy></busconfig>");
        config.close();
        m_daemon.start(QStringLiteral("dbus-daemon"),
                       {QStringLiteral("--config-file=") + config.fileName(), QStringLiteral("--nofork"),
                        QStringLiteral("--nopidfile"), QStringLiteral("--print-address=1")});
        if (!m_daemon.waitForReadyRead(10000))
            return {};
        return QString::fromUtf8(m_daemon.readLine().trimmed());
    }

private:
    QTemporaryDir m_dir;
    QProcess m_daemon;
};
