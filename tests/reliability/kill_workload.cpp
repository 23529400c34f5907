// The process the kill test kills: real work through AppModel on the data folder named by
// CORVANE_DATA_DIR, replies from the real llama-server on the generated test model, chosen by
// a random generator seeded from the command line, until it is killed. It goes on from
// whatever the data folder holds, and writes to the journal each fact a later check may rely
// on once the call that stores it has returned (kill_journal.h).
//
// Usage: kill_workload JOURNAL SEED RUN
// It prints "ready" when it starts working, "op NAME at MS ms" before each step, and
// "state ..." when background work (reply, purge, compaction, lock change, erasing) starts or
// ends, so that the test can tell where its kills land. An error the status line shows is
// printed as "status-error TEXT": the workload only takes steps the application allows.
#include "app/app_model.h"
#include "app/compactor.h"
#include "images/image_store.h"
#include "kill_journal.h"
#include "storage/database.h"
#include "support/test_chat_model.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QImage>
#include <QTimer>

#include <QCoro/QCoroTask>
#include <QCoro/QCoroTimer>

#include <chrono>
#include <cstdio>
#include <memory>
#include <random>

namespace {

constexpr qsizetype s_maxMessages = 4000; ///< bulk inserts stop here, so that checks stay quick

void say(const QString &line)
{
    std::fputs(qPrintable(line + QLatin1Char('\n')), stdout);
    std::fflush(stdout);
}

QString joined(const QSet<qint64> &ids)
{
    QStringList parts;
    for (qint64 id : ids)
        parts << QString::number(id);
    return parts.join(QLatin1Char(','));
}

class Workload
{
public:
    Workload(const QString &journal, quint64 seed, int run)
        : m_journal(journal)
        , m_random(seed ^ (quint64(run) * 0x9E3779B97F4A7C15ULL))
        , m_tag(QStringLiteral("s%1r%2n").arg(seed).arg(run))
    {
        m_data = qEnvironmentVariable("CORVANE_DATA_DIR");
        m_journal.write(QStringLiteral("run %1").arg(run));
        m_model = std::make_unique<AppModel>(QList<ModelSpec>{linkTestChatModel(m_data)});
        QObject::connect(m_model->status(), &StatusBanner::changed, [this] {
            if (m_model->status()->isError())
                say(QStringLiteral("status-error ") + m_model->status()->text());
        });
        // Background work is watched by polling: it has no one signal.
        m_watch.setInterval(5);
        QObject::connect(&m_watch, &QTimer::timeout, [this] { reportState(); });
        m_watch.start();
        QImage picture(48, 32, QImage::Format_RGB32);
        picture.fill(Qt::darkGreen);
        m_jpeg = ImageStore::normalized(picture);
    }

    QCoro::Task<> run()
    {
        prepare();
        for (int i = 0; i < 10 && folders().size() < 3; ++i)
            addFolder();
        for (int i = 0; i < 10 && visibleChats().size() < 3; ++i)
            addChat();
        say(QStringLiteral("ready"));
        m_clock.start();
        for (;;) {
            co_await step();
            if (m_model->status()->isError())
                m_model->status()->show(QString());
        }
    }

private:
    AppModel &app() { return *m_model; }
    ChatTree &tree() { return *m_model->tree(); }
    ChatSession &session() { return *m_model->chat(); }
    FolderLocks &locks() { return *m_model->locks(); }

    int pick(int n) { return std::uniform_int_distribution<int>(0, n - 1)(m_random); }
    bool chance(double p) { return std::bernoulli_distribution(p)(m_random); }
    template <typename T>
    T one(const QList<T> &list) { return list[pick(int(list.size()))]; }
    QString nextTag() { return m_tag + QString::number(m_counter++); }

    /// The settings that make compaction come soon, and the test model chosen.
    void prepare()
    {
        app().models()->reloadInstalled();
        app().models()->normalizeSelections();
        app().settings()->setContextTokens(4096);
        app().settings()->setMaxResponseTokens(300);
    }

    void reportState()
    {
        const QString state = QStringLiteral("state reply=%1 purge=%2 compaction=%3 sealing=%4 erasing=%5")
                                  .arg(session().isGenerating())
                                  .arg(tree().isPurging())
                                  .arg(session().compactor().isRunning())
                                  .arg(locks().isSealing())
                                  .arg(app().isErasing());
        if (state != m_lastState)
            say(m_lastState = state);
    }

