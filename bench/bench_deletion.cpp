// Deleting through AppModel in the 1,000,000-message database of bench_database: the folder
// of 100 chats (about 20,000 messages) and one of its chats, each on a fresh copy. A deletion
// hides the folder or chat at once and removes its rows in the background, in slices between
// event-loop turns. Measured: how long until it has left the tree, how long until its rows are
// gone, and the longest the main thread went without a turn meanwhile. Last, erasing all data,
// whose rows go on a worker thread.
//
// Usage: bench_deletion [database]   (default: build/bench/bench-data/messages-1m-fk-indexes.sqlite)
#include "bench_support.h"
#include "app/app_model.h"
#include "storage/database.h"
#include "storage/statement.h"

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
    double hiddenMs = 0;
    double totalMs = 0;
    qint64 longestGapMs = 0;
    qsizetype messages = 0;
};

/// Deletes with `remove` what `choose` picks (returning its id and message count) in a fresh
/// copy of `database`.
Result measure(const QString &database, const std::function<std::pair<qint64, qsizetype>(AppModel &)> &choose,
               const std::function<void(AppModel &, qint64)> &remove)
{
    QTemporaryDir dir;
    QFile::copy(database, dir.filePath(QStringLiteral("chats.sqlite")));
    qputenv("CORVANE_DATA_DIR", dir.path().toUtf8());
    AppModel model;
    const auto [id, messages] = choose(model);
    QElapsedTimer sinceTurn;
    qint64 longest = 0;
    QTimer ticker;
    ticker.setInterval(5);
    QObject::connect(&ticker, &QTimer::timeout, [&] { longest = std::max(longest, sinceTurn.restart()); });
    QElapsedTimer total;
    total.start();
    sinceTurn.start();
    ticker.start();
    remove(model, id);
    const double hiddenMs = double(total.nsecsElapsed()) / 1e6;
    if (model.tree()->isPurging() || model.isErasing()) {
        QEventLoop loop;
        QObject::connect(model.tree(), &ChatTree::purgeFinished, &loop, &QEventLoop::quit);
        QObject::connect(&model, &AppModel::erasingFinished, &loop, &QEventLoop::quit);
        loop.exec();
    }
    longest = std::max(longest, sinceTurn.elapsed());
    return {hiddenMs, double(total.nsecsElapsed()) / 1e6, longest, messages};
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const std::optional<QString> file = benchmarkDatabase(argc, argv, "bench_deletion");
    if (!file)
        return 1;
    const QString &database = *file;
    std::printf("| Deletion through AppModel | gone from the tree, ms | rows removed, ms | longest main-thread gap, ms |\n"
                "|---|---:|---:|---:|\n");
    // The chats of the big folder are the newest: the first in the list.
    const Result chat = measure(
        database,
        [](AppModel &model) {
            const qint64 id = model.tree()->chats().first().id;
            return std::pair(id, model.database().messageIDs(id).size());
        },
        [](AppModel &model, qint64 id) { model.tree()->deleteChat(id); });
    std::printf("| a chat of %lld messages | %.0f | %.0f | %lld |\n", static_cast<long long>(chat.messages),
                chat.hiddenMs, chat.totalMs, static_cast<long long>(chat.longestGapMs));
    const Result folder = measure(
        database,
        [](AppModel &model) {
            qsizetype count = 0;
            for (const Chat &chat : model.tree()->chats())
                if (chat.nodeID == 100)
                    count += model.database().messageIDs(chat.id).size();
            return std::pair(qint64(100), count);
        },
        [](AppModel &model, qint64 id) { model.tree()->deleteFolder(id); });
    std::printf("| the folder of 100 chats, %lld messages | %.0f | %.0f | %lld |\n",
                static_cast<long long>(folder.messages), folder.hiddenMs, folder.totalMs,
                static_cast<long long>(folder.longestGapMs));
    const Result erase = measure(
        database,
        [](AppModel &model) {
            Statement count(model.database().handle(), QStringLiteral("SELECT count(*) FROM messages"));
            count.next();
            return std::pair(qint64(0), qsizetype(count.integer(0)));
        },
        [](AppModel &model, qint64) { model.eraseAllData(); });
    std::printf("| erase all data, %lld messages | – | %.0f | %lld |\n", static_cast<long long>(erase.messages),
                erase.totalMs, static_cast<long long>(erase.longestGapMs));
    return 0;
}
