// Deleting through AppModel in the 1,000,000-message database of bench_database: the folder
// of 100 chats (about 20,000 messages) and one of its chats, each on a fresh copy. Deletion runs in
// slices between event-loop turns, so what matters to the user is how long the main thread
// goes without a turn, beside the total time.
//
// Usage: bench_deletion [database]   (default: build/bench/bench-data/messages-1m-fk-indexes.sqlite)
#include "app/app_model.h"
#include "storage/database.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTimer>

#include <cstdio>
#include <functional>

namespace {

struct Result
{
    double totalMs = 0;
    qint64 longestGapMs = 0;
    qsizetype messages = 0;
};

Result measure(const QString &database, const std::function<qsizetype(AppModel &)> &remove)
{
    QTemporaryDir dir;
    QFile::copy(database, dir.filePath(QStringLiteral("chats.sqlite")));
    qputenv("CORVANE_DATA_DIR", dir.path().toUtf8());
    AppModel model;
    QElapsedTimer sinceTurn;
    qint64 longest = 0;
    QTimer ticker;
    ticker.setInterval(5);
    QObject::connect(&ticker, &QTimer::timeout, [&] { longest = std::max(longest, sinceTurn.restart()); });
    QElapsedTimer total;
    total.start();
    sinceTurn.start();
    ticker.start();
    const qsizetype messages = remove(model);
    // A deletion that finished at once was one long turn.
    longest = std::max(longest, sinceTurn.elapsed());
    if (model.isDeleting()) {
        QEventLoop loop;
        QObject::connect(&model, &AppModel::activityChanged, &loop, [&] {
            if (!model.isDeleting())
                loop.quit();
        });
        loop.exec();
    }
    return {double(total.nsecsElapsed()) / 1e6, longest, messages};
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const QString database = argc > 1 ? QString::fromLocal8Bit(argv[1])
                                      : QCoreApplication::applicationDirPath()
                                            + QStringLiteral("/bench-data/messages-1m-fk-indexes.sqlite");
    if (!QFileInfo::exists(database)) {
        std::fprintf(stderr, "bench_deletion: %s is missing; run bench_database first\n", qPrintable(database));
        return 1;
    }
    std::printf("| Deletion through AppModel | total, ms | longest main-thread gap, ms |\n|---|---:|---:|\n");
    // The chats of the big folder are the newest: the first in the list.
    const Result chat = measure(database, [](AppModel &model) {
        const qint64 id = model.chats().first().id;
        const qsizetype count = model.database().messageIDs(id).size();
        model.deleteChat(id);
        return count;
    });
    std::printf("| a chat of %lld messages | %.0f | %lld |\n", static_cast<long long>(chat.messages), chat.totalMs,
                static_cast<long long>(chat.longestGapMs));
    const Result folder = measure(database, [](AppModel &model) {
        qsizetype count = 0;
        for (const Chat &chat : model.chats())
            if (chat.nodeID == 100)
                count += model.database().messageIDs(chat.id).size();
        model.deleteFolder(100);
        return count;
    });
    std::printf("| the folder of 100 chats, %lld messages | %.0f | %lld |\n", static_cast<long long>(folder.messages),
                folder.totalMs, static_cast<long long>(folder.longestGapMs));
    return 0;
}
