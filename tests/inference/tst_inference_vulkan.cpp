// The real llama-server's Vulkan module on Mesa's llvmpipe, a Vulkan driver that runs on the
// processor and so stands in for a GPU on a machine without one: the device as the probe
// reads it, the choice that never falls on it by itself, and a model run on it when it is
// named, which must write what the CPU code writes.
#include "inference/device_probe.h"
#include "inference/exchange_format.h"
#include "inference/inference_engine.h"
#include "platform/auxiliary_executable.h"

#include "support/await_task.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QNetworkReply>
#include <QScopeGuard>
#include <QSignalSpy>
#include <QTest>

namespace {

const QString s_model = QStringLiteral(CORVANE_TEST_MODELS_DIR "/chat-qwen35.gguf");

/// What the model writes at temperature 0 on `device`, asked past the engine with no limit on
/// the wait: llvmpipe compiles each shader the first time it runs (half a minute for all of
/// them here, cached afterwards), which on a busy machine can pass the engine's minute
/// without data. A server asked for a device that it cannot use does not start.
QString reply(const QString &device)
{
    InferenceEngine engine;
    engine.setDevice(device);
    awaitTask(engine.load(s_model, std::nullopt, 4096));
    QNetworkAccessManager network;
    QNetworkRequest request(QUrl(QStringLiteral("http://127.0.0.1:%1/v1/chat/completions").arg(engine.port())));
    request.setHeader(QNetworkRequest::ContentTypeHeader, "application/json");
    request.setRawHeader("Authorization", "Bearer " + engine.key().toLatin1());
    request.setTransferTimeout(0);
    const QJsonObject body{{"messages", QJsonArray{ExchangeFormat::message("user", "Name three rivers.")}},
                           {"max_tokens", 16},
                           {"temperature", 0}};
    std::unique_ptr<QNetworkReply> answer(network.post(request, QJsonDocument(body).toJson()));
    QSignalSpy(answer.get(), &QNetworkReply::finished).wait(300000);
    return QJsonDocument::fromJson(answer->readAll())["choices"][0]["message"]["content"].toString();
}

} // namespace

class TestInferenceVulkan : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void runsOnAVulkanDeviceOnlyWhenNamed()
    {
        if (!QFile::exists(CORVANE_LIBEXEC_DIR "/libggml-vulkan.so"))
            QSKIP("this build has no Vulkan module");
        if (QDir(QStringLiteral("/usr/share/vulkan/icd.d")).entryList({QStringLiteral("lvp_icd*")}).isEmpty())
            QSKIP("no llvmpipe here (Debian's mesa-vulkan-drivers)");
        // The module lists a driver of the processor's only when asked to.
        qputenv("GGML_VK_VISIBLE_DEVICES", "0");
        const auto restore = qScopeGuard([] { qunsetenv("GGML_VK_VISIBLE_DEVICES"); });

        const DeviceProbe probe = awaitTask(
            probeComputeDevices(AuxiliaryExecutable::find("llama-server"), std::chrono::seconds(30)));
        QCOMPARE(probe.devices.size(), 1);
        const ComputeDevice llvmpipe = probe.devices.first();
        QCOMPARE(llvmpipe.name, QStringLiteral("Vulkan0"));
        QVERIFY2(llvmpipe.description.startsWith("llvmpipe"), qPrintable(llvmpipe.description));
        QVERIFY(llvmpipe.totalMiB > 0);
        QVERIFY(llvmpipe.software);
        QCOMPARE(chooseDevice(probe.devices, DevicePreference::automatic), std::nullopt);
        QCOMPARE(chooseDevice(probe.devices, QStringLiteral("Vulkan0")), llvmpipe);

        // Named, the model runs through the module on the driver, and writes what the CPU code
        // writes.
        const QString onVulkan = reply(llvmpipe.name);
        QVERIFY(!onVulkan.isEmpty());
        QCOMPARE(onVulkan, reply(QStringLiteral("none")));
    }
};

QTEST_GUILESS_MAIN(TestInferenceVulkan)
#include "tst_inference_vulkan.moc"
