// What scripts that act on their own cost the window. Ticks: a script with a 10-second timer
// over one simulated hour (360 ticks, the clock advanced at once), each tick a run of the real
// runner that keeps a counter in its state: the main thread's own CPU time per tick and the
// longest stretch without an event-loop turn. Partial renders: a reply streamed at 100 pieces a
// second by the stand-in llama-server (this program sits beside it in build/fake-runtime/), once
// without a script and once with one whose onReply renders every partial text: how often the
// live reply reached the window, and how long the stream took.
#include "bench_support.h"
#include "app/app_model.h"
#include "app/script_timer.h"
#include "inference/inference_engine.h"
#include "storage/database.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QTemporaryDir>
#include <QTimer>

#include <QCoro/QCoroTimer>

#include <algorithm>
#include <cstdio>
#include <ctime>

namespace {

double threadCpuMs()
{
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return double(now.tv_sec) * 1e3 + double(now.tv_nsec) / 1e6;
}

/// An application model over a fresh data folder whose chat model the stand-in server plays.
std::unique_ptr<AppModel> makeModel(const QTemporaryDir &dir)
{
    const QList<ModelSpec> catalogue = standInChatModel(dir.path());
    return catalogue.isEmpty() ? nullptr : std::make_unique<AppModel>(catalogue);
}

qint64 chatWithScript(AppModel &app, const QString &source)
{
    app.tree()->addChat(ChatTree::none);
    const qint64 chat = app.tree()->selectedChatID();
    if (!source.isEmpty()) {
        app.database().setChatFields({{QStringLiteral("cartridge_source"), source}}, {}, chat);
        app.tree()->reload();
    }
    app.tree()->selectChat(chat);
    return chat;
}

/// Longest time between turns of the event loop while `running` holds.
struct GapWatch
{
    qint64 longest = 0;
    QElapsedTimer sinceTurn;
    QTimer ticker;
    GapWatch()
    {
        ticker.setInterval(2);
        QObject::connect(&ticker, &QTimer::timeout, [this] {
            longest = std::max(longest, sinceTurn.restart());
        });
        sinceTurn.start();
        ticker.start();
    }
};

void measureTicks()
{
    QTemporaryDir dir;
    const auto app = makeModel(dir);
    constexpr int ticks = 360;
    app->scriptTimer().setSleep([](std::chrono::milliseconds) -> QCoro::Task<> { co_await QCoro::sleepFor(std::chrono::milliseconds(0)); });
    int done = 0;
    QEventLoop loop;
    QObject::connect(&app->scriptTimer(), &ScriptTimer::ticked, &loop, [&] {
        if (++done == ticks)
            app->scriptTimer().stop(), loop.quit();
    });
    GapWatch gaps;
    const double cpuBefore = threadCpuMs();
    QElapsedTimer wall;
    wall.start();
    chatWithScript(*app, QStringLiteral("module.exports = { prompt: 'p', tickEvery: 10, onTick: ({ state }) => ({ state: (state ?? 0) + 1 }) };"));
    loop.exec();
    const double cpu = threadCpuMs() - cpuBefore;
    std::printf("| 360 ticks (one hour at 10 s) | wall %.0f ms | main thread CPU %.2f ms a tick | longest gap %lld ms |\n",
                double(wall.elapsed()), cpu / ticks, static_cast<long long>(gaps.longest));
}

struct Stream
{
    double seconds = 0;
    int liveUpdates = 0;
    int renders = 0; ///< partial renders that reached the window
    qint64 longestGap = 0;
};

Stream measureStream(const QString &source)
{
    QTemporaryDir dir;
    const auto app = makeModel(dir);
    chatWithScript(*app, source);
    Stream result;
    QElapsedTimer clock;
    bool streaming = false;
    QString display;
    QObject::connect(app->chat(), &ChatSession::liveReplyChanged, [&] {
        if (!streaming)
            return;
        ++result.liveUpdates;
        if (app->chat()->liveDisplay() != display) {
            display = app->chat()->liveDisplay();
            ++result.renders;
        }
    });
    QObject::connect(app->status(), &StatusBanner::changed, [&] {
        if (app->status()->text() == QStringLiteral("Generating…")) {
            streaming = true;
            clock.start();
        }
    });
    QObject::connect(&app->inference(), &InferenceEngine::streamFinished, [&] {
        streaming = false;
        result.seconds = double(clock.elapsed()) / 1000;
    });
    GapWatch gaps;
    QEventLoop loop;
    QObject::connect(app.get(), &AppModel::activityChanged, &loop, [&] {
        if (!app->chat()->isGenerating())
            loop.quit();
    });
    app->chat()->setComposer(QStringLiteral("Write me something long."));
    app->chat()->send();
    loop.exec();
    if (app->status()->isError())
        std::fprintf(stderr, "bench_script_actions: %s\n", qPrintable(app->status()->text()));
    result.longestGap = gaps.longest;
    return result;
}

} // namespace

int main(int argc, char *argv[])
{
    constexpr int pieces = 300;
    QStringList words;
    for (int i = 0; i < pieces; ++i)
        words << QStringLiteral("word ");
    qputenv("CORVANE_FAKE_REPLY", words.join(QLatin1Char('|')).toUtf8());
    qputenv("CORVANE_FAKE_PIECE_DELAY_MS", "10");
    QCoreApplication app(argc, argv);

    std::printf("| Ticks | | | |\n|---|---|---|---|\n");
    measureTicks();

    const Stream plain = measureStream(QString());
    const Stream rendered = measureStream(QStringLiteral(
        "module.exports = { prompt: 'p', onReply: ({ partial }, text) => ({ display: `${text.length} letters so far` }) };"));
    std::printf("\n| Streaming %d pieces at 100 a second | stream s | pieces a second | live updates | renders shown | longest gap ms |\n"
                "|---|---:|---:|---:|---:|---:|\n", pieces);
    for (const auto &[name, stream] : {std::pair{"without a script", plain}, std::pair{"with partial renders", rendered}})
        std::printf("| %s | %.2f | %.1f | %d | %d | %lld |\n", name, stream.seconds, pieces / stream.seconds,
                    stream.liveUpdates, stream.renders, static_cast<long long>(stream.longestGap));
    std::printf("| stream rate with renders / without | | %.2f | | | |\n", plain.seconds / rendered.seconds);
    return 0;
}
