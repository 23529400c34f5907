#pragma once

#include <cstddef>

/// Limits the runner puts on its own process before it touches a script. The application
/// kills a runner after two seconds; these limits hold even when nobody is left to kill it.
namespace ProcessLimits {

/// Most bytes of writable memory (heap, stacks, engine arenas) the process may map.
inline constexpr std::size_t dataBytes = std::size_t(512) << 20;

/// Seconds after which the process ends itself (SIGALRM), in case its parent is gone.
inline constexpr unsigned wallSeconds = 5;

/// Caps writable memory and turns off core files, so that an allocation a script cannot
/// stop making ends the process by a signal instead of filling the machine, and arms the
/// wall-clock alarm.
void apply();

/// From here on the process may not open or change files, use sockets or start programs:
/// those system calls fail with EPERM. The script engine has no way to ask for them anyway;
/// this closes them to a script that found a flaw in the engine. Called once the engine has
/// started, before the script runs. Where the kernel offers no system-call filter it does
/// nothing.
void forbidSystemAccess();

/// Bytes of native stack the engine may use for script recursion, below the real limit so
/// that deep recursion becomes a catchable "too much recursion" error rather than a crash.
std::size_t scriptStackBytes();

} // namespace ProcessLimits
