#include "daemon/Watchdog.h"

#include "common/Globals.h"
#include "daemon/Files.h"

#include <karst/Text.h>

#include <cerrno>
#include <csignal>
#include <string>
#include <vector>

#include <unistd.h>

namespace nis {

namespace {

constexpr int EXEC_FAILED = 1;

[[noreturn]] void becomeWatchdog(std::vector<std::string> arguments) {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    std::vector<char*> pointers;
    pointers.reserve(arguments.size() + 1);
    for (std::string& argument : arguments) {
        pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    execv(WATCHDOG_PROGRAM, pointers.data());
    KARST_LOG(logger, tessa::LOG_FAILURE, "unable to exec watchdog: %s",
              tessa::errorText(errno).c_str());
    _exit(EXEC_FAILED); // the exit handlers are the daemon's
}

} // namespace

pid_t startWatchdog(int argc, const char* const* argv) {
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "=== Starting watchdog ===");
    std::vector<std::string> arguments{"orrisguard", std::to_string(getpid())};
    for (int i = 1; i < argc; ++i) {
        arguments.emplace_back(argv[i]);
    }
    const pid_t child = fork();
    if (child == 0) {
        becomeWatchdog(std::move(arguments));
    }
    if (child < 0) {
        KARST_LOG(logger, tessa::LOG_FAILURE, "Unable to fork watchdog: %s",
                  tessa::errorText(errno).c_str());
        return NO_WATCHDOG;
    }
    return child;
}

void killWatchdog(pid_t watchdog) {
    if (watchdog == NO_WATCHDOG) {
        return;
    }
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "=== Stopping watchdog ===");
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "Killing watchdog, pid = %d", watchdog);
    if (kill(watchdog, SIGKILL) != 0) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "Killing watchdog failed with %s",
                  tessa::errorText(errno).c_str());
    }
}

} // namespace nis
