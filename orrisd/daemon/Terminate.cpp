#include "daemon/Terminate.h"

#include "common/Globals.h"
#include "common/NisException.h"
#include "daemon/Files.h"

#include <karst/Exceptions.h>
#include <karst/Thread.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include <unistd.h>

namespace nis {

namespace {

constexpr std::array<const char*, 8> EXIT_TEXTS{
    "",
    "usage error",
    "file system error",
    "operating system error",
    "network config problem",
    "quorad config problem",
    "RPC config problem",
    "unknown status code",
};

/// Children that failed to become another program and second instances must not remove the file.
std::atomic<pid_t> pidFileOwner{0};

[[noreturn]] void fail(const char* text) {
    if (logger) {
        KARST_LOG(logger, tessa::LOG_FAILURE, "%s", text);
    }
    std::fprintf(stderr, "%s\n", text);
    std::abort();
}

/// What is in flight, for whoever reads the log beside the core.
void describeException() {
    try {
        throw;
    } catch (NisException& e) {
        KARST_LOG(logger, tessa::LOG_FAILURE, "Uncaught: %s '%s'", e.msg().c_str(),
                  e.arg().c_str());
    } catch (const tessa::TESSAException& e) {
        KARST_LOG(logger, tessa::LOG_FAILURE, "Uncaught: %s from %s:%u", e.what(), e.file(),
                  e.line());
    } catch (const std::exception& e) {
        KARST_LOG(logger, tessa::LOG_FAILURE, "Uncaught: %s", e.what());
    } catch (...) {
        KARST_LOG(logger, tessa::LOG_FAILURE, "Uncaught: exception of unknown kind");
    }
}

} // namespace

const char* exitCodeText(int code) {
    if (code < 0 || static_cast<std::size_t>(code) >= EXIT_TEXTS.size()) {
        return "unknown status code";
    }
    return EXIT_TEXTS[static_cast<std::size_t>(code)];
}

void terminate(ExitCode code) {
    tessa::Thread::SetThreadsActive(false);
    if (code == EXIT_OK) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "exit(0)");
    } else {
        KARST_LOG(logger, tessa::LOG_FAILURE, "Terminating orrisd with exit(%d): %s",
                  static_cast<int>(code), exitCodeText(code));
        std::fprintf(stderr, "Terminating orrisd with exit(%d): %s\n", static_cast<int>(code),
                     exitCodeText(code));
    }
    // Any thread may get here while others run, and these must not see statics being destroyed.
    std::fflush(nullptr);
    std::quick_exit(code);
}

void CleanUp() {
    if (pidFileOwner == getpid()) {
        unlink(ADNIS_PIDFILE);
    }
}

void registerCleanUp() {
    std::atexit(CleanUp);
    std::at_quick_exit(CleanUp);
}

void ownPidFile() {
    pidFileOwner = getpid();
}

void OrrisdUnexpected() {
    fail("Undeclared exception thrown. Terminating program. Generating core dump");
}

void OrrisdTerminate() {
    if (!std::current_exception()) {
        fail("Unknown program fault. Terminating program. Generating core dump.");
    }
    if (logger) {
        describeException();
    }
    fail("Uncaught exception. Terminating program. Generating core dump.");
}

void installTerminateHandlers() {
    std::set_terminate(OrrisdTerminate);
    // The language no longer has exception lists; libraries built to an older standard may.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    std::set_unexpected(OrrisdUnexpected);
#pragma GCC diagnostic pop
}

} // namespace nis
