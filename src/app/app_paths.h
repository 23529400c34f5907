#pragma once

#include "platform/error.h"

#include <QString>

/// A data directory could not be created, listed or emptied.
class AppPathsError : public CorvaneError
{
public:
    using CorvaneError::CorvaneError;
};

/// Where Corvane keeps its files: `$XDG_DATA_HOME/Corvane` (normally
/// `~/.local/share/Corvane`), or the directory named by `CORVANE_DATA_DIR` when that is set,
/// which tests and portable installs use.
namespace AppPaths {

/// The data directory, created with its parents if missing. Throws AppPathsError.
QString supportDirectory();

/// The folder `CORVANE_DATA_DIR` names, absolute and clean, or empty when the usual one is
/// used. Nothing is created.
QString overriddenDirectory();

/// `supportDirectory()/name`, created if missing ("Models", "Images"). Throws AppPathsError.
QString directory(const QString &name);

/// Removes every entry directly inside `path` (sub-directories with their contents). Stops at
/// the first entry that cannot be removed and throws; entries not yet reached stay.
void removeContents(const QString &path);

} // namespace AppPaths
