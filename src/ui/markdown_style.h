#pragma once

#include <QObject>
#include <QtQml/qqmlregistration.h>

#include <QQuickTextDocument>

/// Spacing and code-block shading for a message's Markdown. Qt's Markdown import lays every
/// block edge to edge, which runs paragraphs together and hides where a code block starts.
class MarkdownStyle : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    QML_SINGLETON

public:
    using QObject::QObject;

    /// Restyles the document that a TextEdit just parsed from Markdown.
    /// Restyling changes the document, which makes the TextEdit report a text change and
    /// call in again: those calls return at once.
    Q_INVOKABLE void apply(QQuickTextDocument *document);

private:
    bool m_applying = false;
};
