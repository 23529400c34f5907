#pragma once

#include <QString>

/// The programs Corvane runs as child processes (llama-server, whisper-cli, the script
/// runner) live in `libexec/corvane/` beside the `bin/` folder that holds the running
/// executable, in an installed prefix and in the build tree alike.
namespace AuxiliaryExecutable {

/// The folder the auxiliary programs are looked up in.
QString directory();

/// Full path of the program `name` when it exists there and can be executed, else empty.
QString find(const QString &name);

} // namespace AuxiliaryExecutable
