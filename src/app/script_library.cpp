#include "app/script_library.h"

#include "app/chat_tree.h"
#include "app/status_banner.h"
#include "scripts/cartridge_context.h"
#include "scripts/cartridge_engine.h"
#include "scripts/cartridge_result.h"
#include "storage/database.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDateTime>
#include <QFileInfo>
#include <QPointer>
#include <QUrl>
#include <QVariantMap>

namespace {

/// The context of a check run that belongs to no chat.
CartridgeContext noChat()
{
    const QDateTime now = QDateTime::currentDateTimeUtc();
    return CartridgeContext::forChat(Chat(), QString(), {}, now, now);
}

/// A path or a file URL, as the window's file dialogs and drops hand them over.
QString localPath(const QString &pathOrURL)
{
    const QUrl url(pathOrURL);
    return url.isLocalFile() ? url.toLocalFile() : pathOrURL;
}

} // namespace

ScriptLibrary::ScriptLibrary(CartridgeLibrary &library, Database &database, ChatTree &tree, StatusBanner &status,
                             std::function<bool()> editsBlocked, QObject *parent)
    : QObject(parent)
    , m_library(library)
    , m_database(database)
    , m_tree(tree)
    , m_status(status)
    , m_editsBlocked(std::move(editsBlocked))
{
    reload();
}

ScriptLibrary::~ScriptLibrary() = default;

QVariantList ScriptLibrary::files() const
{
    QVariantList result;
    for (const CartridgeFile &file : m_files)
        result.append(QVariantMap{{QStringLiteral("path"), file.path}, {QStringLiteral("name"), file.name()}});
    return result;
}

void ScriptLibrary::reload()
{
    if (!m_status.attempt([this] { m_files = m_library.files(); }))
        m_files.clear();
    Q_EMIT filesChanged();
    if (!m_selected.path.isEmpty() && !m_files.contains(m_selected))
        setSelected({});
}

void ScriptLibrary::select(const QString &path)
{
    const auto found = std::ranges::find(m_files, localPath(path), &CartridgeFile::path);
    setSelected(found == m_files.end() ? CartridgeFile() : *found);
}

void ScriptLibrary::setSelected(const CartridgeFile &file)
{
    m_selected = file;
    m_source.clear();
    m_unreadable = false;
    if (!file.path.isEmpty()) {
        try {
            m_source = CartridgeLibrary::read(file.path);
        } catch (const std::exception &) {
            m_unreadable = true;
        }
    }
    Q_EMIT selectionChanged();
    checkSelected();
}

void ScriptLibrary::saveSource(const QString &text)
{
    if (m_selected.path.isEmpty() || m_unreadable || text == m_source)
        return;
    if (!m_status.attempt([&] { m_library.save(m_selected, text); }))
        return;
    // No change signal: the editor already shows this text, and its cursor stays.
    m_source = text;
    checkSelected();
}

QCoro::Task<> ScriptLibrary::checkSelected()
{
    QPointer<ScriptLibrary> self(this);
    const quint64 generation = ++m_checkGeneration;
    if (m_selected.path.isEmpty() || m_unreadable) {
        m_problem.clear();
        Q_EMIT checkChanged();
        co_return;
    }
    ++m_checking;
    Q_EMIT checkChanged();
    QString problem;
    try {
        QCoro::Task<CartridgeResult> run = CartridgeEngine::evaluate(m_source, noChat(), CartridgeHook::Turn, QString());
        co_await std::move(run);
    } catch (const std::exception &error) {
        problem = QString::fromUtf8(error.what());
    }
    if (!self)
        co_return;
    --m_checking;
    if (generation == m_checkGeneration)
        m_problem = problem;
    Q_EMIT checkChanged();
}

void ScriptLibrary::createScript(const QString &name)
{
    CartridgeFile created;
    if (!m_status.attempt([&] { created = m_library.create(name); }))
        return;
    reload();
    setSelected(created);
}

void ScriptLibrary::renameSelected(const QString &name)
{
    if (m_selected.path.isEmpty() || name.trimmed().isEmpty())
        return;
    CartridgeFile renamed;
    if (!m_status.attempt([&] { renamed = m_library.rename(m_selected, name); }))
        return;
    reload();
    setSelected(renamed);
}

