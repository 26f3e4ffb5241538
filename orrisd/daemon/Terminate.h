#pragma once

namespace nis {

/// Removes the pid file if this process wrote it. Runs at every exit.
void CleanUp();
/// Makes CleanUp() run at every exit of the process.
void registerCleanUp();
/// From now on the pid file is this process's own.
void ownPidFile();

/// Handlers of last resort: each logs and prints its text and aborts.
[[noreturn]] void OrrisdUnexpected();
[[noreturn]] void OrrisdTerminate();
void installTerminateHandlers();

} // namespace nis
