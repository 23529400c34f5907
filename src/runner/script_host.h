#pragma once

#include <string>
#include <string_view>

/// Runs one request in a fresh SpiderMonkey realm that holds only the ECMAScript built-ins:
/// no file, network, process or timer API exists there. One host per process.
namespace ScriptHost {

/// Evaluates `request` (the JSON request text) and returns the JSON answer text. When the
/// engine runs out of memory the process ends itself by SIGKILL instead of returning, so that
/// the application reports the script the same way as one that ran out of time.
std::string run(std::string_view request);

} // namespace ScriptHost