void ScriptLibrary::deleteSelected()
{
    if (m_selected.path.isEmpty())
        return;
    const QString name = m_selected.name();
    if (!m_status.attempt([&] { m_library.remove(m_selected); }))
        return;
    reload();
    m_status.show(QStringLiteral("“%1” moved to the trash").arg(name));
}

void ScriptLibrary::saveCopy(const QString &path)
{
    if (!m_selected.path.isEmpty()
        && m_status.attempt([&] { CartridgeLibrary::saveCopy(m_selected, localPath(path)); }))
        m_status.show(QStringLiteral("Saved a copy as “%1”").arg(QFileInfo(localPath(path)).fileName()));
}

void ScriptLibrary::showInFileManager(const QString &path)
{
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("/org/freedesktop/FileManager1"),
        QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("ShowItems"));
    call << QStringList{QUrl::fromLocalFile(path).toString()} << QString();
    auto *watcher = new QDBusPendingCallWatcher(QDBusConnection::sessionBus().asyncCall(call), this);
    const QString folder = QUrl::fromLocalFile(QFileInfo(path).absolutePath()).toString();
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this, watcher, folder] {
        // No file manager that can point at a file: its folder opens instead.
        if (watcher->isError())
            Q_EMIT openExternally(folder);
        watcher->deleteLater();
    });
}

void ScriptLibrary::importToLibrary(const QString &path)
{
    run(import(path));
}

void ScriptLibrary::attachToChat(qint64 chatID, const QString &path)
{
    run(install(Target::Chat, chatID, localPath(path)));
}

void ScriptLibrary::attachToFolder(qint64 folderID, const QString &path)
{
    run(install(Target::Folder, folderID, localPath(path)));
}

void ScriptLibrary::createChat(const QString &path, qint64 folderID)
{
    run(install(Target::NewChat, folderID, localPath(path)));
}

QCoro::Task<bool> ScriptLibrary::import(QString path)
{
    return install(Target::Library, ChatTree::none, localPath(path));
}

QStringList ScriptLibrary::scriptFiles(const QList<QUrl> &urls) const
{
    QStringList paths;
    for (const QUrl &url : urls) {
        const QString path = url.toLocalFile();
        if (url.isLocalFile() && (path.endsWith(QStringLiteral(".corvane")) || path.endsWith(QStringLiteral(".corvane.js"))))
            paths.append(path);
    }
    return paths;
}

void ScriptLibrary::openFiles(const QStringList &paths)
{
    [](QPointer<ScriptLibrary> self, QStringList paths) -> QCoro::Task<> {
        for (const QString &path : paths) {
            if (!self)
                co_return;
            QCoro::Task<bool> imported = self->import(path);
            co_await std::move(imported);
        }
        if (self && !paths.isEmpty())
            Q_EMIT self->showRequested();
    }(this, paths);
}

void ScriptLibrary::removeFromChat(qint64 chatID)
{
    if (m_editsBlocked() || !m_tree.chat(chatID))
        return;
    const QString none;
    if (!m_status.attempt([&] {
            m_database.setChatFields({{QStringLiteral("cartridge_source"), none},
                                      {QStringLiteral("cartridge_name"), none},
                                      {QStringLiteral("cartridge_agent_name"), none},
                                      {QStringLiteral("cartridge_state"), none},
                                      {QStringLiteral("cartridge_state_for"), none}},
                                     {}, chatID);
        }))
        return;
    m_tree.reload();
    Q_EMIT attachmentsChanged();
    m_status.show(QStringLiteral("Script removed from this chat"));
}

void ScriptLibrary::removeFromFolder(qint64 folderID)
{
    if (m_editsBlocked())
        return;
    if (!m_status.attempt([&] { m_database.setNodeCartridge(folderID, {}, {}, {}); }))
        return;
    m_tree.reload();
    Q_EMIT attachmentsChanged();
    m_status.show(QStringLiteral("Script removed from this folder"));
}

