#include "app/chat_export.h"

#include "app/chat_tree.h"
#include "app/export_format.h"
#include "app/status_banner.h"
#include "platform/worker_thread.h"
#include "storage/database.h"

#include <QDir>
#include <QFileInfo>
#include <QPointer>
#include <QSaveFile>
#include <QScopeGuard>
#include <QSet>

#include <memory>

/// One chat of an export and the file it becomes.
struct ExportFile
{
    QString path; ///< below the export's root folder; empty for a single chat's file
    qint64 chatID = -1;
    QString title;
    QString assistantName;
    bool isSealed = false;
};

/// What an export writes: the files, and where.
struct ExportPlan
{
    QString root; ///< the folder it makes, or the one file
    bool single = false;
    bool asJSON = false;
    QList<ExportFile> files;
};

namespace {

/// The chat as it is written, read through `reader`.
QByteArray chatBytes(Database &reader, const ExportFile &file, bool asJSON)
{
    const QList<Message> messages = reader.messages(file.chatID);
    if (!asJSON)
        return ExportFormat::markdown(file.title, messages, file.assistantName);
    QHash<qint64, QString> metadata;
    for (const Message &message : messages)
        if (message.role == QLatin1String("assistant"))
            metadata.insert(message.id, reader.field(QStringLiteral("messages"), QStringLiteral("metadata"), message.id,
                                                     file.isSealed));
    return ExportFormat::json(file.title, messages, metadata);
}

/// Reads each chat of `plan` and writes it below its root (a folder it creates, unless
/// `single`, when the root is the one file), each atomically. On any failure what was written
/// goes again.
QString writeFiles(const QString &databasePath, const ExportPlan &plan, std::optional<VaultKey> key)
{
    Database reader(databasePath, Database::Options{.foreignKeyIndexes = true, .readOnly = true});
    reader.setVaultKey(std::move(key));
    bool written = false;
    const auto cleanUp = qScopeGuard([&] {
        reader.setVaultKey(std::nullopt);
        if (written)
            return;
        if (plan.single)
            QFile::remove(plan.root);
        else
            QDir(plan.root).removeRecursively();
    });
    if (!plan.single && !QDir().mkdir(plan.root))
        throw ExportError::notWritten(plan.root);
    for (const ExportFile &file : plan.files) {
        const QByteArray bytes = chatBytes(reader, file, plan.asJSON);
        const QString path = plan.single ? plan.root : plan.root + QLatin1Char('/') + file.path;
        if (!QDir().mkpath(QFileInfo(path).path()))
            throw ExportError::notWritten(QFileInfo(path).path());
        QSaveFile out(path);
        if (!out.open(QIODevice::WriteOnly) || out.write(bytes) != bytes.size() || !out.commit())
            throw ExportError::notWritten(path);
    }
    written = true;
    return plan.root;
}

} // namespace

ChatExport::ChatExport(QString databasePath, Database &database, ChatTree &tree, StatusBanner &status,
                       QObject *parent)
    : QObject(parent)
    , m_databasePath(std::move(databasePath))
    , m_database(database)
    , m_tree(tree)
    , m_status(status)
{
}

bool ChatExport::writesLockedChats(const QString &kind, qint64 id) const
{
    if (kind == QLatin1String("chat")) {
        const std::optional<Chat> chat = m_tree.chat(id);
        return chat && chat->isSealed;
    }
    const QSet<qint64> folders = m_tree.subtreeIDs(id);
    return std::ranges::any_of(m_tree.nodes(), [&](const Node &n) { return folders.contains(n.id) && n.isSealed; });
}

void ChatExport::exportItem(const QString &kind, qint64 id, const QUrl &destination, const QString &format)
{
    const QPointer<ChatExport> alive(this);
    [](QPointer<ChatExport> self, QString kind, qint64 id, QString directory, QString format) -> QCoro::Task<> {
        try {
            const QString made = co_await self->exportTo(kind, id, directory, format);
            if (self)
                self->m_status.show(QStringLiteral("Exported to “%1”").arg(QDir::toNativeSeparators(made)));
        } catch (const std::exception &error) {
            if (self)
                self->m_status.showError(error);
        }
    }(alive, kind, id, destination.isLocalFile() ? destination.toLocalFile() : destination.toString(), format);
}

