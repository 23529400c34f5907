// Deleting folders and chats. A deletion hides its folder or chat at once by adding it to the
// deletion queue, which every reload leaves out, and the rows go afterwards in the background.
//
// The search index pays for every removed message (about a millisecond each in a large index,
// to wipe its words from the index's pages), so a folder of thousands of messages takes
// seconds to remove. The purge therefore runs in slices of about 40 ms, each its own
// transaction, with the event loop turning in between; the folder or chat row goes last,
// together with its queue entry. Before a large removal the index is merged, also in slices:
// a merged index removes rows several times faster. A purge cut short by quitting goes on at
// the next start; until then the queue keeps what it holds out of sight.
#include "app/chat_tree.h"

#include "app/status_banner.h"

#include "storage/database.h"

#include <QPointer>

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

void ChatTree::deleteChat(qint64 id)
{
    if (m_rules.deletionBlocked() || !chat(id))
        return;
    if (!m_status.attempt([&] { m_deletions.add(m_database, {DeletionQueue::Kind::chat, id}); }))
        return;
    Q_EMIT deletionQueued();
    // The reload drops the selection of a chat that is no longer shown.
    reload();
    startPurge();
}

void ChatTree::deleteFolder(qint64 id)
{
    if (m_rules.deletionBlocked() || !m_tree.find(id))
        return;
    if (!m_status.attempt([&] { m_deletions.add(m_database, {DeletionQueue::Kind::folder, id}); }))
        return;
    Q_EMIT deletionQueued();
    reload();
    // There is always at least one folder to put chats in.
    if (nodes().isEmpty()
        && m_status.attempt([this] { m_database.addNode(std::nullopt, QStringLiteral("folder"), QStringLiteral("Inbox")); }))
        reload();
    if (m_selectedNodeID == none && !nodes().isEmpty())
        setSelection(m_selectedChatID, nodes().first().id);
    startPurge();
}

void ChatTree::startPurge()
{
    if (m_purgeCancel || m_deletions.isEmpty())
        return;
    m_purgeCancel = CancellationToken();
    purgeDeletions(*m_purgeCancel);
}

void ChatTree::cancelPurge()
{
    if (m_purgeCancel)
        m_purgeCancel->cancel();
    m_purgeCancel.reset();
}

QCoro::Task<> ChatTree::purgeDeletions(CancellationToken cancel)
{
    const QPointer<ChatTree> alive(this);
    // Each slice starts after an event-loop turn: the deletion that queued the work returns
    // first, and the window redraws between slices.
    const auto stopped = [&] { return !alive || cancel.isCancelled(); };
    bool ok = true;
    while (ok && !m_deletions.isEmpty()) {
        const DeletionQueue::Entry entry = m_deletions.entries().first();
        co_await QCoro::sleepFor(std::chrono::milliseconds(0));
        if (stopped())
            co_return;
        QList<qint64> ids;
        ok = m_status.attempt([&] { ids = DeletionQueue::messageIDs(m_database, entry); });
        bool more = ok && ids.size() >= s_mergeFirstFrom;
        while (ok && more) {
            ok = m_status.attempt([&] { more = m_database.mergeSearchIndex(s_mergePages); });
            co_await QCoro::sleepFor(std::chrono::milliseconds(0));
            if (stopped())
                co_return;
        }
        qsizetype done = 0;
        qsizetype slice = 16;
        while (ok && done < ids.size()) {
            QElapsedTimer timer;
            timer.start();
            // In id order, each slice's words sit close together in the index's pages.
            const QList<qint64> part = ids.mid(done, slice);
            ok = m_status.attempt([&] { m_database.deleteMessages(part); });
            done += part.size();
            const qint64 spent = std::max<qint64>(1, timer.elapsed());
            slice = std::clamp<qsizetype>(slice * s_sliceTargetMs / spent, 8, 4096);
            co_await QCoro::sleepFor(std::chrono::milliseconds(0));
            if (stopped())
                co_return;
        }
        if (ok)
            ok = m_status.attempt([&] { m_deletions.finish(m_database, entry); });
    }
    // A failure was shown in the status line; the queue keeps the rest for the next deletion
    // or the next start.
    m_purgeCancel.reset();
    Q_EMIT purgeFinished();
}

void ChatTree::resetAfterErase()
{
    m_deletions.clear();
    m_cartridgeAgentNames.clear();
    m_selectedChatID = none;
    m_selectedNodeID = none;
    reload();
    // The new default folder.
    if (!nodes().isEmpty())
        m_selectedNodeID = nodes().first().id;
    Q_EMIT selectionChanged();
    Q_EMIT chatOpened();
}