    /// Folders shown and usable now: not locked away.
    QList<Node> folders()
    {
        QList<Node> shown;
        for (const Node &node : tree().nodes())
            if (!tree().isLockedAway(node))
                shown << node;
        return shown;
    }
    QList<Chat> visibleChats()
    {
        QList<Chat> shown;
        for (const Chat &chat : tree().chats())
            if (!tree().isLockedAway(chat))
                shown << chat;
        return shown;
    }
    int depth(qint64 id)
    {
        for (int d = 0;; ++d) {
            const auto node = std::ranges::find(tree().nodes(), id, &Node::id);
            if (node == tree().nodes().cend() || !node->parentID || d > 8)
                return d;
            id = *node->parentID;
        }
    }

    QCoro::Task<> step()
    {
        // Weighted choices; "wait" lets background work run into the kill.
        static const QList<std::pair<const char *, int>> ops = {
            {"send", 20}, {"wait", 8}, {"bulk", 6}, {"add-folder", 4}, {"add-chat", 6}, {"rename", 6},
            {"move", 8}, {"delete-chat", 5}, {"delete-folder", 3}, {"lock", 5}, {"open", 6},
            {"close", 3}, {"remove-lock", 3}, {"erase", 1}, {"regenerate", 3}, {"stop", 1},
        };
        int total = 0;
        for (const auto &op : ops)
            total += op.second;
        int roll = pick(total);
        QString name;
        for (const auto &op : ops) {
            if ((roll -= op.second) < 0) {
                name = QString::fromLatin1(op.first);
                break;
            }
        }
        // A large file is erased more often, so that every check stays quick.
        if (messageCount() > s_maxMessages && chance(0.2))
            name = QStringLiteral("erase");
        say(QStringLiteral("op %1 at %2 ms").arg(name).arg(m_clock.elapsed()));
        if (name == QLatin1String("send"))
            co_await send();
        else if (name == QLatin1String("wait"))
            co_await QCoro::sleepFor(std::chrono::milliseconds(pick(300)));
        else if (name == QLatin1String("bulk"))
            bulk();
        else if (name == QLatin1String("add-folder"))
            addFolder();
        else if (name == QLatin1String("add-chat"))
            addChat();
        else if (name == QLatin1String("rename"))
            rename();
        else if (name == QLatin1String("move"))
            move();
        else if (name == QLatin1String("delete-chat"))
            co_await deleteChat();
        else if (name == QLatin1String("delete-folder"))
            co_await deleteFolder();
        else if (name == QLatin1String("lock"))
            co_await lock();
        else if (name == QLatin1String("open"))
            co_await open();
        else if (name == QLatin1String("close"))
            close();
        else if (name == QLatin1String("remove-lock"))
            co_await removeLock();
        else if (name == QLatin1String("erase"))
            co_await erase();
        else if (name == QLatin1String("regenerate"))
            co_await regenerate();
        else if (name == QLatin1String("stop"))
            session().stopReply();
    }

    qsizetype messageCount()
    {
        qsizetype count = 0;
        for (const Chat &chat : tree().chats())
            count += app().database().messageIDs(chat.id).size();
        return count;
    }

    /// Until the running reply has ended; one that runs on too long is stopped.
    QCoro::Task<> replyEnded()
    {
        for (int i = 0; session().isGenerating(); ++i) {
            if (i == 3000)
                session().stopReply();
            co_await QCoro::sleepFor(std::chrono::milliseconds(20));
        }
    }

    QString message()
    {
        static const QStringList words = {"the", "garden", "by", "a", "river", "holds", "tall", "reeds", "and",
                                          "old", "stones", "where", "swallows", "nest", "every", "spring"};
        QString text = nextTag();
        for (int i = 0, n = 3 + pick(90); i < n; ++i)
            text += QLatin1Char(' ') + one(words);
        return text;
    }

    QCoro::Task<> send()
    {
        if (session().isGenerating()) {
            if (chance(0.5))
                co_return;
            co_await replyEnded();
        }
        const QList<Chat> chats = visibleChats();
        if (chats.isEmpty())
            co_return;
        const Chat chat = one(chats);
        tree().selectChat(chat.id);
        const QString text = message();
        session().setComposer(text);
        session().send();
        const QList<Message> &shown = session().messages();
        if (session().composer().isEmpty() && !shown.isEmpty() && shown.last().body == text)
            m_journal.write(QStringLiteral("sent %1 %2").arg(chat.id).arg(text));
        else
            session().setComposer(QString());
        if (chance(0.6))
            co_await replyEnded();
    }

