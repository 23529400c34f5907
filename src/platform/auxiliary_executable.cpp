#include "platform/auxiliary_executable.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>

namespace AuxiliaryExecutable {

QString directory()
{
    return QDir::cleanPath(QCoreApplication::applicationDirPath()
                           + QStringLiteral("/../libexec/corvane"));
}

QString find(const QString &name)
{
    const QFileInfo info(directory() + QLatin1Char('/') + name);
    return info.isFile() && info.isExecutable() ? info.absoluteFilePath() : QString();
}

} // namespace AuxiliaryExecutable
