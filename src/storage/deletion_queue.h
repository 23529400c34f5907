#pragma once

#include <QList>
#include <QString>

class Database;

/// Folders and chats the user has deleted whose rows are still being removed, oldest first.
///
/// Removing a large folder takes seconds: the search index wipes every word of every removed
/// message from its pages. So a deletion first lands here, which hides the folder or chat from
/// every view at once, and its rows go afterwards in the background. The list is stored in the
/// settings table, so that a removal cut short by quitting goes on at the next start and what
/// it still holds never shows again in between.
class DeletionQueue
{
public:
    enum class Kind { folder, chat };
    struct Entry
    {
        Kind kind;
        qint64 id;
        friend bool operator==(const Entry &, const Entry &) = default;
    };

    /// The settings key that holds the list.
    static const QString settingKey;

    /// Reads the stored list. A missing or unreadable value reads as an empty list, and an
    /// unreadable entry is skipped: at worst a folder shows again, nothing is deleted that the
    /// user did not delete.
    void load(Database &db);
    /// Forgets the list without touching the file, for when every row is already gone.
    void clear() { m_entries.clear(); }

    const QList<Entry> &entries() const { return m_entries; }
    bool isEmpty() const { return m_entries.isEmpty(); }

    /// Appends `entry` and stores the list; when storing fails the list stays as it was.
    void add(Database &db, Entry entry);

    /// The ids of the messages that removing `entry` deletes, ascending: a chat's own, or those
    /// of every chat in the folder and the folders below it.
    static QList<qint64> messageIDs(Database &db, const Entry &entry);

    /// Deletes the entry's own row, whose cascade takes whatever is still below it, and drops
    /// the entry from the stored list, both in one transaction.
    void finish(Database &db, const Entry &entry);

private:
    static void store(Database &db, const QList<Entry> &entries);

    QList<Entry> m_entries;
};
