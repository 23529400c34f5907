#include "platform/auxiliary_executable.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QProcess>

#include <csignal>
#include <sys/prctl.h>
#include <unistd.h>

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

void endWithParent(QProcess &process)
{
    const pid_t parent = ::getpid();
    // Runs in the child between fork and exec: only async-signal-safe calls.
    process.setChildProcessModifier([parent] {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        // The parent may have died before the line above took effect.
        if (::getppid() != parent)
            ::_exit(1);
    });
}

} // namespace AuxiliaryExecutable
