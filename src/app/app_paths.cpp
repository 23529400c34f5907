#include "app/app_paths.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>

namespace {

QString ensureDirectory(const QString &path)
{
    const QFileInfo info(path);
    if (info.exists() && !info.isDir())
        throw AppPathsError(QStringLiteral("“%1” exists but is not a folder").arg(path));
    if (!QDir().mkpath(path))
        throw AppPathsError(QStringLiteral("Could not create the folder “%1”").arg(path));
    // Only the user may look inside, also in a folder an earlier version left open to others.
    constexpr QFile::Permissions others = QFile::ReadGroup | QFile::WriteGroup | QFile::ExeGroup | QFile::ReadOther
                                          | QFile::WriteOther | QFile::ExeOther;
    if (QFileInfo(path).permissions().testAnyFlags(others)
        && !QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner))
        throw AppPathsError(QStringLiteral("Could not make the folder “%1” private").arg(path));
    return QDir::cleanPath(QFileInfo(path).absoluteFilePath());
}

} // namespace

namespace AppPaths {

QString overriddenDirectory()
{
    const QString overridden = qEnvironmentVariable("CORVANE_DATA_DIR");
    return overridden.isEmpty() ? QString() : QDir::cleanPath(QFileInfo(overridden).absoluteFilePath());
}

QString supportDirectory()
{
    const QString overridden = overriddenDirectory();
    if (!overridden.isEmpty())
        return ensureDirectory(overridden);
    // GenericDataLocation is $XDG_DATA_HOME (or ~/.local/share); the application's own
    // name is appended here so that it does not depend on the organisation name.
    const QString base = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    if (base.isEmpty())
        throw AppPathsError(QStringLiteral("Could not find the folder for application data"));
    return ensureDirectory(base + QStringLiteral("/Corvane"));
}

QString directory(const QString &name)
{
    return ensureDirectory(supportDirectory() + QLatin1Char('/') + name);
}

void removeContents(const QString &path)
{
    const QDir dir(path);
    if (!dir.exists())
        throw AppPathsError(QStringLiteral("The folder “%1” does not exist").arg(path));
    const QFileInfoList entries =
        dir.entryInfoList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    for (const QFileInfo &entry : entries) {
        // A link is removed itself, never followed into what it points at.
        const bool removed = entry.isDir() && !entry.isSymLink()
            ? QDir(entry.absoluteFilePath()).removeRecursively()
            : QFile::remove(entry.absoluteFilePath());
        if (!removed)
            throw AppPathsError(QStringLiteral("Could not remove “%1”").arg(entry.absoluteFilePath()));
    }
}

} // namespace AppPaths
