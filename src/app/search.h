#pragma once

#include "storage/records.h"

#include <QList>
#include <QObject>
#include <QString>
#include <QThreadPool>

#include <QCoro/QCoroTask>

#include <memory>

class ChatTree;
class Database;
class StatusBanner;

/// The search pane's results: chat titles and messages that hold the term, over every chat or
/// only the folder the search started in with its subfolders.
///
/// Searches run on a thread of their own with a reading connection, so the window never waits
/// for one; a search that a newer term made stale is interrupted. Hits are filtered when they
/// arrive, against the tree as it is then: chats that are being deleted or locked away never
/// show. Sealed chats are searched, in memory, only while their locked folder is open.
class Search : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QString term READ term WRITE setTerm NOTIFY termChanged)
    Q_PROPERTY(bool searchAll READ searchAll WRITE setSearchAll NOTIFY scopeChanged)
    Q_PROPERTY(QString scopeName READ scopeName NOTIFY scopeChanged)
    Q_PROPERTY(bool isSearching READ isSearching NOTIFY searchingChanged)

public:
    Search(const QString &databasePath, Database &database, ChatTree &tree, StatusBanner &status,
           QObject *parent = nullptr);
    ~Search() override;

    const QString &term() const { return m_term; }
    /// Searches for `term` at once (the window decides how long to wait after typing). Only
    /// whitespace clears the hits without searching.
    void setTerm(const QString &term);
    bool searchAll() const { return m_searchAll; }
    void setSearchAll(bool searchAll);
    /// The name of the folder that "this folder" means.
    QString scopeName() const;
    bool isSearching() const { return m_running; }
    const QList<SearchHit> &hits() const { return m_hits; }

    /// The pane opens: "this folder" becomes the selected folder, and the hits are brought up
    /// to date.
    Q_INVOKABLE void begin();
    /// Searches again for the same term: what can be found or shown has changed.
    void refresh();
    /// Forgets the term and the hits after erasing all data.
    void resetAfterErase();

Q_SIGNALS:
    void termChanged();
    void scopeChanged();
    void searchingChanged();
    void hitsChanged();

private:
    struct Reader;

    void start();
    QCoro::Task<> runSearches();
    /// The hits the window may show now, in order.
    QList<SearchHit> visible(const QList<SearchHit> &hits) const;
    void publish(QList<SearchHit> hits);

    Database &m_database;
    ChatTree &m_tree;
    StatusBanner &m_status;
    QString m_term;
    bool m_searchAll = true;
    qint64 m_scopeFolderID;
    QList<SearchHit> m_hits;
    /// Raised by every change of what to search for: a result for an older one is dropped.
    quint64 m_generation = 0;
    bool m_running = false;
    bool m_refreshScheduled = false;
    std::shared_ptr<Reader> m_reader;
    /// One thread, so that searches on the reading connection never overlap.
    QThreadPool m_pool;
};