    /// Many messages at once, as an import would bring them, so that deletions and lock
    /// changes have rows to work through; one in a hundred carries a picture.
    void bulk()
    {
        const QList<Chat> chats = visibleChats();
        if (chats.isEmpty() || locks().isSealing() || app().isErasing() || messageCount() > s_maxMessages)
            return;
        const Chat chat = one(chats);
        const int count = 20 + pick(300);
        const QString prefix = nextTag();
        Database &db = app().database();
        const std::optional<VaultKey> key = chat.isSealed ? db.vaultKey() : std::nullopt;
        if (chat.isSealed && !key)
            return;
        const QString images = app().images()->store().directory();
        db.inTransaction([&] {
            for (int i = 0; i < count; ++i) {
                Message message;
                message.chatID = chat.id;
                message.role = i % 2 ? QStringLiteral("assistant") : QStringLiteral("user");
                message.body = KillJournal::bulkBody(prefix, i);
                if (i % 97 == 5)
                    message.image = ImageStore::store(images, m_jpeg, key);
                db.addMessage(message);
            }
        });
        m_journal.write(QStringLiteral("bulk %1 %2 %3").arg(chat.id).arg(count).arg(prefix));
        if (tree().selectedChatID() == chat.id)
            session().loadMessages();
    }

    void addFolder()
    {
        QList<qint64> parents{ChatTree::none};
        for (const Node &node : folders())
            if (depth(node.id) < 2)
                parents << node.id;
        m_journal.write(QStringLiteral("adding folder"));
        const qint64 id = tree().addFolder(one(parents));
        m_journal.write(QStringLiteral("folder %1").arg(id));
        if (id != ChatTree::none && chance(0.7))
            tree().renameNode(id, QStringLiteral("Folder ") + nextTag());
    }

    void addChat()
    {
        const QList<Node> shown = folders();
        if (shown.isEmpty())
            return;
        QSet<qint64> before;
        for (const Chat &chat : tree().chats())
            before.insert(chat.id);
        m_journal.write(QStringLiteral("adding chat"));
        tree().addChat(one(shown).id);
        qint64 id = ChatTree::none;
        for (const Chat &chat : tree().chats())
            if (!before.contains(chat.id))
                id = chat.id;
        m_journal.write(QStringLiteral("chat %1").arg(id));
        if (id != ChatTree::none && chance(0.5))
            tree().renameChat(id, QStringLiteral("Chat ") + nextTag());
    }

    void rename()
    {
        if (chance(0.5)) {
            const QList<Chat> chats = visibleChats();
            if (!chats.isEmpty())
                tree().renameChat(one(chats).id, QStringLiteral("Chat ") + nextTag());
        } else {
            const QList<Node> shown = folders();
            if (!shown.isEmpty())
                tree().renameNode(one(shown).id, QStringLiteral("Folder ") + nextTag());
        }
    }

    void move()
    {
        const QList<Chat> chats = visibleChats();
        const QList<Node> shown = folders();
        if (chats.isEmpty() || shown.size() < 2)
            return;
        const Chat chat = one(chats);
        Node target = one(shown);
        if (target.id == chat.nodeID)
            return;
        tree().selectChat(chat.id);
        tree().moveSelectedChat(target.id);
    }

    /// Nothing is deleted under a reply: the workload waits for it, as a user would.
    QCoro::Task<bool> idleForDeleting()
    {
        if (session().isGenerating()) {
            if (chance(0.5))
                session().stopReply();
            co_await replyEnded();
        }
        co_return !session().isGenerating() && !app().isBusy();
    }

    QCoro::Task<> deleteChat()
    {
        QCoro::Task<bool> idle = idleForDeleting();
        if (!co_await std::move(idle))
            co_return;
        const QList<Chat> chats = visibleChats();
        if (chats.isEmpty())
            co_return;
        const qint64 id = one(chats).id;
        m_journal.write(QStringLiteral("deleting chat %1").arg(id));
        tree().deleteChat(id);
        if (!tree().chat(id))
            m_journal.write(QStringLiteral("deleted"));
    }

    QCoro::Task<> deleteFolder()
    {
        QCoro::Task<bool> idle = idleForDeleting();
        if (!co_await std::move(idle))
            co_return;
        // One top-level folder always stays, so that the tree never has to start over.
        QList<Node> candidates;
        const QList<Node> shown = folders();
        const qsizetype topLevel = std::ranges::count_if(tree().nodes(), [](const Node &n) { return !n.parentID; });
        for (const Node &node : shown)
            if (node.parentID || topLevel > 1)
                candidates << node;
        if (candidates.isEmpty())
            co_return;
        const qint64 id = one(candidates).id;
        const QSet<qint64> below = tree().subtreeIDs(id);
        QSet<qint64> chats;
        for (const Chat &chat : tree().chats())
            if (below.contains(chat.nodeID))
                chats.insert(chat.id);
        m_journal.write(QStringLiteral("deleting folder %1 nodes %2 chats %3").arg(id).arg(joined(below), joined(chats)));
        tree().deleteFolder(id);
        if (std::ranges::find(tree().nodes(), id, &Node::id) == tree().nodes().cend())
            m_journal.write(QStringLiteral("deleted"));
    }

