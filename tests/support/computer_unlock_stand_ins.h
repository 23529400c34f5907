#pragma once

// What unlocking with this computer needs, stood in for: swtpm as the TPM and a fake polkit on
// a system bus of the test's own, both named in the environment for the application to find.
// Start it before anything in the process touches the system bus (see fake_polkit.h), in
// initTestCase. A test that includes this links PkgConfig::TSS2 and Qt6::DBus.

#include "support/fake_polkit.h"
#include "support/private_bus.h"
#include "support/software_tpm.h"

#include <memory>

class ComputerUnlockStandIns
{
public:
    /// Empty when both run and the environment points at them; else what went wrong.
    QString start()
    {
        const QString address = m_bus.start();
        if (address.isEmpty())
            return QStringLiteral("the private system bus did not start");
        qputenv("DBUS_SYSTEM_BUS_ADDRESS", address.toUtf8());
        m_polkit = std::make_unique<FakePolkit>(QDBusConnection::connectToBus(address, QStringLiteral("fake-polkit")));
        if (!m_polkit->start())
            return QStringLiteral("the stand-in polkit did not take its name");
        if (!m_tpm.start())
            return m_tpm.errorString();
        qputenv("CORVANE_TPM_TCTI", m_tpm.tcti().toUtf8());
        return {};
    }

    FakePolkit &polkit() { return *m_polkit; }
    SoftwareTpm &tpm() { return m_tpm; }

private:
    PrivateBus m_bus;
    std::unique_ptr<FakePolkit> m_polkit;
    SoftwareTpm m_tpm;
};
