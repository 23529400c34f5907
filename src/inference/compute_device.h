#pragma once

#include <QList>
#include <QString>

#include <optional>

/// A device llama-server can run a model on besides the processor, as its `--list-devices`
/// names it ("CUDA0", "Vulkan1").
struct ComputeDevice
{
    QString name;
    QString description;
    qint64 totalMiB = 0;
    /// Shares the computer's memory rather than having its own.
    bool integrated = false;
    /// A Vulkan driver that runs on the processor (llvmpipe): slower than the CPU code, so
    /// never chosen automatically.
    bool software = false;

    /// The backend part of the name: "CUDA", "Vulkan".
    QString backend() const;
    /// For Settings and a reply's details: "NVIDIA H100 80GB HBM3 (CUDA)".
    QString label() const;

    bool operator==(const ComputeDevice &) const = default;
};

/// What one `llama-server --list-devices` run tells: the devices, and which build of the CPU
/// code it loaded for this processor.
struct DeviceProbe
{
    QList<ComputeDevice> devices;
    /// The CPU module's variant ("haswell", "icelake"); empty when the server did not say.
    QString cpuVariant;

    /// Reads the program's standard output (the list) and error (what it loaded). Lines it
    /// does not know are skipped, so garbage gives an empty probe: the CPU.
    static DeviceProbe parse(const QByteArray &standardOutput, const QByteArray &standardError);
};

namespace DevicePreference {
/// What the user asked replies to run on, as stored: automatic, the CPU only, or a device name.
inline const QString automatic = QStringLiteral("auto");
inline const QString cpuOnly = QStringLiteral("cpu");
} // namespace DevicePreference

/// The device replies run on for `preference`; nothing means the CPU. Automatic prefers CUDA,
/// then a discrete Vulkan GPU, then an integrated one, and the one with most memory among
/// equals, never a software device; a named device that is no longer there counts as
/// automatic.
std::optional<ComputeDevice> chooseDevice(const QList<ComputeDevice> &devices, const QString &preference);

/// "CPU, AVX-512" for the variant llama-server loaded; "CPU" when it is unknown.
QString cpuLabel(const QString &variant);
