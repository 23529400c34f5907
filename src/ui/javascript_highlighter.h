#pragma once

#include <QObject>
#include <QtQml/qqmlregistration.h>

#include <QQuickTextDocument>

/// Colours a script's source as JavaScript in the scripts pane's editor: keywords, strings,
/// template literals, numbers and comments. Line by line, with block comments carried over.
class JavaScriptHighlighter : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    QML_SINGLETON

public:
    using QObject::QObject;

    /// Colours `document` from now on, as it is edited.
    Q_INVOKABLE void attach(QQuickTextDocument *document);
};
