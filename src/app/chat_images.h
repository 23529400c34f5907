#pragma once

#include <QObject>
#include <QString>

#include <QCoro/QCoroTask>

#include <functional>

class ChatTree;
class Database;
class ImageStore;
class ModelsController;
class StatusBanner;

/// Images attached to messages: the image waiting in the composer, taking a file in (off the
/// main thread: decoding and scaling a photo takes a while), and keeping the images folder in
/// line with the messages and their chats' locks.
class ChatImages : public QObject
{
    Q_OBJECT
    /// The file name of the image waiting to be sent with the next message; empty for none.
    Q_PROPERTY(QString pendingImage READ pendingImage NOTIFY pendingImageChanged)
    Q_PROPERTY(bool isImporting READ isImporting NOTIFY importingChanged)

public:
    /// `databasePath` is read by a connection of its own when unused files are pruned.
    ChatImages(ImageStore &store, Database &database, QString databasePath, ChatTree &tree,
               const ModelsController &models, StatusBanner &status, QObject *parent = nullptr);
    ~ChatImages() override;

    ImageStore &store() { return m_store; }
    const QString &pendingImage() const { return m_pending; }
    bool isImporting() const { return m_importing > 0; }

    /// Takes the image file at `path` (or file URL) in as the composer's image, sealed when
    /// the selected chat is. Refused without image support for the chat model in use.
    Q_INVOKABLE void attachImage(const QString &path);
    /// `attachImage`, awaitable: answers whether the image is now pending.
    QCoro::Task<bool> attach(QString path);
    /// Attaches the picture on the clipboard, or the first picture file copied there; answers
    /// false (leaving the paste to the text field) when it holds neither, or holds text.
    Q_INVOKABLE bool pasteImage();
    /// Drops the composer's image and its file.
    Q_INVOKABLE void removePendingImage();
    /// The pending image was sent with a message: it is the message's now.
    void takePendingImage();
    /// Another chat was opened: an image waiting for the one before is dropped.
    void chatOpened();

    /// Deletes the files no message names (a pending image never sent, a deleted chat's
    /// pictures). Reading every message's image name takes a while in a large file, so it
    /// runs on a thread of its own with a connection of its own.
    QCoro::Task<> pruneImages();
    /// Seals the images of sealed chats and reveals those of plain ones, with the vault key
    /// the database holds now; on a thread of its own. Errors go to the banner.
    QCoro::Task<> matchImages();
    /// Follows the database's vault key.
    void keyChanged();

Q_SIGNALS:
    void pendingImageChanged();
    void importingChanged();

private:
    void setPending(const QString &name);
    /// Makes the JPEG that `normalize` produces on a worker thread the pending image.
    QCoro::Task<bool> take(std::function<QByteArray()> normalize);

    ImageStore &m_store;
    Database &m_database;
    QString m_databasePath;
    ChatTree &m_tree;
    const ModelsController &m_models;
    StatusBanner &m_status;
    QString m_pending;
    qint64 m_pendingChatID = -1;
    int m_importing = 0;
};
