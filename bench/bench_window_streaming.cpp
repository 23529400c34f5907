// The window while a reply streams at 100 tokens a second into a chat of 10,000 messages:
// how long each frame takes to prepare and draw, how evenly frames come, and the longest
// stretch without an event-loop turn. The reply comes from the stand-in llama-server (this
// program sits beside it in build/fake-runtime/), which sends one piece every 10 ms, so the
// measurement is of the window, not of a model. Drawn with the offscreen platform and Qt
// Quick's software renderer, as on a machine without a GPU.
#include "long_chat_window.h"
#include "app/app_model.h"
#include "qml_types.h"
#include "inference/inference_engine.h"
#include "storage/database.h"

#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QGuiApplication>
#include <QQmlApplicationEngine>
#include <QQmlExtensionPlugin>
#include <QQuickWindow>
#include <QTemporaryDir>
#include <QTimer>

#include <algorithm>
#include <cstdio>

Q_IMPORT_QML_PLUGIN(CorvanePlugin)

namespace {

double percentile(QList<double> values, double p)
{
    if (values.isEmpty())
        return -1;
    std::ranges::sort(values);
    return values[qsizetype(p * double(values.size() - 1))];
}

} // namespace

int main(int argc, char *argv[])
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    qputenv("QT_QUICK_BACKEND", "software");
    constexpr int pieces = 300;
    useStandInReply(pieces);
    QGuiApplication app(argc, argv);

    LongChatWindowBench bench;
    if (!bench.open())
        return 1;
    AppModel &appModel = *bench.model;
    QQuickWindow *window = bench.window;

    QElapsedTimer clock;
    clock.start();
    bool streaming = false;
    qint64 frameStart = -1, lastSwap = -1;
    QList<double> work, intervals;
    QObject::connect(window, &QQuickWindow::afterAnimating, window, [&] { frameStart = clock.nsecsElapsed(); },
                     Qt::DirectConnection);
    QObject::connect(window, &QQuickWindow::frameSwapped, window, [&] {
        const qint64 now = clock.nsecsElapsed();
        if (streaming && frameStart >= 0) {
            work << double(now - frameStart) / 1e6;
            if (lastSwap >= 0)
                intervals << double(now - lastSwap) / 1e6;
        }
        lastSwap = now;
    }, Qt::DirectConnection);
    QObject::connect(&appModel.inference(), &InferenceEngine::streamFinished, window, [&] { streaming = false; });
    QObject::connect(appModel.status(), &StatusBanner::changed, window, [&] {
        if (appModel.status()->text() == QStringLiteral("Generating…"))
            streaming = true;
    });
    qint64 longestGap = 0;
    QElapsedTimer sinceTurn;
    QTimer ticker;
    ticker.setInterval(5);
    QObject::connect(&ticker, &QTimer::timeout, window, [&] {
        if (streaming)
            longestGap = std::max(longestGap, sinceTurn.elapsed());
        sinceTurn.restart();
    });

    // Let the window settle on the long chat, then send.
    QTimer::singleShot(1000, window, [&] {
        sinceTurn.start();
        ticker.start();
        appModel.chat()->setComposer(QStringLiteral("Write me something long."));
        appModel.chat()->send();
    });
    QEventLoop loop;
    QObject::connect(&appModel, &AppModel::activityChanged, &loop, [&] {
        if (!appModel.chat()->isGenerating())
            loop.quit();
    });
    loop.exec();
    if (appModel.status()->isError()) {
        std::fprintf(stderr, "bench_window_streaming: %s\n", qPrintable(appModel.status()->text()));
        return 1;
    }
    std::printf("| Streaming %d pieces at 100 a second into 10,000 messages | ms |\n|---|---:|\n", pieces);
    std::printf("| frames drawn while streaming | %lld |\n", static_cast<long long>(work.size()));
    std::printf("| frame work (polish, sync, render, swap): median | %.1f |\n", percentile(work, 0.5));
    std::printf("| frame work: 95th percentile | %.1f |\n", percentile(work, 0.95));
    std::printf("| frame work: longest | %.1f |\n", percentile(work, 1.0));
    std::printf("| time between frames: median | %.1f |\n", percentile(intervals, 0.5));
    std::printf("| time between frames: 95th percentile | %.1f |\n", percentile(intervals, 0.95));
    std::printf("| longest main-thread gap while streaming | %lld |\n", static_cast<long long>(longestGap));
    std::printf("| stored messages in the chat afterwards | %lld |\n", static_cast<long long>(appModel.chat()->messages().size()));
    return 0;
}
