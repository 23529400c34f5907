#pragma once

#include "storage/records.h"

#include <QByteArray>
#include <QHash>
#include <QString>

#include <functional>

/// How an exported chat reads on disk: a Markdown file for people, a JSON file for programs,
/// and names the file system takes.
namespace ExportFormat {

/// `name` as a file or folder name: no "/" or control characters, not "." or "..", no
/// leading dots or surrounding blanks, at most 80 characters; "Untitled" when nothing is left.
QString fileName(const QString &name);

/// `base`, or "base 2", "base 3"… (before `extension`), the first that `taken` does not hold.
QString unique(const QString &base, const QString &extension, const std::function<bool(const QString &)> &taken);

/// The chat as Markdown: its title, then each shown message with who wrote it and when, its
/// picture in words. Hidden messages are left out.
QByteArray markdown(const QString &title, const QList<Message> &messages, const QString &assistantName);

/// The chat as JSON: its title and the shown messages with role, time, text, picture
/// description and, for replies, their metadata (`metadata` by message id, JSON text).
QByteArray json(const QString &title, const QList<Message> &messages, const QHash<qint64, QString> &metadata);

} // namespace ExportFormat