    QCoro::Task<> lock()
    {
        QList<Node> plain;
        for (const Node &node : folders())
            if (!node.isSealed)
                plain << node;
        if (plain.isEmpty() || locks().isWorking())
            co_return;
        const qint64 id = one(plain).id;
        const QString password = KillJournal::vaultPassword;
        if (!locks().hasVault()) {
            QCoro::Task<std::optional<QString>> creating = locks().createVault(password, id);
            co_await std::move(creating);
        } else if (!locks().isUnlocked()) {
            const UnlockPurpose purpose{.kind = UnlockPurpose::Lock, .folderID = id};
            QCoro::Task<bool> unlocking = locks().unlock(password, purpose);
            co_await std::move(unlocking);
        } else {
            QCoro::Task<bool> locking = locks().setFolderLocked(id, true);
            co_await std::move(locking);
        }
    }

    QCoro::Task<> open()
    {
        QList<qint64> closed;
        for (const Node &node : tree().nodes())
            if (node.isLocked && !locks().isOpen(node.id))
                closed << node.id;
        if (closed.isEmpty() || locks().isWorking())
            co_return;
        const QString password = KillJournal::vaultPassword;
        const UnlockPurpose purpose{.kind = UnlockPurpose::Open, .folderID = one(closed)};
        QCoro::Task<bool> unlocking = locks().unlock(password, purpose);
        co_await std::move(unlocking);
    }

    void close()
    {
        QList<qint64> open;
        for (const Node &node : tree().nodes())
            if (node.isLocked && locks().isOpen(node.id))
                open << node.id;
        if (open.isEmpty() || chance(0.3))
            locks().lockAll();
        else
            locks().closeFolder(one(open));
    }

    QCoro::Task<> removeLock()
    {
        QList<qint64> open;
        for (const Node &node : tree().nodes())
            if (node.isLocked && locks().isOpen(node.id))
                open << node.id;
        if (open.isEmpty() || locks().isWorking())
            co_return;
        QCoro::Task<bool> unlocking = locks().setFolderLocked(one(open), false);
        co_await std::move(unlocking);
    }

    QCoro::Task<> erase()
    {
        if (session().isGenerating()) {
            session().stopReply();
            co_await replyEnded();
        }
        if (app().isBusy())
            co_return;
        m_journal.write(QStringLiteral("erasing"));
        QCoro::Task<bool> erasing = app().eraseAll();
        const bool erased = co_await std::move(erasing);
        if (!erased)
            co_return;
        m_journal.write(QStringLiteral("erased"));
        // Erasing took the model's file too; the test model comes back as a user would
        // install it again.
        linkTestChatModel(m_data);
        prepare();
    }

    QCoro::Task<> regenerate()
    {
        if (session().isGenerating())
            co_return;
        const QList<Chat> chats = visibleChats();
        if (chats.isEmpty())
            co_return;
        const Chat chat = one(chats);
        tree().selectChat(chat.id);
        // The reply being replaced goes once its successor is stored.
        const QList<Message> &shown = session().messages();
        if (!shown.isEmpty() && shown.last().role == QLatin1String("assistant") && !shown.last().body.contains(QLatin1Char('\n')))
            m_journal.write(QStringLiteral("replacing %1 %2").arg(chat.id).arg(shown.last().body));
        session().regenerate();
        if (chance(0.5))
            co_await replyEnded();
    }

    KillJournal::Writer m_journal;
    std::mt19937_64 m_random;
    QString m_tag;
    int m_counter = 0;
    QString m_data;
    std::unique_ptr<AppModel> m_model;
    QTimer m_watch;
    QString m_lastState;
    QByteArray m_jpeg;
    QElapsedTimer m_clock; ///< since "ready"
};

} // namespace

/// Runs the workload until the process is killed; an exception ends it at once, which the
/// test reports as a failure.
QCoro::Task<> runToTheEnd(Workload &workload)
{
    try {
        co_await workload.run();
    } catch (const std::exception &error) {
        say(QStringLiteral("exception ") + QString::fromUtf8(error.what()));
        std::_Exit(3);
    }
}

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const QStringList arguments = app.arguments();
    if (arguments.size() != 4) {
        std::fputs("usage: kill_workload JOURNAL SEED RUN\n", stderr);
        return 2;
    }
    std::unique_ptr<Workload> workload;
    try {
        workload = std::make_unique<Workload>(arguments[1], arguments[2].toULongLong(), arguments[3].toInt());
    } catch (const std::exception &error) {
        say(QStringLiteral("exception ") + QString::fromUtf8(error.what()));
        return 3;
    }
    runToTheEnd(*workload);
    return app.exec();
}
