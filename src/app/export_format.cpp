#include "app/export_format.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace ExportFormat {

QString fileName(const QString &name)
{
    QString safe;
    for (const QChar c : name)
        safe += c == QLatin1Char('/') || c == QLatin1Char('\\') || c.category() == QChar::Other_Control
                    ? QLatin1Char(' ')
                    : c;
    safe = safe.simplified();
    // A leading dot would hide the file; "." and ".." are not names at all.
    while (safe.startsWith(QLatin1Char('.')))
        safe.remove(0, 1);
    safe = safe.left(80).trimmed();
    return safe.isEmpty() ? QStringLiteral("Untitled") : safe;
}

QString unique(const QString &base, const QString &extension, const std::function<bool(const QString &)> &taken)
{
    QString name = base + extension;
    for (int n = 2; taken(name); ++n)
        name = QStringLiteral("%1 %2%3").arg(base).arg(n).arg(extension);
    return name;
}

namespace {

QString shownText(const Message &message)
{
    return message.display.isEmpty() ? message.body : message.display;
}

QString localTime(const QString &iso)
{
    const QDateTime time = QDateTime::fromString(iso, Qt::ISODate);
    return time.isValid() ? time.toLocalTime().toString(QStringLiteral("yyyy-MM-dd HH:mm")) : iso;
}

} // namespace

QByteArray markdown(const QString &title, const QList<Message> &messages, const QString &assistantName)
{
    QString text = QStringLiteral("# ") + title + QStringLiteral("\n");
    for (const Message &message : messages) {
        if (message.hidden)
            continue;
        const QString who = message.role == QLatin1String("user")        ? QStringLiteral("You")
                            : message.role == QLatin1String("assistant") ? assistantName
                                                                         : message.role;
        text += QStringLiteral("\n## %1 · %2\n\n").arg(who, localTime(message.createdAt));
        if (!message.image.isEmpty())
            text += QStringLiteral("*[%1]*\n\n")
                        .arg(message.imageDescription.isEmpty() ? QStringLiteral("Image")
                                                                : QStringLiteral("Image: ") + message.imageDescription);
        if (!shownText(message).isEmpty())
            text += shownText(message) + QStringLiteral("\n");
    }
    return text.toUtf8();
}

QByteArray json(const QString &title, const QList<Message> &messages, const QHash<qint64, QString> &metadata)
{
    QJsonArray list;
    for (const Message &message : messages) {
        if (message.hidden)
            continue;
        QJsonObject entry{{QStringLiteral("role"), message.role},
                          {QStringLiteral("created_at"), message.createdAt},
                          {QStringLiteral("text"), shownText(message)}};
        if (!message.display.isEmpty())
            entry.insert(QStringLiteral("body"), message.body);
        if (!message.image.isEmpty())
            entry.insert(QStringLiteral("image_description"), message.imageDescription);
        const QJsonDocument details = QJsonDocument::fromJson(metadata.value(message.id).toUtf8());
        if (details.isObject() && !details.object().isEmpty())
            entry.insert(QStringLiteral("metadata"), details.object());
        list.append(entry);
    }
    const QJsonObject chat{{QStringLiteral("title"), title}, {QStringLiteral("messages"), list}};
    return QJsonDocument(chat).toJson(QJsonDocument::Indented);
}

} // namespace ExportFormat
