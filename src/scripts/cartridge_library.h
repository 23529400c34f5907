#pragma once

#include <QList>
#include <QString>

/// One script kept in the scripts folder.
struct CartridgeFile
{
    QString path; ///< absolute path inside the scripts folder

    /// The file name without its extension: the script's name in the list.
    QString name() const;

    bool operator==(const CartridgeFile &) const = default;
};

/// The scripts folder ("Scripts" in the data directory): where the user keeps scripts to pick
/// from. A chat never runs a file from here; attaching copies the source into the chat's or
/// folder's row. Plain synchronous file operations; writes are atomic. File-system failures
/// throw SystemError with the system's words; a file that is not a script throws
/// CartridgeError::invalidFile().
class CartridgeLibrary
{
public:
    /// Largest script file accepted, in bytes.
    static constexpr qint64 maxFileBytes = 131'072;

    /// Opens the scripts folder in `supportDirectory`, creating it (and moving over the
    /// "Cartridges" folder of earlier versions); a new folder gets the example script.
    explicit CartridgeLibrary(const QString &supportDirectory);

    const QString &directory() const { return m_directory; }

    /// The folder's ".corvane" files, in natural order of their names (Script 2 before
    /// Script 10). Hidden files and ".corvane.js" files put there by hand are not listed.
    QList<CartridgeFile> files() const;
    /// A new script from the template, named after its file ("Notes 2" when "Notes" exists).
    CartridgeFile create(const QString &name) const;
    /// Keeps an imported script: the library's own file when `from` is one of them or an
    /// existing file holds exactly `source`, else a new file named after `name`.
    CartridgeFile saveImported(const QString &source, const QString &name, const QString &from) const;
    /// Gives the file the name's file name (when it differs) and rewrites the script's `name`
    /// to match.
    CartridgeFile rename(const CartridgeFile &file, const QString &name) const;
    /// Moves the file to the desktop's trash.
    void remove(const CartridgeFile &file) const;
    /// Copies the example script in as "Example Script.corvane" unless that exists.
    void addExample() const;
    /// Replaces the file's text, atomically.
    void save(const CartridgeFile &file, const QString &source) const;
    /// Writes a copy of the file's text to `destination`, atomically.
    static void saveCopy(const CartridgeFile &file, const QString &destination);

    /// The text of a script file: ".corvane" or ".corvane.js", at most `maxFileBytes`, UTF-8.
    /// Throws CartridgeError::invalidFile() otherwise (a file that cannot be read included).
    static QString read(const QString &path);
    /// A file name's base for `name`: letters, digits, spaces, "-" and "_" kept, anything
    /// else "-", trimmed, at most 70 characters; "Script" when nothing is left.
    static QString fileBase(const QString &name);
    /// The script's title: `resultName` trimmed when it says something, else the file's
    /// name without ".corvane.js" or its extension.
    static QString title(const QString &resultName, const QString &path);

private:
    QString unusedPath(const QString &name) const;

    QString m_directory;
};
