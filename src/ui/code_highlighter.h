#pragma once

#include <QObject>
#include <QtQml/qqmlregistration.h>

#include <QColor>
#include <QList>
#include <QQuickTextDocument>

/// Colours source code: keywords, strings, numbers and comments of the common languages,
/// line by line with block comments carried over. Our own small highlighter, because Qt 6
/// ships none and the distribution's KSyntaxHighlighting is built for Qt 5; a reply's code
/// needs only the broad strokes.
class CodeHighlighter : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    QML_SINGLETON
    /// Colours for a dark code box; set by the main window, and followed by every document
    /// already coloured.
    Q_PROPERTY(bool dark READ dark WRITE setDark NOTIFY darkChanged)

public:
    using QObject::QObject;

    bool dark() const { return m_dark; }
    void setDark(bool dark);

    /// Colours `document` as `language` (a Markdown fence word such as "python", "c++",
    /// "js"; case does not matter) from now on, as it changes. An unknown language gets
    /// strings and numbers only.
    Q_INVOKABLE void attach(QQuickTextDocument *document, const QString &language);
    /// Whether `language` has keywords of its own here.
    static bool knows(const QString &language);
    /// Keywords, strings, numbers and comments, on the light or the dark code box.
    static QList<QColor> colours(bool dark);

Q_SIGNALS:
    void darkChanged();

private:
    bool m_dark = false;
};
