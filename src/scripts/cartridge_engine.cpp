#include "scripts/cartridge_engine.h"

#include "platform/auxiliary_executable.h"
#include "scripts/cartridge_error.h"

#include <QFileInfo>
#include <QJsonDocument>
#include <QProcess>
#include <QTimer>

#include <QCoro/QCoroProcess>

namespace CartridgeEngine {

QByteArray encodeRequest(const QString &source, const CartridgeContext &context, CartridgeHook hook,
                         const QString &state, const std::optional<QString> &text)
{
    QJsonObject request{
        {QStringLiteral("source"), source},
        {QStringLiteral("hook"), cartridgeHookName(hook)},
        {QStringLiteral("context"), context.toJson()},
        {QStringLiteral("state"), state},
    };
    if (hook == CartridgeHook::Reply && text)
        request.insert(QStringLiteral("text"), *text);
    return QJsonDocument(request).toJson(QJsonDocument::Compact);
}

QCoro::Task<CartridgeResult> evaluate(QString source, CartridgeContext context, CartridgeHook hook,
                                      QString state, std::optional<QString> text)
{
    const QString runner = AuxiliaryExecutable::find(QLatin1String(runnerName));
    co_return co_await evaluateWith(runner, std::move(source), std::move(context), hook,
                                    std::move(state), std::move(text));
}

QCoro::Task<CartridgeResult> evaluateWith(QString runner, QString source, CartridgeContext context,
                                          CartridgeHook hook, QString state,
                                          std::optional<QString> text)
{
    const QFileInfo runnerFile(runner);
    if (runner.isEmpty() || !runnerFile.isFile() || !runnerFile.isExecutable())
        throw CartridgeError::missingRunner();
    const QByteArray request = encodeRequest(source, context, hook, state, text);
    if (request.size() > maxRequestBytes)
        throw CartridgeError::rejected(QStringLiteral("Conversation history is too large for the script"));

    QProcess process;
    process.setProgram(runnerFile.absoluteFilePath());
    process.setStandardErrorFile(QProcess::nullDevice());
    AuxiliaryExecutable::endWithParent(process);
    // An answer past the limit is refused whatever follows, so there is no need to read on.
    bool answerTooLarge = false;
    QObject::connect(&process, &QProcess::readyReadStandardOutput, &process, [&] {
        if (process.bytesAvailable() > maxAnswerBytes) {
            answerTooLarge = true;
            process.kill();
        }
    });

    if (!co_await qCoro(process).start())
        throw SystemError(process.errorString());
    QTimer killTimer;
    killTimer.setSingleShot(true);
    QObject::connect(&killTimer, &QTimer::timeout, &process, &QProcess::kill);
    killTimer.start(timeLimit);

    // The runner reads its whole request before it writes anything, so writing it all first
    // cannot deadlock; a runner that dies early only makes the write fail, which its exit shows.
    process.write(request);
    process.closeWriteChannel();
    if (process.state() != QProcess::NotRunning)
        co_await qCoro(process).waitForFinished(std::chrono::milliseconds(-1));
    killTimer.stop();

    if (answerTooLarge)
        throw CartridgeError::invalidResponse();
    // Every death by a signal reads as the time limit: the kill above, the runner's own
    // memory limit, or a crash.
    if (process.exitStatus() == QProcess::CrashExit)
        throw CartridgeError::timedOut();
    co_return readAnswer(process.readAllStandardOutput(), hook);
}

} // namespace CartridgeEngine
