#pragma once

// What the journal says the data folder must hold after a kill: texts that must be there (in
// which chat), texts that must be gone, and folders and chats whose deletion was queued and
// must be gone once the next start has removed them. Anything whose fate a kill left open (a
// deletion or an erase that had started but not returned) is expected neither way.

#include "kill_journal.h"

#include <QHash>
#include <QSet>
#include <QString>
#include <QStringList>

class KillExpectations
{
public:
    QHash<QString, qint64> present; ///< text → the chat that holds it
    QSet<QString> absent;
    QSet<qint64> goneChats;
    QSet<qint64> goneFolders;
    /// Lines that do not parse: the journal itself is wrong.
    QStringList malformed;

    /// Takes in the journal's lines that came after those read before.
    void read(const QStringList &lines)
    {
        const auto ids = [](const QString &list) {
            QSet<qint64> result;
            for (const QString &id : list.split(QLatin1Char(','), Qt::SkipEmptyParts))
                result.insert(id.toLongLong());
            return result;
        };
        const auto doubt = [&](qint64 chat) {
            doubtfulTexts += textsByChat.take(chat);
            for (const QString &text : std::as_const(doubtfulTexts))
                present.remove(text);
        };

        for (const QString &line : lines) {
            const QStringList f = line.split(QLatin1Char(' '));
            const QString &what = f.first();
            // An add whose id never made it to the journal may have taken a gone id again.
            if (!adding.isEmpty() && what != adding) {
                (adding == QLatin1String("chat") ? goneChats : goneFolders).clear();
                adding.clear();
            }
            const bool settles = what == QLatin1String("deleted") || what == QLatin1String("erased");
            if (!settles) {
                doubtfulTexts.clear();
                doubtfulChats.clear();
                doubtfulFolders.clear();
            }
            if (what == QLatin1String("adding") && f.size() == 2) {
                adding = f[1];
            } else if ((what == QLatin1String("chat") || what == QLatin1String("folder")) && f.size() == 2) {
                adding.clear();
                const qint64 id = f[1].toLongLong();
                (what == QLatin1String("chat") ? goneChats : goneFolders).remove(id);
            } else if (what == QLatin1String("sent") && f.size() >= 3) {
                const qint64 chat = f[1].toLongLong();
                const QString text = line.section(QLatin1Char(' '), 2);
                present.insert(text, chat);
                textsByChat[chat].append(text);
            } else if (what == QLatin1String("bulk") && f.size() == 4) {
                const qint64 chat = f[1].toLongLong();
                for (int i = 0; i < f[2].toInt(); ++i) {
                    const QString text = KillJournal::bulkBody(f[3], i);
                    present.insert(text, chat);
                    textsByChat[chat].append(text);
                }
            } else if (what == QLatin1String("replacing") && f.size() >= 3) {
                // Regenerating may or may not have replaced it when the kill came.
                present.remove(line.section(QLatin1Char(' '), 2));
            } else if (what == QLatin1String("deleting") && f.size() == 3 && f[1] == QLatin1String("chat")) {
                const qint64 chat = f[2].toLongLong();
                doubt(chat);
                doubtfulChats = {chat};
            } else if (what == QLatin1String("deleting") && f.size() == 7 && f[1] == QLatin1String("folder")) {
                doubtfulFolders = ids(f[4]);
                doubtfulChats = ids(f[6]);
                for (qint64 chat : std::as_const(doubtfulChats))
                    doubt(chat);
            } else if (what == QLatin1String("deleted") && f.size() == 1) {
                goneChats += doubtfulChats;
                goneFolders += doubtfulFolders;
                for (const QString &text : std::as_const(doubtfulTexts))
                    absent.insert(text);
            } else if (what == QLatin1String("erasing") && f.size() == 1) {
                for (auto it = present.cbegin(); it != present.cend(); ++it)
                    doubtfulTexts.append(it.key());
                present.clear();
                textsByChat.clear();
                // Ids start over once everything is gone.
                goneChats.clear();
                goneFolders.clear();
            } else if (what == QLatin1String("erased") && f.size() == 1) {
                for (const QString &text : std::as_const(doubtfulTexts))
                    absent.insert(text);
            } else if (what != QLatin1String("run")) {
                malformed.append(line);
            }
            if (settles) {
                doubtfulTexts.clear();
                doubtfulChats.clear();
                doubtfulFolders.clear();
            }
        }
        // The journal may end here: an add whose id is missing may have taken a gone id.
        if (!adding.isEmpty())
            (adding == QLatin1String("chat") ? goneChats : goneFolders).clear();
    }

private:
    QHash<qint64, QStringList> textsByChat;
    // What the last "deleting" or "erasing" put in doubt; settled by the line after it.
    QStringList doubtfulTexts;
    QSet<qint64> doubtfulChats;
    QSet<qint64> doubtfulFolders;
    QString adding; ///< "chat" or "folder" after an "adding" line
};
