#pragma once

// A software TPM 2.0 of the test's own: swtpm (Debian's `swtpm`) on Unix sockets in a
// temporary folder that also holds its state, so that it can be stopped and started again on
// the same state, like a computer that restarts.
//
//     SoftwareTpm tpm;
//     QVERIFY(tpm.start());
//     qputenv("CORVANE_TPM_TCTI", tpm.tcti().toUtf8());   // or Tpm(tpm.tcti())
//
// swtpm ends with the SoftwareTpm, and with the test process if that dies first. A test that
// includes this header links PkgConfig::TSS2 (tpm2-tss: ESYS and the TCTI loader), which it
// uses to see when swtpm answers and to clear it.

#include <QByteArray>
#include <QDeadlineTimer>
#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QString>
#include <QTemporaryDir>
#include <QThread>

#include <tss2_esys.h>
#include <tss2_tctildr.h>

#include <signal.h>
#include <sys/prctl.h>

class SoftwareTpm
{
public:
    SoftwareTpm() = default;
    ~SoftwareTpm() { stop(); }

    SoftwareTpm(const SoftwareTpm &) = delete;
    SoftwareTpm &operator=(const SoftwareTpm &) = delete;

    /// Starts swtpm on this object's state (a new TPM the first time, manufactured then) and
    /// waits until it answers commands. False when it did not: see errorString().
    bool start()
    {
        stop();
        if (!m_state.isValid()) {
            m_error = QStringLiteral("No temporary folder: ") + m_state.errorString();
            return false;
        }
        // Gone with its parent even when the test crashes. The signal follows the thread that
        // started it: start swtpm on a thread that lives as long as it should.
        m_process.setChildProcessModifier([] { prctl(PR_SET_PDEATHSIG, SIGKILL); });
        m_process.setProcessChannelMode(QProcess::MergedChannels);
        m_process.start(QStringLiteral("swtpm"),
                        {QStringLiteral("socket"), QStringLiteral("--tpm2"),
                         QStringLiteral("--tpmstate"), QStringLiteral("dir=") + m_state.path(),
                         QStringLiteral("--server"), QStringLiteral("type=unixio,path=") + socketPath(),
                         QStringLiteral("--ctrl"),
                         QStringLiteral("type=unixio,path=") + socketPath() + QStringLiteral(".ctrl"),
                         QStringLiteral("--flags"), QStringLiteral("not-need-init,startup-clear")});
        if (!m_process.waitForStarted()) {
            m_error = QStringLiteral("swtpm did not start: ") + m_process.errorString();
            return false;
        }
        const QDeadlineTimer deadline(10000);
        while (!deadline.hasExpired()) {
            if (m_process.state() != QProcess::Running) {
                m_error = QStringLiteral("swtpm ended: ") + QString::fromLocal8Bit(m_process.readAll());
                return false;
            }
            // Asking before both sockets exist would only log the TCTI's connection errors.
            if (QFileInfo::exists(socketPath()) && QFileInfo::exists(socketPath() + QStringLiteral(".ctrl"))
                && answers())
                return true;
            QThread::msleep(20);
        }
        m_error = QStringLiteral("swtpm did not answer");
        stop();
        return false;
    }

    /// Stops swtpm; its state stays for the next start().
    void stop()
    {
        if (m_process.state() == QProcess::NotRunning)
            return;
        m_process.terminate();
        if (!m_process.waitForFinished(5000)) {
            m_process.kill();
            m_process.waitForFinished();
        }
    }

    /// The TCTI configuration of the running TPM, as tpm2-tss's TCTI loader reads it.
    QString tcti() const { return QStringLiteral("swtpm:path=") + socketPath(); }

    /// TPM2_Clear through the platform hierarchy, whose authorisation swtpm leaves empty: as
    /// when the user clears the TPM in the firmware's settings. The owner hierarchy gets new
    /// seeds, so every key made under it before is gone.
    bool clear()
    {
        return withEsys([](ESYS_CONTEXT *esys) {
            return Esys_Clear(esys, ESYS_TR_RH_PLATFORM, ESYS_TR_PASSWORD, ESYS_TR_NONE,
                              ESYS_TR_NONE);
        });
    }

    QString errorString() const { return m_error; }

private:
    QString socketPath() const { return m_state.filePath(QStringLiteral("tpm.sock")); }

    bool answers()
    {
        return withEsys([](ESYS_CONTEXT *esys) {
            TPMI_YES_NO moreData = TPM2_NO;
            TPMS_CAPABILITY_DATA *data = nullptr;
            const TSS2_RC rc = Esys_GetCapability(esys, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE,
                                                  TPM2_CAP_TPM_PROPERTIES, TPM2_PT_MANUFACTURER, 1,
                                                  &moreData, &data);
            Esys_Free(data);
            return rc;
        });
    }

    /// Runs `command` on a connection of its own; true when it succeeded.
    template <typename Command>
    bool withEsys(Command command)
    {
        const QByteArray conf = tcti().toUtf8();
        TSS2_TCTI_CONTEXT *tcti = nullptr;
        ESYS_CONTEXT *esys = nullptr;
        TSS2_RC rc = Tss2_TctiLdr_Initialize(conf.constData(), &tcti);
        if (rc == TSS2_RC_SUCCESS) {
            rc = Esys_Initialize(&esys, tcti, nullptr);
            if (rc == TSS2_RC_SUCCESS) {
                rc = command(esys);
                Esys_Finalize(&esys);
            }
            Tss2_TctiLdr_Finalize(&tcti);
        }
        if (rc != TSS2_RC_SUCCESS)
            m_error = QStringLiteral("TPM error 0x%1").arg(rc, 0, 16);
        return rc == TSS2_RC_SUCCESS;
    }

    QTemporaryDir m_state;
    QProcess m_process;
    QString m_error;
};
