#include "SourceFile.h"

#include <karst/Exceptions.h>
#include <karst/Text.h>

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace quorad::ldif {

namespace {

std::int64_t nanoseconds(const struct timespec& time) {
    return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

FileIdentity identityOf(const struct stat& status) {
    FileIdentity identity;
    identity.device = status.st_dev;
    identity.inode = status.st_ino;
    identity.size = status.st_size;
    identity.modified = nanoseconds(status.st_mtim);
    identity.changed = nanoseconds(status.st_ctim);
    return identity;
}

} // namespace

std::string FileIdentity::toString() const {
    return std::to_string(device) + ":" + std::to_string(inode) + ":" + std::to_string(size) + ":" +
           std::to_string(modified) + ":" + std::to_string(changed);
}

FileIdentity FileIdentity::of(const std::string& path, std::string& why) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
        why = tessa::errorText(errno);
        return {};
    }
    if (!S_ISREG(status.st_mode)) {
        why = "not a regular file";
        return {};
    }
    return identityOf(status);
}

SourceFile::SourceFile(const std::string& path) : m_path(path) {
    // A pipe that somebody put there must not keep us waiting for its other end.
    m_file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (m_file < 0) {
        TESSA_THROW(tessa::SystemException, "'" + path + "': " + tessa::errorText(errno));
    }
    if (!identity().exists()) {
        ::close(m_file);
        TESSA_THROW(tessa::SystemException, "'" + path + "': not a regular file");
    }
    ::posix_fadvise(m_file, 0, 0, POSIX_FADV_SEQUENTIAL);
}

SourceFile::~SourceFile() {
    ::close(m_file);
}

FileIdentity SourceFile::identity() const {
    struct stat status {};
    if (::fstat(m_file, &status) != 0 || !S_ISREG(status.st_mode)) {
        return {};
    }
    return identityOf(status);
}

std::size_t SourceFile::read(char* buffer, std::size_t size) {
    for (;;) {
        const ssize_t count = ::read(m_file, buffer, size);
        if (count >= 0) {
            return static_cast<std::size_t>(count);
        }
        if (errno != EINTR) {
            TESSA_THROW(tessa::SystemException, "'" + m_path + "': " + tessa::errorText(errno));
        }
    }
}

} // namespace quorad::ldif
