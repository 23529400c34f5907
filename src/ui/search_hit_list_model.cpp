#include "search_hit_list_model.h"

#include "storage/search_text.h"

#include <QRegularExpression>

namespace {

QString titleOf(const SearchHit &hit)
{
    return hit.chatTitle.isEmpty() ? QStringLiteral("Untitled chat") : hit.chatTitle;
}

} // namespace

SearchHitListModel::SearchHitListModel(QObject *parent)
    : QAbstractListModel(parent)
{
}

void SearchHitListModel::setSource(Search *source)
{
    if (m_source == source)
        return;
    if (m_source)
        disconnect(m_source, nullptr, this, nullptr);
    m_source = source;
    if (m_source)
        connect(m_source, &Search::hitsChanged, this, &SearchHitListModel::refresh);
    refresh();
    Q_EMIT sourceChanged();
}

void SearchHitListModel::setMatchColor(const QColor &color)
{
    if (color == m_matchColor)
        return;
    m_matchColor = color;
    if (!m_hits.isEmpty())
        Q_EMIT dataChanged(index(0), index(int(m_hits.size()) - 1), {HighlightedSnippetRole});
    Q_EMIT matchColorChanged();
}

void SearchHitListModel::refresh()
{
    beginResetModel();
    m_hits = m_source ? m_source->hits() : QList<SearchHit>();
    endResetModel();
}

qint64 SearchHitListModel::chatIDAt(int row) const
{
    return row >= 0 && row < m_hits.size() ? m_hits[row].chatID : -1;
}

qint64 SearchHitListModel::messageIDAt(int row) const
{
    return row >= 0 && row < m_hits.size() && m_hits[row].id > 0 ? m_hits[row].id : -1;
}

int SearchHitListModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : int(m_hits.size());
}

QVariant SearchHitListModel::data(const QModelIndex &index, int role) const
{
    if (!checkIndex(index, CheckIndexOption::IndexIsValid | CheckIndexOption::ParentIsInvalid))
        return {};
    const SearchHit &hit = m_hits[index.row()];
    switch (role) {
    case ChatTitleRole:
        return titleOf(hit);
    case HighlightedSnippetRole:
        return highlightedSnippet(hit.snippet, m_matchColor);
    case AccessibleTextRole: {
        QString plain = hit.snippet;
        plain.remove(SearchText::matchStart).remove(SearchText::matchEnd);
        return titleOf(hit) + QStringLiteral(": ") + plain;
    }
    default:
        return {};
    }
}

QHash<int, QByteArray> SearchHitListModel::roleNames() const
{
    return {
        {ChatTitleRole, "chatTitle"},
        {HighlightedSnippetRole, "highlightedSnippet"},
        {AccessibleTextRole, "accessibleText"},
    };
}

QString SearchHitListModel::highlightedSnippet(const QString &snippet, const QColor &color)
{
    // Split at every marker, keeping empty pieces, so that odd pieces are always matches.
    static const QRegularExpression markers(QStringLiteral("[\\x{0002}\\x{0003}]"));
    const QStringList pieces = snippet.split(markers);
    QString result;
    for (qsizetype i = 0; i < pieces.size(); ++i) {
        // Line breaks would make a hit of one line several.
        const QString text = pieces[i].toHtmlEscaped().replace(QLatin1Char('\n'), QLatin1Char(' '));
        if (i % 2)
            result += QStringLiteral("<b><font color=\"") + color.name() + QStringLiteral("\">") + text
                      + QStringLiteral("</font></b>");
        else
            result += text;
    }
    return result;
}
