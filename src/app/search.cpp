#include "app/search.h"

#include "app/chat_tree.h"
#include "app/status_banner.h"
#include "platform/worker_thread.h"
#include "storage/database.h"

#include <QHash>
#include <QPointer>
#include <QTimer>

/// The connection that searches, shared with the task that runs on it so that it outlives a
/// search still finishing when the area goes.
struct Search::Reader
{
    explicit Reader(const QString &path)
        : database(path, Database::Options{.foreignKeyIndexes = true, .readOnly = true})
    {
    }

    Database database;
};

Search::Search(const QString &databasePath, Database &database, ChatTree &tree, StatusBanner &status,
               QObject *parent)
    : QObject(parent)
    , m_database(database)
    , m_tree(tree)
    , m_status(status)
    , m_scopeFolderID(tree.selectedNodeID())
    , m_reader(std::make_shared<Reader>(databasePath))
{
    m_pool.setMaxThreadCount(1);
}

Search::~Search()
{
    // The pool waits for the search on its thread, which ends at once.
    m_reader->database.interrupt();
}

void Search::setTerm(const QString &term)
{
    if (term == m_term)
        return;
    m_term = term;
    Q_EMIT termChanged();
    start();
}

void Search::setSearchAll(bool searchAll)
{
    if (searchAll == m_searchAll)
        return;
    m_searchAll = searchAll;
    Q_EMIT scopeChanged();
    start();
}

QString Search::scopeName() const
{
    for (const Node &node : m_tree.nodes()) {
        if (node.id == m_scopeFolderID)
            return node.name;
    }
    return QString();
}

void Search::begin()
{
    if (m_tree.selectedNodeID() != m_scopeFolderID) {
        m_scopeFolderID = m_tree.selectedNodeID();
        Q_EMIT scopeChanged();
    }
    start();
}

void Search::refresh()
{
    // What can no longer be shown goes at once: a chat deleted or locked away must not linger
    // on screen until the search comes back.
    publish(visible(m_hits));
    // Several changes usually come together (a reload, a lock, a key): one search for them.
    if (m_refreshScheduled || m_term.trimmed().isEmpty())
        return;
    m_refreshScheduled = true;
    QTimer::singleShot(0, this, [this] {
        m_refreshScheduled = false;
        start();
    });
}

void Search::resetAfterErase()
{
    m_searchAll = true;
    m_scopeFolderID = m_tree.selectedNodeID();
    Q_EMIT scopeChanged();
    m_term.clear();
    Q_EMIT termChanged();
    start();
}

void Search::start()
{
    ++m_generation;
    if (m_running) {
        // The running search is stale: it stops, and the loop goes on with the newest term.
        m_reader->database.interrupt();
        return;
    }
    runSearches();
}

QCoro::Task<> Search::runSearches()
{
    QPointer<Search> self(this);
    m_running = true;
    Q_EMIT searchingChanged();
    for (;;) {
        const quint64 generation = m_generation;
        const QString term = m_term.trimmed();
        if (term.isEmpty()) {
            publish({});
            break;
        }
        SearchScope scope;
        if (!m_searchAll)
            scope.folderIDs = m_tree.subtreeIDs(m_scopeFolderID);
        // Sealed chats are read only where they can be shown: in open locked folders.
        QSet<qint64> sealed;
        for (const Chat &chat : m_tree.chats()) {
            if (chat.isSealed && !m_tree.isLockedAway(chat) && (m_searchAll || scope.folderIDs->contains(chat.nodeID)))
                sealed.insert(chat.id);
        }
        std::optional<VaultKey> key = sealed.isEmpty() ? std::nullopt : m_database.vaultKey();
        scope.sealedChatIDs = std::move(sealed);

        std::shared_ptr<Reader> reader = m_reader;
        auto work = [reader, term, scope = std::move(scope), key = std::move(key)] {
            Database &database = reader->database;
            database.setVaultKey(key);
            try {
                QList<SearchHit> hits = database.search(term, scope);
                database.setVaultKey(std::nullopt);
                return hits;
            } catch (...) {
                database.setVaultKey(std::nullopt);
                throw;
            }
        };
        std::optional<QList<SearchHit>> found;
        try {
            QCoro::Task<QList<SearchHit>> task = onWorkerThread<QList<SearchHit>>(std::move(work), &m_pool);
            found = co_await std::move(task);
        } catch (const std::exception &error) {
            // A stale search was interrupted on purpose; a current one failed, and the hits on
            // screen stay as they were.
            if (self && generation == m_generation)
                m_status.showError(error);
        }
        if (!self)
            co_return;
        if (generation == m_generation) {
            if (found)
                publish(visible(*found));
            break;
        }
    }
    m_running = false;
    Q_EMIT searchingChanged();
}

QList<SearchHit> Search::visible(const QList<SearchHit> &hits) const
{
    const QSet<qint64> scope = m_searchAll ? QSet<qint64>() : m_tree.subtreeIDs(m_scopeFolderID);
    QHash<qint64, const Chat *> chats;
    chats.reserve(m_tree.chats().size());
    for (const Chat &chat : m_tree.chats())
        chats.insert(chat.id, &chat);
    QList<SearchHit> result;
    for (const SearchHit &hit : hits) {
        // Chats being deleted are out of the tree already; a lock may have closed meanwhile.
        const Chat *chat = chats.value(hit.chatID);
        if (!chat || m_tree.isLockedAway(*chat) || (!m_searchAll && !scope.contains(chat->nodeID)))
            continue;
        result.append(hit);
    }
    return result;
}

void Search::publish(QList<SearchHit> hits)
{
    if (hits == m_hits)
        return;
    m_hits = std::move(hits);
    Q_EMIT hitsChanged();
}
