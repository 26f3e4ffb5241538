#include "karst/LockFile.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace tessa {

LockResult VmxLock(const std::string& path) {
    const int descriptor = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (descriptor < 0) {
        return {-1, -1};
    }
    // flock belongs to the open file, so it survives the fork that detaches a daemon.
    if (::flock(descriptor, LOCK_EX | LOCK_NB) != 0) {
        const int problem = errno;
        if (problem == EWOULDBLOCK) {
            ::close(descriptor);
            return {descriptor, 0};
        }
        return {descriptor, -problem};
    }
    const std::string pid = std::to_string(::getpid());
    if (::ftruncate(descriptor, 0) != 0 ||
        ::pwrite(descriptor, pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size())) {
        const int problem = errno;
        return {descriptor, problem == 0 ? -EIO : -problem};
    }
    return {descriptor, 1};
}

void VmxUnlock(int descriptor) {
    if (descriptor >= 0) {
        ::flock(descriptor, LOCK_UN);
        ::close(descriptor);
    }
}

} // namespace tessa
