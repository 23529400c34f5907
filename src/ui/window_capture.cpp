#include "window_capture.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QImage>
#include <QQmlApplicationEngine>
#include <QQuickWindow>
#include <QTimer>

#include <cstdio>

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

void reportFirstFrameTime(QQmlApplicationEngine &engine, const QElapsedTimer &sinceStart)
{
    const auto roots = engine.rootObjects();
    auto *window = roots.isEmpty() ? nullptr : qobject_cast<QQuickWindow *>(roots.first());
    if (!window)
        return;
    QObject::connect(
        window, &QQuickWindow::frameSwapped, window,
        [elapsed = &sinceStart] {
            std::printf("first frame after %.1f ms\n", double(elapsed->nsecsElapsed()) / 1e6);
            std::fflush(stdout);
        },
        Qt::SingleShotConnection);
}
