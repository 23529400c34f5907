// Locking folders through AppModel in the 1,000,000-message database of bench_database, each
// on a fresh copy: a folder of one chat (about 200 messages) and the folder of 100 chats
// (about 20,000). Setting up the vault locks the first: a password derivation, then the rows
// sealed on a worker connection in one transaction and the file scrubbed. Measured: how long
// until the folder has left the window, how long until it is locked, how long opening it with
// the password takes, how long removing the lock takes, and the longest the main thread went
// without a turn.
//
// Usage: bench_locks [database]   (default: build/bench/bench-data/messages-1m-fk-indexes.sqlite)
#include "bench_support.h"
#include "app/app_model.h"
#include "storage/database.h"
#include "support/await_task.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTimer>

#include <cstdio>

namespace {

const QString s_password = QStringLiteral("bench password");

/// Watches the main thread for the longest stretch without an event-loop turn.
class GapWatch
{
public:
    GapWatch()
    {
        m_ticker.setInterval(5);
        QObject::connect(&m_ticker, &QTimer::timeout, [this] { m_longest = std::max(m_longest, m_sinceTurn.restart()); });
        m_sinceTurn.start();
        m_ticker.start();
    }
    qint64 longest() const { return std::max(m_longest, m_sinceTurn.elapsed()); }

private:
    QTimer m_ticker;
    QElapsedTimer m_sinceTurn;
    qint64 m_longest = 0;
};

double msSince(const QElapsedTimer &timer)
{
    return double(timer.nsecsElapsed()) / 1e6;
}

void measure(const QString &database, const char *what, bool oneChat)
{
    QTemporaryDir dir;
    QFile::copy(database, dir.filePath(QStringLiteral("chats.sqlite")));
    qputenv("CORVANE_DATA_DIR", dir.path().toUtf8());
    AppModel model;
    ChatTree &tree = *model.tree();
    FolderLocks &locks = *model.locks();
    qint64 folder = 100;
    if (oneChat) {
        // A folder of its own for the newest chat.
        folder = tree.addFolder(ChatTree::none);
        model.database().moveChat(tree.chats().first().id, folder);
        tree.reload();
    }
    qint64 messages = 0;
    for (const Chat &chat : tree.chats())
        if (chat.nodeID == folder)
            messages += model.database().messageIDs(chat.id).size();

    QElapsedTimer clock;
    double hiddenMs = 0;
    QObject::connect(&locks, &FolderLocks::workingChanged, [&] {
        if (locks.isSealing() && hiddenMs == 0)
            hiddenMs = msSince(clock);
    });
    GapWatch lockGaps;
    clock.start();
    const bool locked = awaitTask(locks.createVault(s_password, folder)).has_value();
    const double lockMs = msSince(clock);
    const qint64 lockGap = lockGaps.longest();

    GapWatch openGaps;
    clock.restart();
    const bool opened = awaitTask(locks.unlock(s_password, {.kind = UnlockPurpose::Open, .folderID = folder}));
    const double openMs = msSince(clock);
    const qint64 openGap = openGaps.longest();

    GapWatch removeGaps;
    clock.restart();
    const bool removed = awaitTask(locks.setFolderLocked(folder, false));
    const double removeMs = msSince(clock);
    const qint64 removeGap = removeGaps.longest();
    if (!locked || !opened || !removed) {
        std::fprintf(stderr, "bench_locks: %s\n", qPrintable(model.status()->text()));
        return;
    }
    std::printf("| %s, %lld messages | %.0f | %.0f (%lld) | %.0f (%lld) | %.0f (%lld) |\n", what,
                static_cast<long long>(messages), hiddenMs, lockMs, static_cast<long long>(lockGap), openMs,
                static_cast<long long>(openGap), removeMs, static_cast<long long>(removeGap));
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const std::optional<QString> file = benchmarkDatabase(argc, argv, "bench_locks");
    if (!file)
        return 1;
    const QString &database = *file;
    std::printf("| Folder | hidden, ms | locked, ms (longest gap) | opened, ms (gap) | lock removed, ms (gap) |\n"
                "|---|---:|---:|---:|---:|\n");
    measure(database, "one chat", true);
    measure(database, "100 chats", false);
    return 0;
}
