// One evaluation of a script, as every reply with a script pays it once or twice: the new
// script's template with an empty chat, and a script that reads every message of a chat of
// 1,000 messages. Wall time from the call to the checked result, runner start included.
//
// Usage: bench_scripts
#include "platform/error.h"
#include "scripts/cartridge_engine.h"
#include "scripts/script_resources.h"

#include <QCoreApplication>
#include <QElapsedTimer>

#include <QCoro/QCoroTask>

#include <algorithm>
#include <cstdio>

namespace {

constexpr int runs = 50;

/// Milliseconds of each of `runs` evaluations; a failed one ends the benchmark.
QList<double> measure(const QString &source, const CartridgeContext &context)
{
    QList<double> times;
    for (int i = 0; i < runs; ++i) {
        QElapsedTimer timer;
        timer.start();
        bool failed = false;
        const auto once = [&]() -> QCoro::Task<> {
            try {
                co_await CartridgeEngine::evaluate(source, context, CartridgeHook::Turn, QString());
            } catch (const CorvaneError &error) {
                std::fprintf(stderr, "evaluation failed: %s\n", error.what());
                failed = true;
            }
        };
        QCoro::waitFor(once());
        if (failed)
            std::exit(1);
        times.append(double(timer.nsecsElapsed()) / 1e6);
    }
    std::ranges::sort(times);
    return times;
}

void report(const char *what, qsizetype requestBytes, const QList<double> &times)
{
    std::printf("%-34s request %8lld B   median %6.1f ms   min %6.1f ms   p90 %6.1f ms   max %6.1f ms\n",
                what, static_cast<long long>(requestBytes), times[times.size() / 2], times.first(),
                times[times.size() * 9 / 10], times.last());
}

CartridgeContext longChat()
{
    Chat chat;
    chat.id = 1;
    chat.title = QStringLiteral("A long chat");
    QList<Message> history;
    const QDateTime start = QDateTime::fromString(QStringLiteral("2026-01-01T08:00:00Z"), Qt::ISODate);
    for (int i = 0; i < 1000; ++i) {
        Message message;
        message.id = i + 1;
        message.role = i % 2 == 0 ? QStringLiteral("user") : QStringLiteral("assistant");
        // About the length of a chat message: 40 words.
        message.body = QStringLiteral("Message %1: ").arg(i)
            + QStringLiteral("a sentence of ordinary length about the topic at hand, ").repeated(4);
        message.createdAt = start.addSecs(60 * i).toString(Qt::ISODate);
        history.append(message);
    }
    return CartridgeContext::forChat(chat, QStringLiteral("Ada"), history, start);
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);

    const QString templateSource = ScriptResources::templateSource(QStringLiteral("Bench"));
    Chat empty;
    const auto emptyContext = CartridgeContext::forChat(empty, QStringLiteral("Ada"), {},
                                                        QDateTime::currentDateTimeUtc());
    report("template script, empty chat",
           CartridgeEngine::encodeRequest(templateSource, emptyContext, CartridgeHook::Turn, {}, {}).size(),
           measure(templateSource, emptyContext));

    const QString reader = QStringLiteral(
        "module.exports = { prompt: ({ messages, agent }) => {\n"
        "  const words = messages.reduce((n, m) => n + m.text.split(/\\s+/).length, 0);\n"
        "  const last = messages.filter((m) => m.role === 'user').at(-1)?.text ?? '';\n"
        "  return `You are ${agent.name}. ${messages.length} messages, ${words} words. Last: ${last.slice(0, 40)}`;\n"
        "} };");
    const auto chatContext = longChat();
    report("reader script, 1,000 messages",
           CartridgeEngine::encodeRequest(reader, chatContext, CartridgeHook::Turn, {}, {}).size(),
           measure(reader, chatContext));
    return 0;
}
