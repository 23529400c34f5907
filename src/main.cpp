#include "app/app_model.h"
#include "qml_types.h"
#include "platform/error.h"
#include "platform/termination_signals.h"
#include "stored_image_provider.h"
#include "window_capture.h"

#include <QCommandLineParser>
#include <QElapsedTimer>
#include <QGuiApplication>
#include <QQmlApplicationEngine>
#include <QQmlExtensionPlugin>

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
    if (parser.isSet(newChat))
        model->tree()->addChat(ChatTree::none);
    // Files named on the command line arrive once the window can show them.
    if (const QStringList files = parser.positionalArguments(); !files.isEmpty())
        model->scripts()->openFiles(files);
    if (parser.isSet(screenshot))
        captureFirstWindowAndQuit(engine, parser.value(screenshot));
    if (parser.isSet(reportFirstFrame))
        reportFirstFrameTime(engine, sinceStart);
    return app.exec();
}
