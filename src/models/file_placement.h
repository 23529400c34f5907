#pragma once

#include "platform/cancellation.h"

#include <QCoro/QCoroTask>

/// Puts an accepted file into the models folder.
namespace FilePlacement {

/// Makes `source` appear at `destination`, replacing any file there only once the new one is
/// complete. A rename when both lie on one file system; otherwise the file is copied on a
/// worker thread into a hidden partial file beside `destination`, which is then renamed, and
/// `source` is left in place. Returns true when it was renamed. Throws SystemError.
QCoro::Task<bool> place(QString source, QString destination, CancellationToken cancel = {});

} // namespace FilePlacement
