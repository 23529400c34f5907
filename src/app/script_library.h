#pragma once

#include "scripts/cartridge_library.h"

#include <QObject>
#include <QString>
#include <QUrl>
#include <QVariantList>

#include <QCoro/QCoroTask>

#include <functional>

class ChatTree;
class Database;
class StatusBanner;
struct CartridgeContext;
struct CartridgeResult;

/// The scripts the user keeps, and attaching them: the scripts pane's list, the selected
/// script's text as edited (saved as it is typed, and checked by running it once), creating,
/// renaming, deleting and importing scripts, and giving a chat or a folder a script. A script
/// is attached by copying its source into the chat's or folder's row; a script that fails its
/// check run is never attached, and its error goes to the banner.
class ScriptLibrary : public QObject
{
    Q_OBJECT
    /// The library's scripts, each a map with "path" and "name".
    Q_PROPERTY(QVariantList files READ files NOTIFY filesChanged)
    Q_PROPERTY(QString selectedPath READ selectedPath NOTIFY selectionChanged)
    Q_PROPERTY(QString selectedName READ selectedName NOTIFY selectionChanged)
    /// The selected script's text, as last read or saved.
    Q_PROPERTY(QString source READ source NOTIFY selectionChanged)
    /// The selected file could not be read as a script.
    Q_PROPERTY(bool unreadable READ unreadable NOTIFY selectionChanged)
    /// What the check run of the selected script found; empty when nothing.
    Q_PROPERTY(QString problem READ problem NOTIFY checkChanged)
    Q_PROPERTY(bool isChecking READ isChecking NOTIFY checkChanged)
    Q_PROPERTY(QString directory READ directory CONSTANT)

public:
    /// `editsBlocked` answers whether nothing may be written to the database now.
    ScriptLibrary(CartridgeLibrary &library, Database &database, ChatTree &tree, StatusBanner &status,
                  std::function<bool()> editsBlocked, QObject *parent = nullptr);
    ~ScriptLibrary() override;

    QVariantList files() const;
    const QString &selectedPath() const { return m_selected.path; }
    QString selectedName() const { return m_selected.path.isEmpty() ? QString() : m_selected.name(); }
    const QString &source() const { return m_source; }
    bool unreadable() const { return m_unreadable; }
    const QString &problem() const { return m_problem; }
    bool isChecking() const { return m_checking > 0; }
    const QString &directory() const { return m_library.directory(); }

    // ---- the scripts pane
    /// Lists the folder again; a selection whose file is gone is dropped.
    Q_INVOKABLE void reload();
    /// Shows a library file: its text, then what its check run finds.
    Q_INVOKABLE void select(const QString &path);
    /// Saves the selected script's edited text and checks it again.
    Q_INVOKABLE void saveSource(const QString &text);
    /// A new script from the template, selected.
    Q_INVOKABLE void createScript(const QString &name);
    Q_INVOKABLE void renameSelected(const QString &name);
    /// Moves the selected script to the trash; chats keep their own copy.
    Q_INVOKABLE void deleteSelected();
    /// Writes a copy of the selected script to `path`, a file the user chose.
    Q_INVOKABLE void saveCopy(const QString &path);
    /// Shows the file in the desktop's file manager, selected; without one, asks the window
    /// to open its folder (`openExternally`).
    Q_INVOKABLE void showInFileManager(const QString &path);

    // ---- attaching; each checks the script by running it once first
    /// Adds a script file to the library only, and selects it.
    Q_INVOKABLE void importToLibrary(const QString &path);
    /// Gives one chat the script file at `path`.
    Q_INVOKABLE void attachToChat(qint64 chatID, const QString &path);
    /// Gives a folder the script; the chats that use it start their script state over.
    Q_INVOKABLE void attachToFolder(qint64 folderID, const QString &path);
    /// A new chat in `folderID` titled after the script, running it, selected.
    Q_INVOKABLE void createChat(const QString &path, qint64 folderID);
    Q_INVOKABLE void removeFromChat(qint64 chatID);
    Q_INVOKABLE void removeFromFolder(qint64 folderID);
    /// The library file that is a newer version of the folder's script (same title, other
    /// text); empty when there is none.
    Q_INVOKABLE QString updateFor(qint64 folderID) const;
    /// The local script files (".corvane", ".corvane.js") among dropped URLs, as paths.
    Q_INVOKABLE QStringList scriptFiles(const QList<QUrl> &urls) const;
    /// Files opened from the system (the command line, a drop on the window): each script
    /// goes to the library, the last one is selected, and the window is asked to show it.
    Q_INVOKABLE void openFiles(const QStringList &paths);

    /// `importToLibrary`, awaitable: answers whether the file was kept (false: refused, and
    /// the banner says why).
    QCoro::Task<bool> import(QString path);

Q_SIGNALS:
    void filesChanged();
    void selectionChanged();
    void checkChanged();
    /// A chat's or folder's script changed: script timers start over.
    void attachmentsChanged();
    /// The window is to show the scripts pane (a file was opened from the system).
    void showRequested();
    /// The window is to open this URL with the desktop's default application.
    void openExternally(const QString &url);

private:
    enum class Target { Library, Chat, Folder, NewChat };
    /// Reads `path` and check-runs it in `context`: the source and its result.
    QCoro::Task<std::pair<QString, CartridgeResult>> checked(QString path, CartridgeContext context);
    QCoro::Task<bool> install(Target target, qint64 id, QString path);
    QCoro::Task<> checkSelected();
    void setSelected(const CartridgeFile &file);
    void run(QCoro::Task<bool> task);

    CartridgeLibrary &m_library;
    Database &m_database;
    ChatTree &m_tree;
    StatusBanner &m_status;
    std::function<bool()> m_editsBlocked;
    QList<CartridgeFile> m_files;
    CartridgeFile m_selected;
    QString m_source;
    bool m_unreadable = false;
    QString m_problem;
    int m_checking = 0;
    /// Raised by every new text to check: an older check's outcome is dropped.
    quint64 m_checkGeneration = 0;
};
