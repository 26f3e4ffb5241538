#include "karst/LockFile.h"

#include <cerrno>
#include <string>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace tessa {

namespace {

bool writeProcessId(int descriptor) {
    const std::string text = std::to_string(::getpid());
    if (::ftruncate(descriptor, 0) != 0) {
        return false;
    }
    const ssize_t written = ::pwrite(descriptor, text.data(), text.size(), 0);
    if (written >= 0 && written != static_cast<ssize_t>(text.size())) {
        errno = ENOSPC;
        return false;
    }
    return written >= 0;
}

} // namespace

LockResult VmxLock(const std::string& path) {
    const int descriptor = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (descriptor < 0) {
        return {-1, -1};
    }
    // A lock of flock belongs to the open file and so survives the fork that detaches a daemon.
    if (::flock(descriptor, LOCK_EX | LOCK_NB) != 0) {
        return {descriptor, errno == EWOULDBLOCK ? 0 : -1};
    }
    return {descriptor, writeProcessId(descriptor) ? 1 : -1};
}

void VmxUnlock(int descriptor) {
    if (descriptor >= 0) {
        ::flock(descriptor, LOCK_UN);
        ::close(descriptor);
    }
}

} // namespace tessa
