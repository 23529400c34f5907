// The exchange with the real llama-server on the small generated model: how long fitting a
// conversation to the context takes (each token count is two round trips),
// and what the application's streaming costs compared with reading the server directly, on the
// CPU and on the device chosen automatically, with the time to the first token and what
// asking for the devices costs at start.
//
// Usage: bench_inference [model.gguf [TOKENS RUNS]]   (default: the test model that `make test`
//        generates, 1024 tokens, 9 runs; for speeds worth recording, a model that
//        corvane-make-bench-model wrote)
#include "bench_support.h"
#include "inference/device_probe.h"
#include "inference/inference_engine.h"
#include "platform/auxiliary_executable.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QJsonDocument>
#include <QNetworkReply>

#include <QCoro/QCoroNetworkReply>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace {

QJsonArray conversation(int count)
{
    QJsonArray messages;
    for (int i = 0; i < count; ++i)
        messages.append(QJsonObject{{"role", i % 2 ? "assistant" : "user"},
                                    {"content", QStringLiteral("Message %1 is about the garden, the river and "
                                                               "what to cook for dinner tonight.").arg(i)}});
    return messages;
}

const QJsonArray s_prompt{QJsonObject{{"role", "user"}, {"content", "Tell me a long story."}}};
int s_streamTokens = 1024;
int s_streamRuns = 9;

/// Tokens per second of a streamed completion read straight from the server.
QCoro::Task<double> rawStream(InferenceEngine &engine, QNetworkAccessManager &network)
{
    QNetworkRequest request(QUrl(QStringLiteral("http://127.0.0.1:%1/v1/chat/completions").arg(engine.port())));
    request.setRawHeader("Authorization", "Bearer " + engine.key().toLatin1());
    request.setHeader(QNetworkRequest::ContentTypeHeader, "application/json");
    const QJsonObject body{{"model", "local"}, {"messages", s_prompt}, {"stream", true},
                           {"max_tokens", s_streamTokens}, {"temperature", 0.0}};
    QElapsedTimer timer;
    timer.start();
    std::unique_ptr<QNetworkReply> reply(network.post(request, QJsonDocument(body).toJson(QJsonDocument::Compact)));
    int pieces = 0;
    QByteArray pending;
    while (true) {
        pending += reply->readAll();
        qsizetype end;
        while ((end = pending.indexOf('\n')) >= 0) {
            if (pending.startsWith("data: {") && pending.left(end).contains("\"content\""))
                ++pieces;
            pending.remove(0, end + 1);
        }
        if (reply->isFinished())
            break;
        co_await qCoro(reply.get()).waitForReadyRead(std::chrono::milliseconds(-1));
    }
    co_return pieces / (timer.nsecsElapsed() / 1e9);
}

/// Tokens per second through the engine, and its wait for the first one in milliseconds.
QCoro::Task<std::pair<double, double>> engineStream(InferenceEngine &engine)
{
    QElapsedTimer timer;
    timer.start();
    int pieces = 0;
    const ReplySpeed speed =
        co_await engine.stream(s_prompt, s_streamTokens, 0.0, [&pieces](const QString &) { ++pieces; });
    co_return std::pair{pieces / (timer.nsecsElapsed() / 1e9), double(speed.firstTokenMs)};
}

