#pragma once

#include <sys/types.h>

namespace nis {

inline constexpr pid_t NO_WATCHDOG = -1;

/// Starts the watchdog program as a child with this process's id and arguments.
/// @return its process id, NO_WATCHDOG when it could not be started
pid_t startWatchdog(int argc, const char* const* argv);
/// Ends the watchdog that startWatchdog() returned; does nothing for NO_WATCHDOG.
void killWatchdog(pid_t watchdog);

} // namespace nis
