#pragma once

#include <QString>

class QQmlApplicationEngine;

/// Saves a picture of the engine's first window to `path` once it has drawn its first
/// frame, then quits the application with status 0 (1 when the picture cannot be saved).
/// Used for documentation and for looking at the window without a display.
void captureFirstWindowAndQuit(QQmlApplicationEngine &engine, const QString &path);

class QElapsedTimer;

/// Prints "first frame after N ms" to standard output when the engine's first window has
/// drawn its first frame, N counted by `sinceStart`. For start-up measurements.
void reportFirstFrameTime(QQmlApplicationEngine &engine, const QElapsedTimer &sinceStart);