QCoro::Task<QString> ChatExport::exportTo(QString kind, qint64 id, QString directory, QString format)
{
    const auto work = std::make_shared<ExportPlan>(plan(kind, id, directory, format));
    if (work->root.isEmpty())
        co_return QString();
    const bool sealed = std::ranges::any_of(work->files, &ExportFile::isSealed);
    std::optional<VaultKey> key = sealed ? m_database.vaultKey() : std::nullopt;
    m_exporting = true;
    Q_EMIT isExportingChanged();
    const QPointer<ChatExport> alive(this);
    std::exception_ptr failure;
    QString made;
    try {
        // Named first: g++ 12 mishandles temporaries inside a co_await expression.
        auto keyCopy = std::make_shared<std::optional<VaultKey>>(std::move(key));
        auto write = [work, path = m_databasePath, keyCopy] { return writeFiles(path, *work, std::move(*keyCopy)); };
        QCoro::Task<QString> writing = onWorkerThread<QString>(std::move(write));
        made = co_await std::move(writing);
    } catch (...) {
        failure = std::current_exception();
    }
    if (alive) {
        m_exporting = false;
        Q_EMIT isExportingChanged();
    }
    if (failure)
        std::rethrow_exception(failure);
    co_return made;
}

ExportPlan ChatExport::plan(const QString &kind, qint64 id, const QString &directory, const QString &format) const
{
    ExportPlan plan;
    plan.asJSON = format == QLatin1String("json");
    plan.single = kind == QLatin1String("chat");
    const QString extension = plan.asJSON ? QStringLiteral(".json") : QStringLiteral(".md");
    const auto refuseFolder = [this](const Node &folder) {
        if (m_tree.isLockedAway(folder))
            throw ExportError::lockedAway(m_tree.lockedFolder(folder).value_or(folder).name);
    };
    const auto refuseChat = [&](const Chat &chat) {
        if (!m_tree.isLockedAway(chat))
            return;
        const auto folder = std::ranges::find(m_tree.nodes(), chat.nodeID, &Node::id);
        if (folder != m_tree.nodes().end())
            refuseFolder(*folder);
        throw ExportError::lockedAway(chat.title);
    };
    const auto fileFor = [&](const Chat &chat, const QString &path) {
        refuseChat(chat);
        return ExportFile{path, chat.id, chat.title, m_tree.effectiveAgentName(chat), chat.isSealed};
    };
    const auto exists = [&directory](const QString &name) { return QFileInfo::exists(directory + QLatin1Char('/') + name); };

    QString root;
    if (plan.single) {
        const std::optional<Chat> chat = m_tree.chat(id);
        if (!chat)
            return {};
        plan.files.append(fileFor(*chat, QString()));
        root = ExportFormat::unique(ExportFormat::fileName(chat->title), extension, exists);
    } else {
        const auto top = std::ranges::find(m_tree.nodes(), id, &Node::id);
        if (top == m_tree.nodes().end())
            return {};
        // Each folder becomes a folder of the same name, its chats files inside it; names
        // that clash in one folder are numbered.
        std::function<void(const Node &, const QString &)> addFolder = [&](const Node &folder, const QString &path) {
            refuseFolder(folder);
            QSet<QString> used;
            const auto taken = [&used](const QString &name) { return used.contains(name); };
            for (const Node &node : m_tree.nodes()) {
                if (node.parentID != folder.id)
                    continue;
                const QString name = ExportFormat::unique(ExportFormat::fileName(node.name), QString(), taken);
                used.insert(name);
                addFolder(node, path + name + QLatin1Char('/'));
            }
            for (const Chat &chat : m_tree.chats()) {
                if (chat.nodeID != folder.id)
                    continue;
                const QString name = ExportFormat::unique(ExportFormat::fileName(chat.title), extension, taken);
                used.insert(name);
                plan.files.append(fileFor(chat, path + name));
            }
        };
        addFolder(*top, QString());
        root = ExportFormat::unique(ExportFormat::fileName(top->name), QString(), exists);
    }
    plan.root = directory + QLatin1Char('/') + root;
    return plan;
}
