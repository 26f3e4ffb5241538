#pragma once

#include <string>

/// The process around the service: its folders, files, and how it ends.
namespace quorad {

inline constexpr const char* LOCK_FILE = "/var/run/quorad.lock";
inline constexpr const char* PID_FILE = "/var/run/quorad.pid";

enum class ExitCode : int {
    Success = 0,
    Usage = 1,
    FileSystem = 2,
    System = 3,
    Configuration = 5,
};

/// Ends the process; for another code than success says so in the log and on standard error.
[[noreturn]] void terminate(ExitCode code);

/// Logs a failure, says it on standard error too, and ends the process.
[[noreturn]] void fail(ExitCode code, const std::string& text);

/// A core holds what the process holds: passwords, keys, tickets. Without this none is written.
void setCoreDumps(bool allowed);

/// Makes a folder of that mode unless it is there; an existing one keeps its mode unless `enforce`.
/// Ends the process when there can be none.
void ensureFolder(const std::string& path, unsigned mode, bool enforce);

/// The waiting parent of a daemon: it ends with status 0 as soon as the daemon is ready, and with
/// the daemon's own status when that ends before.
class Detached {
public:
    /// Forks; returns in the child, in a session of its own, with standard input and output on
    /// /dev/null. Standard error stays, so that fatal messages reach whoever started the program.
    static Detached detach();
    /// For a daemon in the foreground, which nobody waits for.
    static Detached foreground() { return Detached(-1); }

    void ready();

private:
    explicit Detached(int descriptor) : m_descriptor(descriptor) {}
    int m_descriptor;
};

/// Takes the lock that only one daemon can hold, and writes the process id to its file, which is
/// removed when the process exits. Ends the process when that fails.
/// @return the lock's descriptor, for VmxUnlock
int claimPidFile();

} // namespace quorad
