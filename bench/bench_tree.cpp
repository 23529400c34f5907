// The folder tree at the size of a heavy user: 2,000 folders (200 top-level folders, each
// the top of a chain ten deep) holding 20,000 chats, every folder and chat with a prompt.
// Measures reload() and a full pass of effectivePrompt over every chat, which the sidebar
// and the reply pipeline both depend on.
//
// Usage: bench_tree
#include "bench_support.h"
#include "app/app_model.h"
#include "storage/database.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>

namespace {

constexpr int topFolders = 200;
constexpr int depth = 10;
constexpr int chatsPerFolder = 10;
constexpr int runs = 15;

void generate(Database &db)
{
    db.execute(QStringLiteral("BEGIN"));
    for (int top = 0; top < topFolders; ++top) {
        std::optional<qint64> parent;
        for (int level = 0; level < depth; ++level) {
            const qint64 folder = db.addNode(parent, QStringLiteral("folder"),
                                             QStringLiteral("Folder %1.%2").arg(top).arg(level));
            db.setNodePrompt(folder, QStringLiteral("Prompt of folder %1 at level %2.").arg(top).arg(level));
            if (level % 3 == 0)
                db.setNodeAgentName(folder, QStringLiteral("Name %1").arg(level));
            for (int c = 0; c < chatsPerFolder; ++c) {
                const qint64 chat = db.addChat(folder, QStringLiteral("Chat %1").arg(c));
                db.setChatFields({{QStringLiteral("prompt"), QStringLiteral("Chat prompt %1.").arg(c)}}, {}, chat);
            }
            parent = folder;
        }
    }
    db.execute(QStringLiteral("COMMIT"));
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QTemporaryDir dir;
    qputenv("CORVANE_DATA_DIR", dir.path().toUtf8());
    {
        Database db(dir.filePath(QStringLiteral("chats.sqlite")));
        QElapsedTimer timer;
        timer.start();
        generate(db);
        std::printf("Generated 2,000 folders and 20,000 chats in %.1f s\n", timer.elapsed() / 1000.0);
    }

    AppModel model;
    std::printf("Loaded %lld folders and %lld chats\n", static_cast<long long>(model.tree()->nodes().size()),
                static_cast<long long>(model.tree()->chats().size()));
    QList<double> reloads, prompts, totals;
    qsizetype length = 0;
    for (int run = 0; run < runs; ++run) {
        QElapsedTimer timer;
        timer.start();
        model.tree()->reload();
        const double reloaded = timer.nsecsElapsed() / 1e6;
        for (const Chat &chat : model.tree()->chats())
            length += model.tree()->effectivePrompt(chat).size();
        const double total = timer.nsecsElapsed() / 1e6;
        reloads << reloaded;
        prompts << total - reloaded;
        totals << total;
    }
    std::printf("\n| Operation (median of %d, ms) | time |\n|---|---:|\n", runs);
    std::printf("| reload() | %.1f |\n", median(reloads));
    std::printf("| effectivePrompt for every chat | %.1f |\n", median(prompts));
    std::printf("| both | %.1f |\n", median(totals));
    return length > 0 ? 0 : 1;
}