QCoro::Task<> run(QString model)
{
    InferenceEngine engine;
    std::printf("| History | Context | Token counts | Fitting (median of 3, ms) | Messages kept |\n|---:|---:|---:|---:|---:|\n");
    for (const qint64 context : {16384, 65536}) {
        co_await engine.load(model, std::nullopt, context);
        for (const int size : {10, 100, 1000}) {
            const QJsonArray history = conversation(size);
            QList<double> times;
            int counts = 0;
            qsizetype kept = 0;
            for (int i = 0; i < 3; ++i) {
                const int before = engine.tokenCountsMade();
                QElapsedTimer timer;
                timer.start();
                const QJsonArray fitted = co_await engine.fittedMessages(QStringLiteral("You are brief."), history,
                                                                         std::nullopt, context, 1024);
                times << timer.nsecsElapsed() / 1e6;
                counts = engine.tokenCountsMade() - before;
                kept = fitted.size() - 1;
            }
            std::printf("| %d | %lld | %d | %.1f | %lld |\n", size, static_cast<long long>(context), counts,
                        median(times), static_cast<long long>(kept));
        }
    }

    // What asking for the devices adds to every start.
    const QString server = AuxiliaryExecutable::find(QStringLiteral("llama-server"));
    QList<double> probeTimes;
    DeviceProbe probe;
    for (int i = 0; i < 5; ++i) {
        QElapsedTimer timer;
        timer.start();
        probe = co_await probeComputeDevices(server, std::chrono::seconds(30));
        probeTimes << timer.nsecsElapsed() / 1e6;
    }
    std::printf("\nDevice list (median of 5): %.0f ms; CPU: %s; devices:", median(probeTimes),
                qPrintable(cpuLabel(probe.cpuVariant)));
    for (const ComputeDevice &device : probe.devices)
        std::printf(" %s (%s, %lld MiB)", qPrintable(device.name), qPrintable(device.description),
                    static_cast<long long>(device.totalMiB));
    std::printf("%s\n", probe.devices.isEmpty() ? " none" : "");

    std::printf("\n| Streaming, %d tokens at temperature 0 (median of %d) | Load (s) | First token (ms) | "
                "Server (tokens/s) | InferenceEngine::stream (tokens/s) | Ratio of pairs |\n"
                "|---|---:|---:|---:|---:|---:|\n",
                s_streamTokens, s_streamRuns);
    QList<std::optional<ComputeDevice>> devices{std::nullopt};
    if (const auto chosen = chooseDevice(probe.devices, DevicePreference::automatic))
        devices << chosen;
    QNetworkAccessManager network;
    for (const std::optional<ComputeDevice> &device : devices) {
        engine.shutdown();
        engine.setDevice(device ? device->name : QStringLiteral("none"));
        QElapsedTimer loading;
        loading.start();
        co_await engine.load(model, std::nullopt, 16384);
        const double loadSeconds = loading.nsecsElapsed() / 1e9;
        QList<double> raw, app, first;
        // Alternating which goes first, so that neither always meets a warmer server.
        for (int i = 0; i < s_streamRuns; ++i) {
            std::pair<double, double> measured;
            if (i % 2) {
                measured = co_await engineStream(engine);
                raw << co_await rawStream(engine, network);
            } else {
                raw << co_await rawStream(engine, network);
                measured = co_await engineStream(engine);
            }
            app << measured.first;
            first << measured.second;
        }
        // Each pair ran back to back, so its ratio is less disturbed by the machine's drift
        // than the ratio of the two medians.
        QList<double> ratios;
        for (qsizetype i = 0; i < raw.size(); ++i)
            ratios << app[i] / raw[i];
        std::printf("| %s | %.1f | %.0f | %.1f | %.1f | %.3f |\n",
                    qPrintable(device ? device->label() : cpuLabel(probe.cpuVariant)), loadSeconds, median(first),
                    median(raw), median(app), median(ratios));
    }
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const std::optional<QString> found = benchmarkModel(argc, argv, "bench_inference");
    if (!found)
        return 1;
    const QString model = *found;
    if (argc > 3) {
        s_streamTokens = std::max(1, std::atoi(argv[2]));
        s_streamRuns = std::max(1, std::atoi(argv[3]));
    }
    int status = 0;
    auto task = [&]() -> QCoro::Task<> {
        try {
            co_await run(model);
        } catch (const std::exception &error) {
            std::fprintf(stderr, "bench_inference: %s\n", error.what());
            status = 1;
        }
        QCoreApplication::exit(status);
    }();
    return QCoreApplication::exec() == 0 ? status : 1;
}
