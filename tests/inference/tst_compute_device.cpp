// Which device replies run on, from what `llama-server --list-devices` printed: recorded lists
// from machines with CUDA and Vulkan, integrated parts, nothing, and garbage.
#include "inference/compute_device.h"

#include <QTest>

namespace {

const QByteArray s_h100 = "Available devices:\n"
                          "  CUDA0: NVIDIA H100 80GB HBM3 (81079 MiB, 80523 MiB free)\n"
                          "  Vulkan0: NVIDIA H100 80GB HBM3 (81559 MiB, 81000 MiB free)\n";
const QByteArray s_laptop = "Available devices:\n"
                            "  Vulkan0: Intel(R) Iris(R) Xe Graphics (TGL GT2) (11873 MiB, 11873 MiB free)\n"
                            "  Vulkan1: NVIDIA GeForce RTX 3050 Laptop GPU (4096 MiB, 3900 MiB free)\n";

QByteArray vulkanList(std::initializer_list<const char *> descriptions)
{
    QByteArray list = "Available devices:\n";
    int index = 0;
    for (const char *description : descriptions)
        list += QStringLiteral("  Vulkan%1: %2 (8192 MiB, 8000 MiB free)\n").arg(index++).arg(QLatin1String(description)).toUtf8();
    return list;
}

} // namespace

class TestComputeDevice : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void choosesADevice_data()
    {
        QTest::addColumn<QByteArray>("output");
        QTest::addColumn<QByteArray>("errors");
        QTest::addColumn<QString>("preference");
        QTest::addColumn<QString>("chosen"); // empty: the CPU
        QTest::addColumn<QString>("label");

        QTest::newRow("CUDA before the same card under Vulkan") << s_h100 << QByteArray() << "auto" << "CUDA0"
                                                                 << "NVIDIA H100 80GB HBM3 (CUDA)";
        QTest::newRow("the same card under Vulkan when asked") << s_h100 << QByteArray() << "Vulkan0" << "Vulkan0"
                                                                << "NVIDIA H100 80GB HBM3 (Vulkan)";
        QTest::newRow("CPU only when asked") << s_h100 << QByteArray() << "cpu" << "" << "CPU";
        QTest::newRow("a device no longer there counts as automatic")
            << s_h100 << QByteArray() << "CUDA3" << "CUDA0" << "NVIDIA H100 80GB HBM3 (CUDA)";
        QTest::newRow("discrete before integrated, whatever the order")
            << s_laptop << QByteArray() << "auto" << "Vulkan1" << "NVIDIA GeForce RTX 3050 Laptop GPU (Vulkan)";
        QTest::newRow("Intel's Arc cards before its integrated parts")
            << vulkanList({"Intel(R) Graphics (RPL-P)", "Intel(R) Arc(tm) A770 Graphics (DG2)"}) << QByteArray()
            << "auto" << "Vulkan1" << "Intel(R) Arc(tm) A770 Graphics (DG2) (Vulkan)";
        QTest::newRow("a discrete Radeon before an integrated one")
            << vulkanList({"AMD Radeon 780M (RADV GFX1103_R1)", "AMD Radeon(TM) Vega 8 Graphics (RADV RAVEN)",
                           "AMD Radeon RX 7600 (RADV NAVI33)"})
            << QByteArray() << "auto" << "Vulkan2" << "AMD Radeon RX 7600 (RADV NAVI33) (Vulkan)";
        QTest::newRow("Intel's Arc-named integrated part is integrated")
            << vulkanList({"Intel(R) Arc(tm) Graphics (MTL)", "AMD Radeon RX 6400 (RADV NAVI24)"}) << QByteArray()
            << "auto" << "Vulkan1" << "AMD Radeon RX 6400 (RADV NAVI24) (Vulkan)";
        QTest::newRow("an integrated GPU alone")
            << QByteArray("Available devices:\n  Vulkan0: AMD Radeon Graphics (RADV RENOIR) (16384 MiB, 15000 MiB free)\n")
            << QByteArray() << "auto" << "Vulkan0" << "AMD Radeon Graphics (RADV RENOIR) (Vulkan)";
        QTest::newRow("the card with more memory among equals")
            << QByteArray("Available devices:\n  CUDA0: NVIDIA T400 (2048 MiB, 2000 MiB free)\n"
                          "  CUDA1: NVIDIA RTX A6000 (49140 MiB, 48000 MiB free)\n")
            << QByteArray() << "auto" << "CUDA1" << "NVIDIA RTX A6000 (CUDA)";
        QTest::newRow("none, with the CPU module named")
            << QByteArray("Available devices:\n  (none)\n")
            << QByteArray("0.00.026 I load_backend: loaded CPU backend from /opt/c/libexec/corvane/libggml-cpu-icelake.so\n")
            << "auto" << "" << "CPU, AVX-512";
        QTest::newRow("garbage") << QByteArray("\x01\xff Segmentation fault\n  CUDA0 something\n") << QByteArray("\xfe")
                                 << "auto" << "" << "CPU";
        QTest::newRow("device lines outside the list")
            << QByteArray("  CUDA0: NVIDIA H100 (81079 MiB, 80523 MiB free)\n") << QByteArray() << "auto" << "" << "CPU";
        QTest::newRow("a backend that is not ours")
            << QByteArray("Available devices:\n  RPC0: 10.0.0.2:50052 (0 MiB, 0 MiB free)\n") << QByteArray()
            << "auto" << "" << "CPU";
    }

    void choosesADevice()
    {
        QFETCH(QByteArray, output);
        QFETCH(QByteArray, errors);
        QFETCH(QString, preference);
        QFETCH(QString, chosen);
        QFETCH(QString, label);
        const DeviceProbe probe = DeviceProbe::parse(output, errors);
        const std::optional<ComputeDevice> device = chooseDevice(probe.devices, preference);
        QCOMPARE(device ? device->name : QString(), chosen);
        QCOMPARE(device ? device->label() : cpuLabel(probe.cpuVariant), label);
    }
};

QTEST_GUILESS_MAIN(TestComputeDevice)
#include "tst_compute_device.moc"
