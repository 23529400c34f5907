#include "app/chat_images.h"

#include "app/chat_tree.h"
#include "app/models_controller.h"
#include "app/status_banner.h"
#include "images/image_store.h"
#include "platform/worker_thread.h"
#include "storage/database.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QMimeData>
#include <QMimeDatabase>
#include <QPointer>
#include <QUrl>

ChatImages::ChatImages(ImageStore &store, Database &database, QString databasePath, ChatTree &tree,
                       const ModelsController &models, StatusBanner &status, QObject *parent)
    : QObject(parent)
    , m_store(store)
    , m_database(database)
    , m_databasePath(std::move(databasePath))
    , m_tree(tree)
    , m_models(models)
    , m_status(status)
{
}

ChatImages::~ChatImages() = default;

namespace {

/// Runs an attachment to its end with no one waiting for its answer; errors reach the banner.
void detach(QCoro::Task<bool> task)
{
    [](QCoro::Task<bool> running) -> QCoro::Task<> { co_await std::move(running); }(std::move(task));
}

} // namespace

void ChatImages::attachImage(const QString &path)
{
    detach(attach(path));
}

QCoro::Task<bool> ChatImages::attach(QString path)
{
    const QUrl url(path);
    const QString file = url.isLocalFile() ? url.toLocalFile() : path;
    return take([file] { return ImageStore::normalized(file); });
}

bool ChatImages::pasteImage()
{
    const QMimeData *mime = QGuiApplication::clipboard()->mimeData();
    if (!mime)
        return false;
    // Files copied in a file manager: the first picture among them, judged by its name so that
    // nothing is read on this thread.
    const QMimeDatabase types;
    for (const QUrl &url : mime->urls()) {
        if (url.isLocalFile()
            && types.mimeTypeForFile(url.toLocalFile(), QMimeDatabase::MatchExtension).name().startsWith(u"image/")) {
            attachImage(url.toLocalFile());
            return true;
        }
    }
    // Text wins over a picture of it: cells copied from a spreadsheet come as both.
    if (!mime->hasImage() || mime->hasText())
        return false;
    const QImage picture = qvariant_cast<QImage>(mime->imageData());
    detach(take([picture] { return ImageStore::normalized(picture); }));
    return true;
}

QCoro::Task<bool> ChatImages::take(std::function<QByteArray()> normalize)
{
    if (!m_models.hasImageSupport()) {
        m_status.showError(CorvaneError(QStringLiteral("Install image support in Settings to attach images")));
        co_return false;
    }
    const std::optional<Chat> chat = m_tree.selectedChat();
    if (!chat)
        co_return false;
    removePendingImage();
    std::optional<VaultKey> key;
    if (chat->isSealed) {
        key = m_database.vaultKey();
        if (!key)
            co_return false;
    }
    const QPointer<ChatImages> self(this);
    ++m_importing;
    Q_EMIT importingChanged();
    QString name;
    try {
        auto work = [normalize = std::move(normalize), directory = m_store.directory(), key = std::move(key)] {
            return ImageStore::store(directory, normalize(), key);
        };
        QCoro::Task<QString> importing = onWorkerThread<QString>(std::move(work));
        name = co_await std::move(importing);
    } catch (const std::exception &error) {
        if (self)
            m_status.showError(error);
    }
    if (!self)
        co_return false;
    --m_importing;
    Q_EMIT importingChanged();
    if (name.isEmpty())
        co_return false;
    // Another chat may have been opened meanwhile: the image was meant for the one it came to.
    if (m_tree.selectedChatID() != chat->id) {
        m_store.remove(name);
        co_return false;
    }
    setPending(name);
    m_pendingChatID = chat->id;
    co_return true;
}

void ChatImages::chatOpened()
{
    if (m_tree.selectedChatID() != m_pendingChatID)
        removePendingImage();
}

void ChatImages::removePendingImage()
{
    if (m_pending.isEmpty())
        return;
    m_store.remove(m_pending);
    setPending(QString());
}

void ChatImages::takePendingImage()
{
    setPending(QString());
}

void ChatImages::setPending(const QString &name)
{
    if (name == m_pending)
        return;
    m_pending = name;
    Q_EMIT pendingImageChanged();
}

QCoro::Task<> ChatImages::pruneImages()
{
    const QPointer<ChatImages> self(this);
    try {
        auto work = [directory = m_store.directory(), path = m_databasePath, pending = m_pending] {
            const QStringList files = ImageStore::fileNames(directory);
            Database reader(path, Database::Options{.foreignKeyIndexes = true, .readOnly = true});
            QStringList keeping = reader.imageNames();
            // An image attached after `files` was listed is not among them; one attached before
            // and not yet sent is the pending one.
            keeping.append(pending);
            ImageStore::pruneFiles(directory, files, keeping);
            return true;
        };
        QCoro::Task<bool> pruning = onWorkerThread<bool>(std::move(work));
        co_await std::move(pruning);
    } catch (const std::exception &error) {
        if (self)
            m_status.showError(error);
    }
}

QCoro::Task<> ChatImages::matchImages()
{
    QStringList sealed;
    QStringList open;
    if (!m_status.attempt([&] {
            sealed = m_database.imageNames(true);
            open = m_database.imageNames(false);
        }))
        co_return;
    const QPointer<ChatImages> self(this);
    try {
        auto work = [directory = m_store.directory(), key = m_database.vaultKey(), sealed, open] {
            ImageStore::matchFiles(directory, key, sealed, open);
            return true;
        };
        QCoro::Task<bool> matching = onWorkerThread<bool>(std::move(work));
        co_await std::move(matching);
    } catch (const std::exception &error) {
        if (self)
            m_status.showError(error);
    }
    if (self)
        m_store.forgetDecoded();
}

void ChatImages::keyChanged()
{
    m_store.setVaultKey(m_database.vaultKey());
}
