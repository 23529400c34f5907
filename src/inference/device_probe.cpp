#include "inference/device_probe.h"

#include "platform/auxiliary_executable.h"

#include <QFileInfo>
#include <QLoggingCategory>
#include <QProcess>

#include <QCoro/QCoroProcess>

Q_LOGGING_CATEGORY(lcDeviceProbe, "corvane.inference.devices")

QCoro::Task<DeviceProbe> probeComputeDevices(QString program, std::chrono::milliseconds timeout)
{
    if (program.isEmpty())
        co_return DeviceProbe{};
    QProcess process;
    // llama-server looks for its modules in its own folder and in the working one; only the
    // first is ours.
    process.setWorkingDirectory(QFileInfo(program).absolutePath());
    AuxiliaryExecutable::endWithParent(process);
    // The list goes to standard output; which CPU module it loaded goes to standard error,
    // and only at debug verbosity.
    const QStringList arguments{QStringLiteral("--log-verbosity"), QStringLiteral("5"), QStringLiteral("--list-devices")};
    if (!co_await qCoro(process).start(program, arguments)) {
        qCWarning(lcDeviceProbe) << "could not start" << program << process.errorString();
        co_return DeviceProbe{};
    }
    const bool finished = co_await qCoro(process).waitForFinished(timeout);
    if (!finished) {
        qCWarning(lcDeviceProbe) << "no device list within" << timeout.count() << "ms; using the CPU";
        process.kill();
        co_await qCoro(process).waitForFinished(std::chrono::milliseconds(1000));
        co_return DeviceProbe{};
    }
    if (process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0) {
        qCWarning(lcDeviceProbe) << "listing devices failed with exit code" << process.exitCode();
        co_return DeviceProbe{};
    }
    co_return DeviceProbe::parse(process.readAllStandardOutput(), process.readAllStandardError());
}
