#pragma once

#include "app/search.h"
#include "storage/records.h"

#include <QAbstractListModel>
#include <QColor>
#include <QPointer>
#include <QtQml/qqmlregistration.h>

/// The search pane's hits, in order: title hits, then message hits. The hits change as a
/// whole with each search, so the list is reset, never patched.
class SearchHitListModel : public QAbstractListModel
{
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(Search *source READ source WRITE setSource NOTIFY sourceChanged)
    /// The colour of matched words in `HighlightedSnippetRole`.
    Q_PROPERTY(QColor matchColor READ matchColor WRITE setMatchColor NOTIFY matchColorChanged)

public:
    enum Role {
        ChatTitleRole = Qt::UserRole + 1, ///< "Untitled chat" for an empty title
        /// The snippet as styled text, matched words in bold and `matchColor`.
        HighlightedSnippetRole,
        /// "title: snippet" in plain words, for screen readers.
        AccessibleTextRole,
    };
    Q_ENUM(Role)

    explicit SearchHitListModel(QObject *parent = nullptr);

    Search *source() const { return m_source; }
    void setSource(Search *source);
    QColor matchColor() const { return m_matchColor; }
    void setMatchColor(const QColor &color);

    /// The chat of the hit in `row`; -1 outside the list.
    Q_INVOKABLE qint64 chatIDAt(int row) const;
    /// The message of the hit in `row`; -1 for a title hit and outside the list.
    Q_INVOKABLE qint64 messageIDAt(int row) const;

    int rowCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

    /// A snippet as styled text: the pieces between U+0002 and U+0003 in bold and `color`,
    /// everything else escaped, the markers themselves left out.
    static QString highlightedSnippet(const QString &snippet, const QColor &color);

Q_SIGNALS:
    void sourceChanged();
    void matchColorChanged();

private:
    void refresh();

    QPointer<Search> m_source;
    QList<SearchHit> m_hits;
    QColor m_matchColor = Qt::black;
};
