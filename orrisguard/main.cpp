// orrisguard PID [ARGUMENT...]: looks after the orrisd with that process id, and starts it again
// with those arguments when it is gone or has stopped answering.
#include "System.h"
#include "Watch.h"

#include <karst/Logger.h>
#include <karst/Properties.h>
#include <karst/Text.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

using namespace orrisguard;

constexpr const char* CONFIG_FILE = "/etc/velmorix/velmorix.conf";
constexpr const char* PID_FILE = "/var/run/orrisd.pid";
constexpr const char* DAEMON_PROGRAM = ORRISD_PROGRAM; // where it is installed
constexpr const char* FOREGROUND = "d";
constexpr int USAGE_ERROR = 1;

std::chrono::seconds timeOf(const tessa::Properties& properties, const char* key,
                            std::chrono::seconds fallback) {
    const long value = properties.getTime(key, static_cast<long>(fallback.count()));
    return std::chrono::seconds(std::max(value, 1L));
}

Settings settingsOf(const tessa::Properties& properties) {
    Settings settings;
    settings.frequency = timeOf(properties, "nisd.watch.check.frequency", settings.frequency);
    settings.checkTimeout = timeOf(properties, "nisd.watch.check.timeout", settings.checkTimeout);
    settings.death = timeOf(properties, "nisd.watch.death.timeout", settings.death);
    settings.longestPause = timeOf(properties, "nisd.watch.max.timeout", settings.longestPause);
    settings.startup = timeOf(properties, "nisd.startup.delay", settings.startup);
    if (properties.exists("nisd.watch.retry.max")) {
        settings.mostRestarts = static_cast<int>(std::min(
            tessa::atoui(properties.get("nisd.watch.retry.max")), static_cast<unsigned>(INT_MAX)));
    }
    return settings;
}

// Where the daemon is bound; it answers its own addresses.
std::uint32_t addressOf(const tessa::Properties& properties) {
    struct in_addr address {};
    const std::string text = properties.get("nisd.net_addr");
    const bool given = ::inet_pton(AF_INET, text.c_str(), &address) == 1;
    return given && address.s_addr != INADDR_ANY ? address.s_addr : htonl(INADDR_LOOPBACK);
}

// The program that the daemon runs: not necessarily the one that is installed.
std::string programOf(pid_t pid) {
    char path[PATH_MAX];
    const std::string link = "/proc/" + std::to_string(pid) + "/exe";
    const ssize_t length = ::readlink(link.c_str(), path, sizeof(path));
    const std::string program(path, length > 0 ? static_cast<std::size_t>(length) : 0);
    return !program.empty() && ::access(program.c_str(), X_OK) == 0 ? program : DAEMON_PROGRAM;
}

bool inForeground(const std::vector<std::string>& arguments) {
    return std::any_of(arguments.begin(), arguments.end(), [](const std::string& argument) {
        return argument.size() > 1 && argument[0] == '-' &&
               argument.find(FOREGROUND) != std::string::npos;
    });
}

int restartsBefore() {
    const char* const text = std::getenv(System::RESTARTS);
    return text == nullptr ? 0 : static_cast<int>(std::min(tessa::atoui(text), 1000U));
}

// What the daemon had open is none of ours: its lock must go with it.
void detach() {
    ::setsid(); // refused to the leader of a group, which has its own then
    ::syscall(SYS_close_range, 3U, ~0U, 0U);
    if (::chdir("/") != 0) {
        std::perror("chdir");
    }
    ::signal(SIGPIPE, SIG_IGN);
}

} // namespace

int main(int argc, char** argv) {
    char* end = nullptr;
    const long pid = argc > 1 ? std::strtol(argv[1], &end, 10) : 0;
    if (pid <= 1 || pid > INT_MAX || *end != '\0') {
        std::fprintf(stderr, "usage: %s PID [ARGUMENT...]\n", argc > 0 ? argv[0] : LOGGER_NAME);
        return USAGE_ERROR;
    }
    const Process daemon = processOf(static_cast<pid_t>(pid));
    const std::vector<std::string> arguments(argv + 2, argv + argc);
    const std::string program = programOf(daemon.pid);
    detach();
    if (inForeground(arguments)) {
        tessa::Logger::logToStandardError();
    } else {
        tessa::Logger::logToSyslog(LOGGER_NAME);
    }
    tessa::Properties properties;
    properties.load(CONFIG_FILE);
    tessa::Logger::configure(properties);
    const auto logger = tessa::Logger::get(LOGGER_NAME);
    if (!daemon.exists()) {
        KARST_LOG(logger, tessa::LOG_FAILURE, "There is no process %ld to watch", pid);
        return USAGE_ERROR;
    }
    KARST_LOG(logger, tessa::LOG_INFORMATION, "Watching orrisd (pid %ld)", pid);
    System system(Probe(addressOf(properties)), program, arguments, PID_FILE);
    return Watch(system, settingsOf(properties), daemon, restartsBefore()).run();
}
