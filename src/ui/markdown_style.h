#pragma once

#include <QObject>
#include <QtQml/qqmlregistration.h>

#include <QColor>
#include <QQuickTextDocument>

/// Spacing, code-block shading and link colour for a message's Markdown. Qt's Markdown import
/// lays every block edge to edge, which runs paragraphs together and hides where a code block
/// starts, and colours links from the application's palette, which the theme does not reach
/// (plain blue by default: unreadable on the dark background).
class MarkdownStyle : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    QML_SINGLETON
    /// The shade of a code block and the colour of links, from the theme: set by the main
    /// window and followed by every document already styled.
    Q_PROPERTY(QColor codeBackground READ codeBackground WRITE setCodeBackground NOTIFY coloursChanged)
    Q_PROPERTY(QColor linkColor READ linkColor WRITE setLinkColor NOTIFY coloursChanged)

public:
    using QObject::QObject;

    QColor codeBackground() const { return m_codeBackground; }
    void setCodeBackground(const QColor &colour);
    QColor linkColor() const { return m_linkColor; }
    void setLinkColor(const QColor &colour);

    /// Restyles the document that a TextEdit just parsed from Markdown.
    /// Restyling changes the document, which makes the TextEdit report a text change and
    /// call in again: those calls return at once.
    Q_INVOKABLE void apply(QQuickTextDocument *document);

Q_SIGNALS:
    void coloursChanged();

private:
    bool m_applying = false;
    // The light theme's, until the window sets them.
    QColor m_codeBackground{0xf1, 0xef, 0xea};
    QColor m_linkColor{0x1f, 0x58, 0xc9};
};
