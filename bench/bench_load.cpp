// The window under load: a reply streams into a chat of 10,000 messages while a folder of
// 20,000 messages is deleted and searches run one after the other, as someone typing into the
// search field would start them. Three rounds, each with a fresh folder to delete, so that
// memory that is not given back would show as growth from round to round. Measured: the
// longest stretch without an event-loop turn while each round runs, and the resident memory
// before, at its highest during, and after each round. The reply comes from the stand-in
// llama-server (this program sits beside it in build/fake-runtime/), which sends one piece
// every 10 ms; the window draws with the offscreen platform and the software renderer.
#include "long_chat_window.h"
#include "app/app_model.h"
#include "app/search.h"
#include "qml_types.h"
#include "storage/database.h"

#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QGuiApplication>
#include <QQmlApplicationEngine>
#include <QQmlExtensionPlugin>
#include <QQuickWindow>
#include <QTemporaryDir>
#include <QTimer>

#include <cstdio>

Q_IMPORT_QML_PLUGIN(CorvanePlugin)

namespace {

constexpr int s_pieces = 1000;
constexpr int s_rounds = 3;

/// A folder of 100 chats of 200 messages each, with words that the searches find.
qint64 addBigFolder(AppModel &model, int round)
{
    const qint64 folder = model.tree()->addFolder(ChatTree::none);
    model.tree()->renameNode(folder, QStringLiteral("Archive %1").arg(round));
    Database &db = model.database();
    for (int c = 0; c < 100; ++c) {
        const qint64 chat = db.addChat(folder, QStringLiteral("Old chat %1").arg(c));
        addConversation(db, chat, 200,
                        QStringLiteral("Archived note %1 about gardens, rivers and the harvest of apples "
                                       "in the autumn, with a recipe for pie."));
    }
    model.tree()->reload();
    return folder;
}

struct Round
{
    qint64 longestGapMs = 0;
    double before = 0, peak = 0, after = 0;
    int searches = 0;
    qint64 replyMs = 0, purgeMs = 0;
};

} // namespace

int main(int argc, char *argv[])
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    qputenv("QT_QUICK_BACKEND", "software");
    useStandInReply(s_pieces);
    QGuiApplication app(argc, argv);

    LongChatWindowBench bench;
    if (!bench.open())
        return 1;
    AppModel &appModel = *bench.model;
    QQuickWindow *window = bench.window;

    Round current;
    bool measuring = false;
    QElapsedTimer sinceTurn;
    QTimer ticker;
    ticker.setInterval(5);
    QObject::connect(&ticker, &QTimer::timeout, window, [&] {
        if (measuring)
            current.longestGapMs = std::max(current.longestGapMs, sinceTurn.elapsed());
        sinceTurn.restart();
    });
    QTimer sampler;
    sampler.setInterval(50);
    QObject::connect(&sampler, &QTimer::timeout, window, [&] { current.peak = std::max(current.peak, residentMB()); });
    // A new term every 250 ms, as typing with the window's pause would give.
    static const QStringList terms = {"apple", "apples", "harvest", "river", "gardens", "pie", "bold", "autumn"};
    QTimer searcher;
    searcher.setInterval(250);
    QObject::connect(&searcher, &QTimer::timeout, window, [&] {
        appModel.search()->setTerm(terms[current.searches++ % terms.size()]);
    });
    sinceTurn.start();
    ticker.start();

    QList<Round> rounds;
    for (int round = 0; round < s_rounds; ++round) {
        const qint64 folder = addBigFolder(appModel, round);
        QEventLoop settle;
        QTimer::singleShot(1000, &settle, &QEventLoop::quit);
        settle.exec();

        current = Round{};
        current.before = current.peak = residentMB();
        measuring = true;
        sampler.start();
        searcher.start();
        // The deletion first: none is taken while a reply runs, but a reply may start while
        // a deletion's rows are being removed.
        appModel.tree()->deleteFolder(folder);
        appModel.chat()->setComposer(QStringLiteral("Write me something long."));
        appModel.chat()->send();
        if (!appModel.tree()->isPurging() || !appModel.chat()->isGenerating()) {
            std::fprintf(stderr, "bench_load: the deletion or the reply did not start\n");
            return 1;
        }
        QElapsedTimer clock;
        clock.start();
        QEventLoop loop;
        const auto check = [&] {
            if (!appModel.chat()->isGenerating() && !current.replyMs)
                current.replyMs = clock.elapsed();
            if (!appModel.tree()->isPurging() && !current.purgeMs)
                current.purgeMs = clock.elapsed();
            if (current.replyMs && current.purgeMs)
                loop.quit();
        };
        QObject::connect(&appModel, &AppModel::activityChanged, &loop, check);
        QObject::connect(appModel.tree(), &ChatTree::purgeFinished, &loop, check);
        loop.exec();
        searcher.stop();
        sampler.stop();
        measuring = false;
        if (appModel.status()->isError()) {
            std::fprintf(stderr, "bench_load: %s\n", qPrintable(appModel.status()->text()));
            return 1;
        }
        current.after = residentMB();
        rounds << current;
    }

    std::printf("| Round | reply ended, s | folder's rows gone, s | searches | longest main-thread gap, ms | "
                "resident before / highest / after, MB |\n"
                "|---|---:|---:|---:|---:|---:|\n");
    for (int i = 0; i < rounds.size(); ++i)
        std::printf("| %d | %.1f | %.1f | %d | %lld | %.0f / %.0f / %.0f |\n", i + 1, double(rounds[i].replyMs) / 1000,
                    double(rounds[i].purgeMs) / 1000, rounds[i].searches,
                    static_cast<long long>(rounds[i].longestGapMs), rounds[i].before, rounds[i].peak, rounds[i].after);
    std::printf("stored messages in the chat afterwards: %lld\n", static_cast<long long>(appModel.chat()->messages().size()));
    return 0;
}
