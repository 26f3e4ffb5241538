#pragma once

#include <string>

namespace tessa {

/// Result of VmxLock.
struct LockResult {
    int descriptor; ///< open lock file, or -1 when it could not be made (errno tells why)
    int status;     ///< 1 locked; 0 another process holds it; negative: locking, or writing the
                    ///< process id, failed (errno tells why)
};

/// Takes an exclusive lock on a file that is created if needed (mode 0600, close-on-exec) and
/// writes the process id into it. The lock is held until VmxUnlock or until the process ends,
/// however it ends. It follows the process over fork() only to the child that keeps the descriptor.
/// The descriptor, if there is one, belongs to the caller whatever the status is: VmxUnlock closes
/// it. A symbolic link in the place of the file is refused (ELOOP).
LockResult VmxLock(const std::string& path);

/// Releases the lock and closes the descriptor. The file stays.
void VmxUnlock(int descriptor);

} // namespace tessa
