#pragma once

#include <QList>
#include <QMetaType>
#include <QString>

/// One installed speech voice.
struct Voice
{
    /// Stable across runs: the language code and the name ("en-GB/Alan").
    QString id;
    QString name;
    /// BCP 47 language code with its region, "en-GB".
    QString language;

    bool operator==(const Voice &) const = default;

    /// By language code, then by name.
    static QList<Voice> sorted(QList<Voice> voices);
};

Q_DECLARE_METATYPE(Voice)
