// Start-up of the real application: from launching `corvane` to its first drawn frame, with an
// empty data folder and with the 1,000,000-message database of bench_database, and the
// resident memory after it has sat idle for three seconds. A chat model counts as installed,
// so the window opens on the sidebar and the newest chat. Drawn with the offscreen platform.
//
// Usage: bench_startup [corvane] [database]   (defaults: build/bin/corvane and
// build/bench/bench-data/messages-1m-fk-indexes.sqlite, which bench_database generates)
#include "bench_support.h"
#include "models/model_catalogue.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>

#include <algorithm>
#include <cstdio>

namespace {

struct Start
{
    double firstFrameMs = -1; ///< launch to the first frame, seen from outside
    double insideMs = -1; ///< the same from main(), as the application reports it
    double idleMB = -1;
};

Start launch(const QString &program, const QString &dataDir, bool measureMemory)
{
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("CORVANE_DATA_DIR"), dataDir);
    environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    process.setProcessEnvironment(environment);
    process.setProcessChannelMode(QProcess::SeparateChannels);
    QElapsedTimer timer;
    timer.start();
    process.start(program, {QStringLiteral("--report-first-frame")});
    Start result;
    while (process.waitForReadyRead(30000)) {
        const QByteArray line = process.readLine();
        if (line.startsWith("first frame after ")) {
            result.firstFrameMs = double(timer.nsecsElapsed()) / 1e6;
            result.insideMs = line.mid(18).split(' ').first().toDouble();
            break;
        }
    }
    if (measureMemory) {
        QThread::sleep(3);
        result.idleMB = residentMB(process.processId());
    }
    process.terminate();
    process.waitForFinished(10000);
    return result;
}

void measure(const QString &label, const QString &program, const QString &database)
{
    QList<double> outside, inside;
    double idle = -1;
    for (int run = 0; run < 6; ++run) {
        QTemporaryDir dir;
        // A chat model "installed" as an empty file of the right size, so that the window
        // shows the sidebar and the chat rather than the first-run screen.
        const ModelSpec chatModel = ModelCatalogue::entries().first();
        QDir().mkpath(dir.filePath(QStringLiteral("Models")));
        QFile placeholder(dir.filePath(QStringLiteral("Models/") + chatModel.fileName));
        if (!placeholder.open(QIODevice::WriteOnly) || !placeholder.resize(chatModel.byteCount))
            std::printf("could not place %s\n", qPrintable(placeholder.fileName()));
        placeholder.close();
        if (!database.isEmpty())
            QFile::copy(database, dir.filePath(QStringLiteral("chats.sqlite")));
        const Start start = launch(program, dir.path(), run == 5);
        if (run == 0)
            continue; // the first run warms the file cache
        outside << start.firstFrameMs;
        inside << start.insideMs;
        if (run == 5)
            idle = start.idleMB;
    }
    std::printf("| %s | %.0f | %.0f | %.0f |\n", qPrintable(label), median(outside), median(inside), idle);
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const QString bin = QCoreApplication::applicationDirPath() + QStringLiteral("/..");
    const QString program = argc > 1 ? QString::fromLocal8Bit(argv[1]) : bin + QStringLiteral("/bin/corvane");
    const QString database = argc > 2 ? QString::fromLocal8Bit(argv[2])
                                      : bin + QStringLiteral("/bench/bench-data/messages-1m-fk-indexes.sqlite");
    std::printf("| Data (median of 5) | launch → first frame, ms | main() → first frame, ms | resident after 3 s idle, MB |\n"
                "|---|---:|---:|---:|\n");
    measure(QStringLiteral("empty data folder"), program, QString());
    if (QFileInfo::exists(database))
        measure(QStringLiteral("1,000,000 messages in 5,000 chats"), program, database);
    else
        std::printf("(%s is missing: run bench_database first)\n", qPrintable(database));
    return 0;
}
