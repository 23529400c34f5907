#include "app/app_model.h"
#include "app/app_paths.h"
#include "qml_types.h"
#include "platform/error.h"
#include "platform/single_instance.h"
#include "platform/termination_signals.h"
#include "stored_image_provider.h"
#include "window_capture.h"

#include <QCommandLineParser>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QGuiApplication>
#include <QQmlApplicationEngine>
#include <QQmlExtensionPlugin>
#include <QWindow>

#include <memory>

#include <sys/stat.h>

Q_IMPORT_QML_PLUGIN(CorvanePlugin)

int main(int argc, char *argv[])
{
    QElapsedTimer sinceStart;
    sinceStart.start();
    // Chats, pictures, recordings and the database are the user's alone: everything this
    // process creates (SQLite's journal files included) is closed to group and others.
    ::umask(S_IRWXG | S_IRWXO);
    // The TPM library writes to standard error whenever it finds no TPM, as on most computers;
    // what matters of its errors reaches the window instead.
    if (!qEnvironmentVariableIsSet("TSS2_LOG"))
        qputenv("TSS2_LOG", "all+none");
    QGuiApplication app(argc, argv);
    QGuiApplication::setApplicationName(QStringLiteral("Corvane"));
    QGuiApplication::setApplicationVersion(QStringLiteral(CORVANE_VERSION));
    QGuiApplication::setDesktopFileName(QStringLiteral(CORVANE_APP_ID));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Private AI chat with local models"));
    parser.addHelpOption();
    parser.addVersionOption();
    const QCommandLineOption screenshot(QStringLiteral("screenshot"),
        QStringLiteral("Save a picture of the window to <file> once it is drawn, then quit."),
        QStringLiteral("file"));
    parser.addOption(screenshot);
    const QCommandLineOption reportFirstFrame(QStringLiteral("report-first-frame"),
        QStringLiteral("Print how long after start the first frame was drawn (for measurements)."));
    parser.addOption(reportFirstFrame);
    const QCommandLineOption newChat(QStringLiteral("new-chat"), QStringLiteral("Start with a new chat."));
    parser.addOption(newChat);
    parser.addPositionalArgument(QStringLiteral("files"),
        QStringLiteral("Script files (.corvane, .corvane.js) to add to the script library."), QStringLiteral("[files...]"));
    parser.process(app);

    // One window per data folder: a second start hands its files or action to the first.
    SingleInstance::Request request;
    for (const QString &file : parser.positionalArguments())
        request.files << QFileInfo(file).absoluteFilePath();
    if (parser.isSet(newChat))
        request.action = QStringLiteral("new-chat");
    SingleInstance instance(QStringLiteral(CORVANE_APP_ID), AppPaths::overriddenDirectory());
    switch (instance.claim(request)) {
    case SingleInstance::Claim::Running:
        break;
    case SingleInstance::Claim::HandedOff:
        // The running window came forward; a picture asked of this start would never be drawn.
        if (parser.isSet(screenshot)) {
            qCritical().noquote() << "Corvane is already running with this data folder, so no picture was"
                                     " saved: quit it, or set CORVANE_DATA_DIR to another folder.";
            return 1;
        }
        return 0;
    case SingleInstance::Claim::NotAnswered:
        qCritical().noquote() << "Corvane is already running with this data folder but does not answer:"
                              << instance.failure();
        return 1;
    }

    TerminationSignals terminationSignals;
    // Declared before the engine, so that the window goes first at exit and no binding
    // reads a model that is already gone.
    std::unique_ptr<AppModel> model;
    QQmlApplicationEngine engine;
    QObject::connect(&engine, &QQmlApplicationEngine::objectCreationFailed, &app,
                     [] { QCoreApplication::exit(1); }, Qt::QueuedConnection);

    try {
        model = std::make_unique<AppModel>();
    } catch (const CorvaneError &error) {
        const QString message = QStringLiteral("Could not open local storage: ") + error.description();
        qCritical().noquote() << message;
        engine.setInitialProperties({{QStringLiteral("message"), message}});
        engine.load(QUrl(QStringLiteral("qrc:/qt/qml/Corvane/StartupFailure.qml")));
        if (parser.isSet(screenshot))
            captureFirstWindowAndQuit(engine, parser.value(screenshot));
        app.exec();
        return 1;
    }

    AppModelSingleton::instance = model.get();
    engine.addImageProvider(QLatin1String(StoredImageProvider::id), new StoredImageProvider(model->images()));
    engine.load(QUrl(QStringLiteral("qrc:/qt/qml/Corvane/Main.qml")));
    if (engine.rootObjects().isEmpty())
        return 1;
    // What this start and later ones ask for arrives once the window can show it.
    auto *window = qobject_cast<QWindow *>(engine.rootObjects().constFirst());
    const auto raise = [window] {
        window->show();
        window->raise();
        window->requestActivate();
    };
    const auto act = [&model, raise](const QString &action) {
        if (action == QLatin1String("new-chat"))
            model->tree()->addChat(ChatTree::none);
        raise();
    };
    const auto open = [&model, raise](const QStringList &files) {
        model->scripts()->openFiles(files);
        raise();
    };
    QObject::connect(&instance, &SingleInstance::activated, window, raise);
    QObject::connect(&instance, &SingleInstance::actionActivated, window, act);
    QObject::connect(&instance, &SingleInstance::filesOpened, window, open);
    if (!request.action.isEmpty())
        act(request.action);
    if (!request.files.isEmpty())
        open(request.files);
    if (parser.isSet(screenshot))
        captureFirstWindowAndQuit(engine, parser.value(screenshot));
    if (parser.isSet(reportFirstFrame))
        reportFirstFrameTime(engine, sinceStart);
    return app.exec();
}
