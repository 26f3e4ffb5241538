#include "Process.h"

#include "Reporter.h"

#include <karst/LockFile.h>
#include <karst/Logger.h>
#include <karst/Text.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace quorad {

namespace {

const char* textOf(ExitCode code) {
    switch (code) {
    case ExitCode::Usage:
        return "usage error";
    case ExitCode::FileSystem:
        return "file system error";
    case ExitCode::System:
        return "operating system error";
    case ExitCode::Configuration:
        return "configuration problem";
    case ExitCode::Success:
        break;
    }
    return "success";
}

void removePidFile() {
    ::unlink(PID_FILE);
}

// The parent's end of the story.
[[noreturn]] void awaitChild(pid_t child, int readiness) {
    char byte = 0;
    ssize_t got = 0;
    do {
        got = ::read(readiness, &byte, 1);
    } while (got < 0 && errno == EINTR);
    if (got == 1) {
        ::_exit(0);
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    ::_exit(WIFEXITED(status) ? WEXITSTATUS(status) : static_cast<int>(ExitCode::System));
}

void writePidFile() {
    const std::string id = std::to_string(::getpid());
    const int file = ::open(PID_FILE, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0644);
    const bool written =
        file >= 0 && ::write(file, id.data(), id.size()) == static_cast<ssize_t>(id.size());
    if (file >= 0) {
        ::fchmod(file, 0644); // whoever may look for the daemon, whatever the creation mask is
    }
    if ((file >= 0 && ::close(file) != 0) || !written) {
        fail(ExitCode::FileSystem,
             "Failure while writing to '" + std::string(PID_FILE) + "'. Cannot continue.");
    }
}

} // namespace

void terminate(ExitCode code) {
    const int number = static_cast<int>(code);
    if (code != ExitCode::Success) {
        const auto logger = tessa::Logger::get(LOGGER_NAME);
        KARST_LOG(logger, tessa::LOG_FAILURE, "Terminating quorad with exit(%d): %s", number,
                  textOf(code));
        std::fprintf(stderr, "Terminating quorad with exit(%d): %s\n", number, textOf(code));
    }
    std::exit(number);
}

void fail(ExitCode code, const std::string& text) {
    const auto logger = tessa::Logger::get(LOGGER_NAME);
    KARST_LOG(logger, tessa::LOG_FAILURE, "%s", text.c_str());
    std::fprintf(stderr, "%s\n", text.c_str());
    terminate(code);
}

void setCoreDumps(bool allowed) {
    rlimit limit{};
    if (::getrlimit(RLIMIT_CORE, &limit) == 0) {
        limit.rlim_cur = allowed ? limit.rlim_max : 0;
        ::setrlimit(RLIMIT_CORE, &limit);
    }
}

void ensureFolder(const std::string& path, unsigned mode, bool enforce) {
    const bool made = ::mkdir(path.c_str(), mode) == 0;
    if (!made && errno != EEXIST) {
        fail(ExitCode::FileSystem, "mkdir(" + path + ") failed: " + tessa::errorText(errno));
    }
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
        fail(ExitCode::FileSystem, "'" + path + "' is not a directory");
    }
    if ((made || enforce) && ::chmod(path.c_str(), mode) != 0) {
        fail(ExitCode::FileSystem, "chmod(" + path + ") failed: " + tessa::errorText(errno));
    }
}

Detached Detached::detach() {
    int ends[2] = {-1, -1};
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        fail(ExitCode::System, "pipe failed: " + tessa::errorText(errno));
    }
    const pid_t child = ::fork();
    if (child < 0) {
        fail(ExitCode::System, "fork failed: " + tessa::errorText(errno));
    }
    if (child > 0) {
        ::close(ends[1]);
        awaitChild(child, ends[0]);
    }
    ::close(ends[0]);
    ::setsid();
    const int null = ::open("/dev/null", O_RDWR);
    if (null < 0 || ::dup2(null, STDIN_FILENO) < 0 || ::dup2(null, STDOUT_FILENO) < 0) {
        fail(ExitCode::System, "cannot use /dev/null: " + tessa::errorText(errno));
    }
    if (null > STDERR_FILENO) {
        ::close(null);
    }
    return Detached(ends[1]);
}

void Detached::ready() {
    if (m_descriptor >= 0) {
        const char byte = 1;
        // A parent that was killed meanwhile has no use for it.
        [[maybe_unused]] const ssize_t written = ::write(m_descriptor, &byte, 1);
        ::close(m_descriptor);
        m_descriptor = -1;
    }
}

int claimPidFile() {
    const tessa::LockResult lock = tessa::VmxLock(LOCK_FILE);
    const std::string file = std::string("lock file(") + LOCK_FILE + ")";
    if (lock.descriptor < 0) {
        fail(ExitCode::FileSystem, "create " + file + " failed: " + tessa::errorText(errno));
    }
    if (lock.status < 0) {
        fail(ExitCode::FileSystem, "lock " + file + " failed: " + tessa::errorText(errno));
    }
    if (lock.status == 0) {
        fail(ExitCode::Usage, "quorad is already running");
    }
    writePidFile();
    std::atexit(removePidFile);
    return lock.descriptor;
}

} // namespace quorad
