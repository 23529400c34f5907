// What the application adds around a reply in a long chat (1,000 messages), with the real
// llama-server on the small generated model: from `send` to the request that starts the
// stream, less the time the server spends counting tokens for the fitting, and from the end
// of the stream to the stored assistant message. Also the longest stretch the main thread went
// without an event-loop turn during a reply.
//
// Usage: bench_replies [model.gguf]   (default: the test model that `make test` generates)
#include "bench_support.h"
#include "app/app_model.h"
#include "app/compactor.h"
#include "inference/inference_engine.h"
#include "storage/database.h"
#include "support/test_chat_model.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTimer>

#include <algorithm>
#include <cstdio>

namespace {

double ms(qint64 nanoseconds)
{
    return double(nanoseconds) / 1e6;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const std::optional<QString> found = benchmarkModel(argc, argv, "bench_replies");
    if (!found)
        return 1;
    const QString model = *found;
    QTemporaryDir dir;
    qputenv("CORVANE_DATA_DIR", dir.filePath(QStringLiteral("data")).toUtf8());
    const ModelSpec spec = linkTestChatModel(dir.filePath(QStringLiteral("data")), model);

    AppModel appModel(QList<ModelSpec>{spec});
    // A short reply limit keeps the server's own generation out of the way.
    appModel.settings()->setMaxResponseTokens(300);
    appModel.tree()->addChat(ChatTree::none);
    const qint64 chat = appModel.tree()->selectedChatID();
    Database &db = appModel.database();
    addConversation(db, chat, 1000,
                    QStringLiteral("Message %1 is about the garden, the river and what to cook for dinner tonight."));
    appModel.tree()->selectChat(chat);

    InferenceEngine &engine = appModel.inference();
    QElapsedTimer clock;
    qint64 sentAt = 0, streamRequestAt = 0, streamEndAt = 0, storedAt = 0, countsAtSend = 0, countsAtStream = 0;
    QObject::connect(&engine, &InferenceEngine::requestSent, &app, [&](const QString &path, const QByteArray &) {
        if (path == QLatin1String("/v1/chat/completions") && !streamRequestAt) {
            streamRequestAt = clock.nsecsElapsed();
            countsAtStream = engine.tokenCountNanoseconds();
        }
    });
    QObject::connect(&engine, &InferenceEngine::streamFinished, &app, [&] { streamEndAt = clock.nsecsElapsed(); });
    QObject::connect(appModel.chat(), &ChatSession::messagesChanged, &app, [&] {
        if (streamEndAt && !storedAt)
            storedAt = clock.nsecsElapsed();
    });
    qint64 longestGap = 0;
    QElapsedTimer sinceTurn;
    QTimer ticker;
    ticker.setInterval(5);
    QObject::connect(&ticker, &QTimer::timeout, &app, [&] { longestGap = std::max(longestGap, sinceTurn.restart()); });

    QList<double> before, after, counting, gaps;
    constexpr int runs = 6; // the first loads the model and is not counted
    for (int run = 0; run < runs; ++run) {
        streamRequestAt = streamEndAt = storedAt = 0;
        longestGap = 0;
        clock.start();
        sinceTurn.start();
        ticker.start();
        countsAtSend = engine.tokenCountNanoseconds();
        appModel.chat()->setComposer(QStringLiteral("What should I cook tonight?"));
        sentAt = clock.nsecsElapsed();
        appModel.chat()->send();
        QEventLoop loop;
        QObject::connect(&appModel, &AppModel::activityChanged, &loop, [&] {
            if (!appModel.chat()->isGenerating())
                loop.quit();
        });
        loop.exec();
        ticker.stop();
        // The compaction that follows a reply would shorten the chat; each run starts from
        // the whole history again.
        while (appModel.chat()->compactor().isRunning())
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        db.setChatSummary(QString(), 0, chat);
        appModel.tree()->reload();
        if (appModel.status()->isError()) {
            std::fprintf(stderr, "bench_replies: %s\n", qPrintable(appModel.status()->text()));
            return 1;
        }
        if (run == 0)
            continue;
        const qint64 countingTime = countsAtStream - countsAtSend;
        counting << ms(countingTime);
        before << ms(streamRequestAt - sentAt - countingTime);
        after << (storedAt ? ms(storedAt - streamEndAt) : -1);
        gaps << double(longestGap);
    }
    std::printf("| Reply in a chat of 1,000 messages (median of %d) | ms |\n|---|---:|\n", runs - 1);
    std::printf("| send → stream request, less token counting | %.1f |\n", median(before));
    std::printf("| token counting by the server | %.1f |\n", median(counting));
    std::printf("| end of stream → assistant message stored and reloaded | %.1f |\n", median(after));
    std::printf("| longest main-thread gap during a reply | %.0f |\n", median(gaps));
    return 0;
}
