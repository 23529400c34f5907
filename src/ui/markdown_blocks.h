#pragma once

#include <QObject>
#include <QVariantList>
#include <QtQml/qqmlregistration.h>

/// Splits a message's Markdown into prose and fenced code blocks, so that each code block can
/// be shown in its own box with its language's colours and a copy button. A fence that is not
/// closed yet (a reply still streaming) runs to the end of the text.
class MarkdownBlocks : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    QML_SINGLETON

public:
    struct Block
    {
        bool isCode = false;
        /// Prose as Markdown, or the code exactly as written, without its fences.
        QString text;
        /// The fence's language word in lower case ("python", "c++"), empty when none.
        QString language;

        bool operator==(const Block &) const = default;
    };

    using QObject::QObject;

    static QList<Block> blocks(const QString &markdown);
    /// `blocks` for the view: a list of {code: bool, text, language}.
    Q_INVOKABLE QVariantList split(const QString &markdown) const;
};
