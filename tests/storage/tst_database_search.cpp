// Message and title search. Every case runs twice: on a plain chat, through the full-text
// index, and on the same chat in an open locked folder, read and matched in memory; both must
// find the same things and mark them the same way.
#include "sql_probe.h"

#include "storage/search_text.h"

#include <QTest>

using namespace SqlProbe;

namespace {

/// Title hits by title, then message hits by snippet, in order.
QStringList shown(const QList<SearchHit> &hits)
{
    QStringList result;
    for (const SearchHit &hit : hits) {
        const bool title = hit.snippet == QStringLiteral("Chat title");
        result << (title ? QStringLiteral("title: ") + hit.chatTitle : hit.snippet);
        if (title != (hit.id == -hit.chatID) || (!title && hit.id <= 0))
            result << QStringLiteral("<bad id>");
    }
    return result;
}

} // namespace

class TestDatabaseSearch : public QObject
{
    Q_OBJECT

private:
    FreshDatabase m_file;
    Database *m_db = nullptr;
    qint64 m_locked = 0;

    /// A folder whose chats are stored like those of a locked folder.
    qint64 lockedFolder()
    {
        const qint64 folder = m_db->addNode(std::nullopt, "folder", "Diary");
        m_db->execute("UPDATE nodes SET locked=1, sealed=1 WHERE id=?", {DBValue::integer(folder)});
        return folder;
    }

private Q_SLOTS:
    void init()
    {
        m_db = &m_file.open();
        m_db->setVaultKey(VaultKey::random());
        m_locked = lockedFolder();
    }
    void cleanup() { m_file.close(); }

    void search_data()
    {
        QTest::addColumn<bool>("sealed");
        QTest::addColumn<QString>("term");
        QTest::addColumn<QStringList>("expected");
        const QString cut = QStringLiteral("…w4 w5 w6 w7 w8 \x02needle\x03 w10 w11 w12 w13 w14 w15…");
        const QList<std::tuple<const char *, QString, QStringList>> rows = {
            {"a phrase, in order", "quick fox", {"the \x02quick fox\x03 jumps"}},
            {"words out of order", "fox quick", {}},
            {"the last word while typed", "the qui", {"\x02the quick\x03 fox jumps"}},
            {"a last word too short to be a prefix", "qu", {}},
            {"a finished last word", "jump ", {}},
            {"operators and brackets are words", "fox OR NEAR(", {}},
            {"a column filter is words", "text: fox", {}},
            {"double quotes", "say \"hi\"", {"\x02say hi\x03"}},
            {"case and accents", "CAFE", {"un \x02" "café\x03 noir"}},
            {"the shown text, not the body", "costume", {"\x02" "costume\x03"}},
            {"a body replaced by shown text", "raw", {}},
            {"an image description", "lighthouse", {"a \x02lighthouse\x03"}},
            {"a hidden message", "secret", {}},
            {"a title first, in any case", "RECIPES", {"title: Recipes", "old \x02recipes\x03"}},
            {"a long text, cut around the match", "needle", {cut}},
            {"no word at all", "?!", {}},
        };
        for (const bool sealed : {false, true}) {
            for (const auto &[name, term, expected] : rows)
                QTest::addRow("%s: %s", sealed ? "sealed" : "plain", name) << sealed << term << expected;
        }
        // LIKE's wildcards work in plain titles; sealed titles are compared as text.
        QTest::addRow("plain: %% in a title") << false << "Re%s" << QStringList{"title: Recipes"};
        QTest::addRow("sealed: %% in a title") << true << "Re%s" << QStringList{};
    }

    void search()
    {
        QFETCH(bool, sealed);
        QFETCH(QString, term);
        QFETCH(QStringList, expected);
        const qint64 folder = sealed ? m_locked : 1;
        const qint64 recipes = m_db->addChat(folder, "Recipes");
        const qint64 other = m_db->addChat(folder, "Other");
        for (const char *body : {"the quick fox jumps", "say hi", "un café noir"})
            addMessage(*m_db, other, body);
        const qint64 described = addMessage(*m_db, other, "raw body", false, "costume");
        m_db->execute("UPDATE messages SET image_description=? WHERE id=?",
                      {DBValue::text(m_db->seal("a lighthouse", sealed)), DBValue::integer(described)});
        addMessage(*m_db, other, "secret", true);
        addMessage(*m_db, recipes, "old recipes");
        QStringList words;
        for (int i = 0; i < 30; ++i)
            words << (i == 9 ? QStringLiteral("needle") : QStringLiteral("w%1").arg(i));
        addMessage(*m_db, other, words.join(' '));

        QCOMPARE(shown(m_db->search(term)), expected);
    }

