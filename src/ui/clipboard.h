#pragma once

#include <QObject>
#include <QtQml/qqmlregistration.h>

/// The system clipboard for the window, which QML cannot reach on its own.
class Clipboard : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    QML_SINGLETON

public:
    using QObject::QObject;

    Q_INVOKABLE void copy(const QString &text);
};
