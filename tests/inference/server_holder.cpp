// An application that has loaded a model into llama-server through the inference engine and
// then only waits: it prints the server's process id, so that a test can kill this process
// and watch what becomes of the server.
//
// Usage: corvane-server-holder MODEL.gguf
#include "inference/inference_engine.h"

#include "support/await_task.h"

#include <QCoreApplication>

#include <cstdio>

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    if (argc < 2)
        return 2;
    InferenceEngine engine;
    awaitTask(engine.load(QString::fromLocal8Bit(argv[1]), std::nullopt, 4096));
    std::printf("%lld\n", static_cast<long long>(engine.serverProcessID()));
    std::fflush(stdout);
    return app.exec();
}