    void lockedChatsAreSearchedOnlyWithTheKey()
    {
        const qint64 plain = m_db->addChat(1, "Plain heron");
        const qint64 sealed = m_db->addChat(m_locked, "Sealed heron");
        addMessage(*m_db, plain, "a heron");
        addMessage(*m_db, sealed, "a heron");
        const QStringList all{"title: Plain heron", "title: Sealed heron", "a \x02heron\x03", "a \x02heron\x03"};
        QCOMPARE(shown(m_db->search("heron")), all);

        // Only the chats asked for are read; the key is needed for any of them.
        QCOMPARE(shown(m_db->search("heron", {.folderIDs = std::nullopt, .sealedChatIDs = QSet<qint64>{}})),
                 QStringList({"title: Plain heron", "a \x02heron\x03"}));
        m_db->setVaultKey(std::nullopt);
        QCOMPARE(shown(m_db->search("heron")), QStringList({"title: Plain heron", "a \x02heron\x03"}));
    }

    void aFolderScopeKeepsItsSubfolders()
    {
        const qint64 work = m_db->addNode(std::nullopt, "folder", "Work");
        const qint64 projects = m_db->addNode(work, "folder", "Projects");
        const qint64 lockedInside = m_db->addNode(m_locked, "folder", "Inside");
        for (const qint64 folder : {qint64(1), work, projects, m_locked, lockedInside})
            addMessage(*m_db, m_db->addChat(folder, "Heron " + QString::number(folder)), "heron");
        const auto chatsFound = [&](const QSet<qint64> &folders) {
            QSet<qint64> chats;
            for (const SearchHit &hit : m_db->search("heron", {.folderIDs = folders, .sealedChatIDs = std::nullopt}))
                chats << hit.chatID;
            return chats.size();
        };
        QCOMPARE(chatsFound({work, projects}), 2);
        QCOMPARE(chatsFound({m_locked, lockedInside}), 2);
        QCOMPARE(chatsFound({1}), 1);
    }

    void theBestRankedHundredOfMany()
    {
        const qint64 chat = m_db->addChat(1, "Birds");
        m_db->execute("BEGIN");
        for (int i = 0; i < 150; ++i)
            addMessage(*m_db, chat, QStringLiteral("a heron by the weir, number %1, seen early in the morning").arg(i));
        const qint64 best = addMessage(*m_db, chat, "heron, heron, heron");
        m_db->execute("COMMIT");
        const QList<SearchHit> hits = m_db->search("heron");
        QCOMPARE(hits.size(), 100);
        QCOMPARE(hits.first().id, best);
    }

    void aReadingConnectionSearchesWhileTheFileIsWritten()
    {
        addMessage(*m_db, m_db->addChat(1, "c"), "heron");
        Database reader(m_file.path(), {.foreignKeyIndexes = true, .readOnly = true});
        m_db->execute("BEGIN IMMEDIATE");
        addMessage(*m_db, m_db->addChat(1, "d"), "heron");
        QCOMPARE(reader.search("heron").size(), 1); // what was committed
        m_db->execute("COMMIT");
        reader.interrupt(); // nothing runs: the next search is not affected
        QCOMPARE(reader.search("heron").size(), 2);
    }

    void snippetMarks_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("term");
        QTest::addColumn<QString>("expected"); // "-" for no match
        QTest::newRow("at the start") << "Heron at dawn" << "heron" << "\x02Heron\x03 at dawn";
        QTest::newRow("a prefix marks the whole word") << "the herons" << "hero" << "the \x02herons\x03";
        QTest::newRow("punctuation between phrase words") << "a heron, grey" << "heron grey" << "a \x02heron, grey\x03";
        QTest::newRow("part of a word is no match") << "theron" << "heron" << "-";
        QTest::newRow("the first of two") << "heron and heron" << "heron" << "\x02heron\x03 and heron";
    }

    void snippetMarks()
    {
        QFETCH(QString, text);
        QFETCH(QString, term);
        QFETCH(QString, expected);
        QCOMPARE(SearchText::snippet(text, term).value_or("-"), expected);
    }
};

QTEST_GUILESS_MAIN(TestDatabaseSearch)
#include "tst_database_search.moc"
