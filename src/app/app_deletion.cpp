// Deleting folders and chats. The search index pays for every deleted message (about 1.5 ms
// each in a large index, to wipe its words from the index's pages), so a folder of thousands
// of messages would hold the window for seconds. Messages therefore go in slices of about
// 40 ms, each its own transaction, with the event loop turning in between and the progress in
// the status line; the folder or chat itself goes last. Before a large deletion the index is
// merged, also in slices: a merged index removes rows several times faster, and merging a
// million messages' index takes about two seconds. An interrupted deletion leaves the
// folder or chat in place with the messages not yet reached.
#include "app/app_model.h"

#include "storage/database.h"

#include <QCoro/QCoroTimer>
#include <QElapsedTimer>

#include <algorithm>
#include <chrono>

namespace {

constexpr qint64 s_sliceTargetMs = 40;
/// From this many messages on, merging the index first pays for itself.
constexpr qsizetype s_mergeFirstFrom = 1000;
/// Index pages merged per slice: about 20 ms in a million messages' index.
constexpr int s_mergePages = 200;

} // namespace

void AppModel::deleteChat(qint64 id)
{
    if (m_isGenerating || m_deletingName)
        return;
    const auto chat = std::ranges::find(m_chats, id, &Chat::id);
    const QString title = chat != m_chats.end() ? chat->title : QString();
    if (m_selectedChatID == id) {
        clearChatSelection();
        Q_EMIT selectionChanged();
    }
    deleteInSlices(
        title, {id},
        [this, id] { m_database->execute(QStringLiteral("DELETE FROM chats WHERE id=?"), {DBValue::integer(id)}); },
        [] {});
}

void AppModel::deleteFolder(qint64 id)
{
    if (m_isGenerating || m_deletingName)
        return;
    const Node *folder = m_tree.find(id);
    const QString name = folder ? folder->name : QString();
    const QSet<qint64> subtree = subtreeIDs(id);
    QList<qint64> chatIDs;
    for (const Chat &chat : m_chats)
        if (subtree.contains(chat.nodeID))
            chatIDs.append(chat.id);

    // Nothing in the folder stays on screen while it goes.
    const std::optional<Chat> chat = selectedChat();
    if (chat && subtree.contains(chat->nodeID)) {
        clearChatSelection();
        Q_EMIT selectionChanged();
    }
    const auto finish = [this, id] {
        m_database->execute(QStringLiteral("DELETE FROM nodes WHERE id=?"), {DBValue::integer(id)});
        // There is always at least one folder to put chats in.
        if (m_database->nodes().isEmpty())
            m_database->addNode(std::nullopt, QStringLiteral("folder"), QStringLiteral("Inbox"));
    };
    const auto after = [this, subtree] {
        if (m_selectedNodeID && subtree.contains(*m_selectedNodeID)) {
            m_selectedNodeID.reset();
            Q_EMIT selectionChanged();
        }
        if (!m_selectedNodeID && !nodes().isEmpty()) {
            m_selectedNodeID = nodes().first().id;
            Q_EMIT selectionChanged();
        }
    };
    deleteInSlices(name, chatIDs, finish, after);
}

QCoro::Task<> AppModel::deleteInSlices(QString name, QList<qint64> chatIDs, std::function<void()> finish,
                                       std::function<void()> after)
{
    const QPointer<AppModel> alive(this);
    m_deletingName = name;
    Q_EMIT activityChanged();
    QList<qint64> ids;
    bool ok = tryDatabase([&] {
        for (const qint64 chatID : chatIDs)
            ids += m_database->messageIDs(chatID);
    });
    // In id order, each slice's words sit close together in the index's pages.
    std::ranges::sort(ids);
    bool shownProgress = false;
    if (ok && ids.size() >= s_mergeFirstFrom) {
        setStatus(QStringLiteral("Deleting “%1”… 0%").arg(name), false);
        shownProgress = true;
        bool more = true;
        while (ok && more) {
            ok = tryDatabase([&] { more = m_database->mergeSearchIndex(s_mergePages); });
            co_await QCoro::sleepFor(std::chrono::milliseconds(0));
            if (!alive)
                co_return;
        }
    }
    qsizetype done = 0;
    qsizetype slice = 16;
    while (ok && done < ids.size()) {
        QElapsedTimer timer;
        timer.start();
        const QList<qint64> part = ids.mid(done, slice);
        ok = tryDatabase([&] { m_database->deleteMessages(part); });
        done += part.size();
        const qint64 spent = std::max<qint64>(1, timer.elapsed());
        slice = std::clamp<qsizetype>(slice * s_sliceTargetMs / spent, 8, 4096);
        if (ok && done < ids.size()) {
            setStatus(QStringLiteral("Deleting “%1”… %2%").arg(name).arg(done * 100 / ids.size()), false);
            shownProgress = true;
            co_await QCoro::sleepFor(std::chrono::milliseconds(0));
            if (!alive)
                co_return;
        }
    }
    if (ok)
        ok = tryDatabase(finish);
    m_deletingName.reset();
    Q_EMIT activityChanged();
    reload();
    pruneImages();
    after();
    if (ok && shownProgress)
        setStatus(QString(), false);
}
