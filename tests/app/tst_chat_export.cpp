// Exporting a folder with everything inside it, as Markdown and as JSON, into a real folder:
// the layout, what a chat file says, names that clash or cannot be file names, an export that
// fails half-way leaving nothing behind, and a tree holding a locked folder, closed and open.
// A locked folder exported on its own is covered in tst_app_locks.
#include "app/app_model.h"
#include "support/await_task.h"
#include "support/database_rows.h"

#include <QDirIterator>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTest>

namespace {

QStringList filesBelow(const QString &root)
{
    QStringList files;
    QDirIterator it(root, QDir::Files, QDirIterator::Subdirectories);
    while (it.hasNext())
        files << it.next().mid(root.size() + 1);
    files.sort();
    return files;
}

QByteArray contents(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

class TestChatExport : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_data;
    std::unique_ptr<AppModel> m_model;
    qint64 m_work = -1;
    qint64 m_home = -1; ///< a plain chat and the locked folder "Diary"
    qint64 m_diary = -1;

    Database &db() { return m_model->database(); }

    qint64 chatIn(qint64 folder, const QString &title)
    {
        const qint64 chat = db().addChat(folder, title);
        m_model->tree()->reload();
        return chat;
    }

private Q_SLOTS:
    void initTestCase()
    {
        qputenv("CORVANE_DATA_DIR", m_data.path().toUtf8());
        m_model = std::make_unique<AppModel>();
        ChatTree &tree = *m_model->tree();
        m_work = tree.addFolder(ChatTree::none);
        tree.renameNode(m_work, QStringLiteral("Work"));
        const qint64 plans = tree.addFolder(m_work);
        tree.renameNode(plans, QStringLiteral("Plans/2027"));

        const qint64 talk = chatIn(m_work, QStringLiteral("Same"));
        addMessage(db(), talk, QStringLiteral("What is **this**?"));
        addMessage(db(), talk, QStringLiteral("a script's note"), true);
        Message picture;
        picture.chatID = talk;
        picture.role = QStringLiteral("user");
        picture.image = QStringLiteral("fox.jpg");
        picture.createdAt = QStringLiteral("2026-11-15T20:21:00Z");
        db().setMessageImageDescription(db().addMessage(picture), QStringLiteral("a red fox"));
        Message reply;
        reply.chatID = talk;
        reply.role = QStringLiteral("assistant");
        reply.body = QStringLiteral("A fox.\n\n```\nfox()\n```");
        reply.createdAt = QStringLiteral("2026-11-15T20:21:05Z");
        db().addMessage(reply, QStringLiteral(R"({"model":"test-chat","speed":{"tokens_per_second":30}})"));
        chatIn(m_work, QStringLiteral("Same"));
        chatIn(plans, QStringLiteral(".hidden/odd\tname"));

        m_home = tree.addFolder(ChatTree::none);
        tree.renameNode(m_home, QStringLiteral("Home"));
        addMessage(db(), chatIn(m_home, QStringLiteral("Shopping")), QStringLiteral("bread and milk"));
        m_diary = tree.addFolder(m_home);
        tree.renameNode(m_diary, QStringLiteral("Diary"));
        addMessage(db(), chatIn(m_diary, QStringLiteral("Secret")), QStringLiteral("quokkaplasma"));
        // Locked, and closed once the lock is in place.
        QVERIFY(awaitTask(m_model->locks()->createVault(QStringLiteral("correct horse"), m_diary)));
    }

    void exportedTree_data()
    {
        QTest::addColumn<QString>("format");
        QTest::addColumn<QStringList>("files");
        QTest::newRow("Markdown") << "markdown"
                                  << QStringList{"Plans 2027/hidden odd name.md", "Same 2.md", "Same.md"};
        QTest::newRow("JSON") << "json" << QStringList{"Plans 2027/hidden odd name.json", "Same 2.json", "Same.json"};
    }

    void exportedTree()
    {
        QFETCH(QString, format);
        QFETCH(QStringList, files);
        QTemporaryDir destination;
        const QString first = awaitTask(m_model->chatExport()->exportTo("folder", m_work, destination.path(), format));
        QCOMPARE(first, destination.filePath("Work"));
        QCOMPARE(filesBelow(first), files);
        // A second export never overwrites the first.
        const QString second = awaitTask(m_model->chatExport()->exportTo("folder", m_work, destination.path(), format));
        QCOMPARE(second, destination.filePath("Work 2"));

        // The older "Same" is listed last, so it is the one numbered.
        const QByteArray chat = contents(first + (format == "json" ? "/Same 2.json" : "/Same 2.md"));
        if (format == "markdown") {
            QVERIFY(chat.startsWith("# Same\n\n## You · "));
            QVERIFY(chat.contains("What is **this**?\n"));
            QVERIFY(chat.contains("*[Image: a red fox]*\n"));
            QVERIFY(chat.contains("## Corvane · "));
            QVERIFY(chat.contains("A fox.\n\n```\nfox()\n```\n"));
            QVERIFY(!chat.contains("a script's note"));
        } else {
            const QJsonObject object = QJsonDocument::fromJson(chat).object();
            QCOMPARE(object.value("title").toString(), "Same");
            const QJsonArray messages = object.value("messages").toArray();
            QCOMPARE(messages.size(), 3);
            QCOMPARE(messages[0]["role"].toString(), "user");
            QCOMPARE(messages[0]["created_at"].toString(), "2026-11-15T20:20:44Z");
            QCOMPARE(messages[1]["image_description"].toString(), "a red fox");
            QCOMPARE(messages[2]["text"].toString(), "A fox.\n\n```\nfox()\n```");
            QCOMPARE(messages[2]["metadata"]["model"].toString(), "test-chat");
        }
    }

    void aTreeWithALockedFolder_data()
    {
        QTest::addColumn<bool>("open");
        QTest::addColumn<QString>("refusal");
        QTest::addColumn<QStringList>("files");
        // Closed, the whole tree is refused: a part of it would pass for all of it.
        QTest::newRow("closed") << false << "Open the locked folder “Diary” to export it" << QStringList();
        QTest::newRow("open") << true << "" << QStringList{"Home/Diary/Secret.md", "Home/Shopping.md"};
    }

    void aTreeWithALockedFolder()
    {
        QFETCH(bool, open);
        QFETCH(QString, refusal);
        QFETCH(QStringList, files);
        FolderLocks &locks = *m_model->locks();
        if (open)
            QVERIFY(awaitTask(locks.unlock(QStringLiteral("correct horse"),
                                           {.kind = UnlockPurpose::Open, .folderID = m_diary})));
        else
            locks.lockAll();
        QTemporaryDir destination;
        QString refused;
        try {
            awaitTask(m_model->chatExport()->exportTo("folder", m_home, destination.path(), "markdown"));
        } catch (const ExportError &error) {
            refused = error.description();
        }
        QCOMPARE(refused, refusal);
        QCOMPARE(filesBelow(destination.path()), files);
        QCOMPARE(contents(destination.filePath("Home/Diary/Secret.md")).contains("quokkaplasma"), open);
        QCOMPARE(contents(destination.filePath("Home/Shopping.md")).contains("bread and milk"), open);
    }

    void aFailedExportLeavesNothing()
    {
        // A destination so deep that the export's own folder fits and the sub-folder's file
        // no longer does (the file system's path limit): the export fails half-way.
        QTemporaryDir destination;
        QString into = destination.path();
        while (into.size() < 4070)
            into += QLatin1Char('/') + QString(std::min<qsizetype>(200, 4070 - into.size() - 1), QLatin1Char('d'));
        QVERIFY(QDir().mkpath(into));
        try {
            awaitTask(m_model->chatExport()->exportTo("folder", m_work, into, "markdown"));
            QFAIL("written past the path limit");
        } catch (const ExportError &error) {
            QVERIFY2(error.description().startsWith("Could not write"), qPrintable(error.description()));
        }
        QCOMPARE(QDir(into).entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::Hidden), QStringList());
    }
};

QTEST_GUILESS_MAIN(TestChatExport)
#include "tst_chat_export.moc"
