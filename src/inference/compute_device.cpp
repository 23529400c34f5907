#include "inference/compute_device.h"

#include <QRegularExpression>

#include <algorithm>

namespace {

// The list names devices, not kinds, and the Vulkan module's own line on a device's kind never
// reaches llama-server's output, whatever the verbosity: integrated parts are known by their
// names. Intel's only discrete cards are the Arc A and B series and its data centre parts;
// every other Intel device shares the computer's memory.
bool looksIntegrated(const QString &backend, const QString &description)
{
    if (backend != QLatin1String("Vulkan"))
        return false;
    static const QRegularExpression intel(QStringLiteral("^Intel\\(R\\)"));
    static const QRegularExpression intelDiscrete(QStringLiteral("Arc\\(tm\\) (Pro )?[AB]\\d|Data Center GPU"),
                                                  QRegularExpression::CaseInsensitiveOption);
    if (intel.match(description).hasMatch())
        return !intelDiscrete.match(description).hasMatch();
    static const QRegularExpression otherIntegrated(
        QStringLiteral("Radeon(\\(TM\\))? (Graphics|Vega \\d|\\d{3}M)|Adreno|Mali|Apple M\\d|PowerVR"),
        QRegularExpression::CaseInsensitiveOption);
    return otherIntegrated.match(description).hasMatch();
}

// Vulkan drivers that run on the processor, slower than llama.cpp's own CPU code. The module
// lists them only when GGML_VK_VISIBLE_DEVICES names them.
bool looksSoftware(const QString &backend, const QString &description)
{
    static const QRegularExpression softwareNames(QStringLiteral("^(llvmpipe|lavapipe|SwiftShader)"),
                                                  QRegularExpression::CaseInsensitiveOption);
    return backend == QLatin1String("Vulkan") && softwareNames.match(description).hasMatch();
}

int rank(const ComputeDevice &device)
{
    const QString backend = device.backend();
    if (backend == QLatin1String("CUDA"))
        return 0;
    if (backend == QLatin1String("Vulkan"))
        return device.integrated ? 2 : 1;
    return -1;
}

} // namespace

QString ComputeDevice::backend() const
{
    QString letters = name;
    while (!letters.isEmpty() && letters.back().isDigit())
        letters.chop(1);
    return letters;
}

QString ComputeDevice::label() const
{
    return QStringLiteral("%1 (%2)").arg(description, backend());
}

DeviceProbe DeviceProbe::parse(const QByteArray &standardOutput, const QByteArray &standardError)
{
    DeviceProbe probe;
    // "  CUDA0: NVIDIA H100 80GB HBM3 (81079 MiB, 80523 MiB free)"; the description may hold
    // parentheses of its own.
    static const QRegularExpression deviceLine(
        QStringLiteral("^\\s+([A-Za-z]+\\d+): (.+) \\((\\d+) MiB, \\d+ MiB free\\)\\s*$"));
    bool inList = false;
    for (const QString &line : QString::fromUtf8(standardOutput).split(QLatin1Char('\n'))) {
        if (line.startsWith(QLatin1String("Available devices:"))) {
            inList = true;
            continue;
        }
        const QRegularExpressionMatch match = deviceLine.match(line);
        if (!inList || !match.hasMatch())
            continue;
        ComputeDevice device{match.captured(1), match.captured(2).trimmed(), match.captured(3).toLongLong()};
        device.integrated = looksIntegrated(device.backend(), device.description);
        device.software = looksSoftware(device.backend(), device.description);
        if (rank(device) >= 0 && !std::ranges::any_of(probe.devices, [&](const ComputeDevice &d) {
                return d.name == device.name;
            }))
            probe.devices.append(device);
    }
    static const QRegularExpression cpuModule(
        QStringLiteral("loaded CPU backend from \\S*ggml-cpu-([A-Za-z0-9_.]+)\\.so"));
    if (const QRegularExpressionMatch match = cpuModule.match(QString::fromUtf8(standardError)); match.hasMatch())
        probe.cpuVariant = match.captured(1);
    return probe;
}

std::optional<ComputeDevice> chooseDevice(const QList<ComputeDevice> &devices, const QString &preference)
{
    if (preference == DevicePreference::cpuOnly)
        return std::nullopt;
    const auto named = std::ranges::find(devices, preference, &ComputeDevice::name);
    if (named != devices.end())
        return *named;
    const auto better = [](const ComputeDevice &a, const ComputeDevice &b) {
        if (rank(a) != rank(b))
            return rank(a) < rank(b);
        return a.totalMiB > b.totalMiB;
    };
    // Stable, so that the list's order decides between equals.
    QList<ComputeDevice> candidates = devices;
    candidates.removeIf([](const ComputeDevice &d) { return d.software; });
    std::ranges::stable_sort(candidates, better);
    if (candidates.isEmpty())
        return std::nullopt;
    return candidates.front();
}

QString cpuLabel(const QString &variant)
{
    struct Known
    {
        const char *variant;
        const char *features;
    };
    // llama.cpp's x86-64 variants, by the widest instructions each uses.
    static constexpr Known known[] = {
        {"sse42", "SSE4.2"},          {"sandybridge", "AVX"},       {"ivybridge", "AVX"},
        {"piledriver", "AVX"},        {"haswell", "AVX2"},          {"alderlake", "AVX2"},
        {"skylakex", "AVX-512"},      {"cannonlake", "AVX-512"},    {"cascadelake", "AVX-512"},
        {"icelake", "AVX-512"},       {"cooperlake", "AVX-512"},    {"zen4", "AVX-512"},
        {"sapphirerapids", "AVX-512, AMX"},
    };
    for (const Known &k : known) {
        if (variant == QLatin1String(k.variant))
            return QStringLiteral("CPU, %1").arg(QLatin1String(k.features));
    }
    return QStringLiteral("CPU");
}
