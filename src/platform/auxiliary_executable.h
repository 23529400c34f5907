#pragma once

#include <QString>

class QProcess;

/// The programs Corvane runs as child processes (llama-server, whisper-cli, the script
/// runner) live in `libexec/corvane/` beside the `bin/` folder that holds the running
/// executable, in an installed prefix and in the build tree alike.
namespace AuxiliaryExecutable {

/// The folder the auxiliary programs are looked up in.
QString directory();

/// Full path of the program `name` when it exists there and can be executed, else empty.
QString find(const QString &name);

/// Makes the program `process` starts end with this application, even when the application
/// is killed: a crash must not leave a server holding gigabytes of model in memory.
void endWithParent(QProcess &process);

} // namespace AuxiliaryExecutable
