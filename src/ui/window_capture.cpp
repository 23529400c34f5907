#include "window_capture.h"

#include <QCoreApplication>
#include <QImage>
#include <QQmlApplicationEngine>
#include <QQuickWindow>
#include <QTimer>

void captureFirstWindowAndQuit(QQmlApplicationEngine &engine, const QString &path)
{
    const auto roots = engine.rootObjects();
    auto *window = roots.isEmpty() ? nullptr : qobject_cast<QQuickWindow *>(roots.first());
    if (!window) {
        QTimer::singleShot(0, qApp, [] { QCoreApplication::exit(1); });
        return;
    }
    QObject::connect(
        window, &QQuickWindow::frameSwapped, window,
        [window, path] {
            // Let the frame after the first settle layouts that depend on the window size.
            QTimer::singleShot(100, window, [window, path] {
                const QImage image = window->grabWindow();
                QCoreApplication::exit(!image.isNull() && image.save(path) ? 0 : 1);
            });
        },
        Qt::SingleShotConnection);
}
