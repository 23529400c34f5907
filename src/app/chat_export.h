#pragma once

#include "platform/error.h"

#include <QObject>
#include <QUrl>

#include <QCoro/QCoroTask>

class ChatTree;
class Database;
class StatusBanner;
struct ExportPlan;

/// Why an export did not happen; nothing of it is left on disk.
class ExportError : public CorvaneError
{
public:
    using CorvaneError::CorvaneError;

    static ExportError lockedAway(const QString &folder)
    {
        return ExportError(QStringLiteral("Open the locked folder “%1” to export it").arg(folder));
    }
    static ExportError notWritten(const QString &path)
    {
        return ExportError(QStringLiteral("Could not write “%1”").arg(path));
    }
};

/// Exports a chat, or a folder with everything inside it, as Markdown (one file per chat,
/// folders as folders) or as JSON (the same layout), into a folder the user picks. What goes
/// where is decided here, against the tree on screen; the chats are read, decrypted with a copy
/// of the vault key and written on a worker thread with a reading connection of its own, each
/// file atomically, and an export that fails takes back what it wrote.
class ChatExport : public QObject
{
    Q_OBJECT
    Q_PROPERTY(bool isExporting READ isExporting NOTIFY isExportingChanged)

public:
    ChatExport(QString databasePath, Database &database, ChatTree &tree, StatusBanner &status,
               QObject *parent = nullptr);

    bool isExporting() const { return m_exporting; }

    /// Whether exporting the chat or folder (`kind` "chat" or "folder") writes chats of a
    /// locked folder, which the files then hold unencrypted.
    Q_INVOKABLE bool writesLockedChats(const QString &kind, qint64 id) const;
    /// `exportTo` for the window: the outcome goes to the banner.
    Q_INVOKABLE void exportItem(const QString &kind, qint64 id, const QUrl &destination, const QString &format);
    /// Writes the chat or folder into `directory` as "markdown" or "json" and answers the path
    /// of what it made (the chat's file, or the folder's). Throws ExportError, DatabaseError and
    /// VaultError; nothing stays written then.
    QCoro::Task<QString> exportTo(QString kind, qint64 id, QString directory, QString format);

Q_SIGNALS:
    void isExportingChanged();

private:
    /// Where each chat `exportTo` writes goes. Throws ExportError for a folder locked away.
    ExportPlan plan(const QString &kind, qint64 id, const QString &directory, const QString &format) const;

    QString m_databasePath;
    Database &m_database;
    ChatTree &m_tree;
    StatusBanner &m_status;
    bool m_exporting = false;
};