QString ScriptLibrary::updateFor(qint64 folderID) const
{
    const auto node = std::ranges::find(m_tree.nodes(), folderID, &Node::id);
    if (node == m_tree.nodes().end() || node->cartridgeName.isEmpty())
        return QString();
    const auto file = std::ranges::find(m_files, node->cartridgeName, &CartridgeFile::name);
    if (file == m_files.end())
        return QString();
    try {
        return CartridgeLibrary::read(file->path) == node->cartridgeSource ? QString() : file->path;
    } catch (const std::exception &) {
        return QString();
    }
}

QCoro::Task<std::pair<QString, CartridgeResult>> ScriptLibrary::checked(QString path, CartridgeContext context)
{
    QString source = CartridgeLibrary::read(path);
    QCoro::Task<CartridgeResult> run = CartridgeEngine::evaluate(source, std::move(context), CartridgeHook::Turn, QString());
    CartridgeResult result = co_await std::move(run);
    co_return std::pair<QString, CartridgeResult>(std::move(source), std::move(result));
}

QCoro::Task<bool> ScriptLibrary::install(Target target, qint64 id, QString path)
{
    QPointer<ScriptLibrary> self(this);
    const bool toTree = target != Target::Library;
    if (toTree && m_editsBlocked())
        co_return false;
    // A chat's own script is checked against its messages; anything else against none.
    CartridgeContext context = noChat();
    if (target == Target::Chat) {
        const std::optional<Chat> chat = m_tree.chat(id);
        if (!chat || !m_status.attempt([&] {
                context = CartridgeContext::forChat(*chat, m_tree.inheritedAgentName(*chat), m_database.messages(id),
                                                    QDateTime::currentDateTimeUtc());
            }))
            co_return false;
    }
    std::pair<QString, CartridgeResult> outcome;
    try {
        QCoro::Task<std::pair<QString, CartridgeResult>> check = checked(path, std::move(context));
        outcome = co_await std::move(check);
    } catch (const std::exception &error) {
        if (self)
            m_status.showError(error);
        co_return false;
    }
    // While the script ran, rows may have started being sealed, or the chat may have gone.
    if (!self || (toTree && m_editsBlocked()) || (target == Target::Chat && !m_tree.chat(id)))
        co_return false;

    const auto &[source, result] = outcome;
    const QString title = CartridgeLibrary::title(result.name.value_or(QString()), path);
    const QString agentName = result.agentName.value_or(QString());
    const auto setChatScript = [&](qint64 chatID) {
        m_database.setChatFields({{QStringLiteral("cartridge_source"), source},
                                  {QStringLiteral("cartridge_name"), title},
                                  {QStringLiteral("cartridge_agent_name"), agentName},
                                  {QStringLiteral("cartridge_state"), QString()},
                                  {QStringLiteral("cartridge_state_for"), QString()}},
                                 {}, chatID);
    };
    CartridgeFile kept;
    qint64 newChat = ChatTree::none;
    const bool written = m_status.attempt([&] {
        kept = m_library.saveImported(source, title, path);
        switch (target) {
        case Target::Library:
            break;
        case Target::Chat:
            setChatScript(id);
            break;
        case Target::Folder:
            m_database.setNodeCartridge(id, source, title, agentName);
            break;
        case Target::NewChat:
            m_database.inTransaction([&] {
                newChat = m_database.addChat(id, title);
                setChatScript(newChat);
            });
            break;
        }
    });
    reload();
    if (!written)
        co_return false;
    if (toTree) {
        m_tree.reload();
        Q_EMIT attachmentsChanged();
    }
    switch (target) {
    case Target::Library:
        setSelected(kept);
        m_status.show(QStringLiteral("Script added to library"));
        break;
    case Target::Chat:
        m_status.show(QStringLiteral("Script installed for this chat"));
        break;
    case Target::Folder: {
        const auto node = std::ranges::find(m_tree.nodes(), id, &Node::id);
        m_status.show(QStringLiteral("Script set for ") + (node != m_tree.nodes().end() ? node->name : QString()));
        break;
    }
    case Target::NewChat:
        m_tree.selectChat(newChat);
        m_status.show(QStringLiteral("Chat created from ") + title);
        break;
    }
    co_return true;
}

void ScriptLibrary::run(QCoro::Task<bool> task)
{
    [](QCoro::Task<bool> running) -> QCoro::Task<> { co_await std::move(running); }(std::move(task));
}
