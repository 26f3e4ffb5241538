// The way into the daemon: command line, checks, files, detaching, watchdog; then service.
#include "common/ConfigKeys.h"
#include "common/Globals.h"
#include "common/NisException.h"
#include "daemon/Files.h"
#include "daemon/RunServer.h"
#include "daemon/Terminate.h"
#include "daemon/Watchdog.h"
#include "server/ADNisServer.h"

#include <karst/Exceptions.h>
#include <karst/LockFile.h>
#include <karst/Text.h>
#include <karst/Thread.h>

#include <boost/make_shared.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace nis {

namespace {

constexpr const char* VERSION = "Velmorix-nis 5.3.1-398";
constexpr int THREADS_UNSUPPORTED = 4;
constexpr mode_t ONLY_OWNER = 0177;

struct Options {
    bool foreground = false;
    bool flush = false;
};

/// Logs and prints why the daemon cannot start, and ends.
[[noreturn]] void giveUp(const std::string& text, ExitCode code) {
    KARST_LOG(logger, tessa::LOG_FAILURE, "%s", text.c_str());
    std::fprintf(stderr, "%s\n", text.c_str());
    terminate(code);
}

/// Descriptors 0 to 2 that the caller closed would be given to files of ours, and messages meant
/// for standard error written into them.
void insureStandardStreams() {
    int descriptor = 0;
    do {
        descriptor = open("/dev/null", O_RDWR | O_CLOEXEC);
    } while (descriptor >= 0 && descriptor <= STDERR_FILENO && fcntl(descriptor, F_SETFD, 0) == 0);
    if (descriptor > STDERR_FILENO) {
        close(descriptor);
    }
}

[[noreturn]] void usage(const char* program) {
    std::fprintf(stderr,
                 "usage: %s [-dfv]\n"
                 " -d    Debug mode. Runs in foreground instead of forking like a normal daemon.\n"
                 " -f    Flush cache before starting. Forces reload from AD.\n"
                 " -v    Reports version and exits.\n",
                 program);
    terminate(EXIT_USAGE);
}

Options parseOptions(int argc, char** argv) {
    Options options;
    opterr = 0;
    for (int option = 0; (option = getopt(argc, argv, "dfv")) != -1;) {
        switch (option) {
        case 'd':
            options.foreground = true;
            break;
        case 'f':
            options.flush = true;
            break;
        case 'v':
            std::printf("%s\n", VERSION);
            terminate(EXIT_OK);
        default:
            usage(argv[0]);
        }
    }
    if (optind < argc) {
        usage(argv[0]);
    }
    return options;
}

void changeInto(const char* folder) {
    if (chdir(folder) != 0) {
        giveUp(std::string("chdir(") + folder + ") failed: " + tessa::errorText(errno),
               EXIT_FILE_SYSTEM);
    }
}

void enterCacheFolder() {
    changeInto(WORKING_DIR);
    if (access(NIS_CACHE_DIR, F_OK) != 0 && errno == ENOENT && mkdir(NIS_CACHE_DIR, 0700) != 0) {
        giveUp(std::string("mkdir(") + NIS_CACHE_DIR + ") failed: " + tessa::errorText(errno),
               EXIT_FILE_SYSTEM);
    }
    changeInto(NIS_CACHE_DIR);
}

/// The child goes on. Standard error stays, so that later fatal messages still reach the caller.
void detach() {
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child < 0) {
        KARST_LOG(logger, tessa::LOG_FAILURE, "fork failed: %s", tessa::errorText(errno).c_str());
        terminate(EXIT_OPERATING_SYSTEM);
    }
    if (child > 0) {
        _exit(EXIT_OK);
    }
    setsid();
    close(STDIN_FILENO);
    close(STDOUT_FILENO);
    const int null = open("/dev/null", O_RDWR);
    if (null < 0 || dup(null) < 0) {
        giveUp("open(/dev/null) failed: " + tessa::errorText(errno), EXIT_FILE_SYSTEM);
    }
}

int takeLock() {
    const tessa::LockResult lock = tessa::VmxLock(ADNIS_LOCKFILE);
    const int problem = errno;
    const auto failure = [problem](const char* step) {
        return std::string(step) + " lock file(" + ADNIS_LOCKFILE +
               ") failed: " + tessa::errorText(problem);
    };
    if (lock.descriptor < 0) {
        giveUp(failure("create"), EXIT_FILE_SYSTEM);
    }
    if (lock.status < 0) {
        giveUp(failure("lock"), EXIT_FILE_SYSTEM);
    }
    if (lock.status == 0) {
        giveUp("orrisd is already running", EXIT_USAGE);
    }
    return lock.descriptor;
}

bool writePidFile() {
    const int file = open(ADNIS_PIDFILE, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (file < 0) {
        return false;
    }
    ownPidFile();
    const std::string pid = std::to_string(getpid());
    const bool written = write(file, pid.data(), pid.size()) == static_cast<ssize_t>(pid.size());
    return close(file) == 0 && written;
}

void loadConfiguration() {
    const auto config = boost::make_shared<tessa::Properties>();
    config->load(CONFIG_FILE);
    setConfig(config);
    tessa::Logger::configure(*config);
}

std::time_t startUpDeadline() {
    const std::time_t now = std::time(nullptr);
    const long delay = getConfig()->getTime(PROP_STARTUP_TIME, DEFAULT_STARTUP_TIME);
    return delay > std::numeric_limits<std::time_t>::max() - now
               ? std::numeric_limits<std::time_t>::max()
               : now + delay;
}

/// @return the process's exit status
int serve(bool flush) {
    try {
        return RunServer(flush);
    } catch (const tessa::NotFoundException& e) {
        KARST_LOG(logger, tessa::LOG_FAILURE, "Initialize MapSets for NIS server ERROR: %s",
                  e.what());
        return EXIT_FILE_SYSTEM;
    } catch (ZeroPointer& e) {
        setNisServer(nullptr);
        KARST_LOG(logger, tessa::LOG_FAILURE, "Get MapList from NIS server ERROR: %s",
                  e.msg().c_str());
        return EXIT_UNKNOWN;
    } catch (const tessa::BadDataException& e) {
        setNisServer(nullptr);
        KARST_LOG(logger, tessa::LOG_FAILURE, "Create connection with quorad ERROR: %s", e.what());
        return EXIT_QUORAD;
    }
}

/// Everything from the configuration to the release of the lock.
int run(int argc, char** argv, bool flush, int lockFile) {
    loadConfiguration();
    const pid_t watchdog =
        getConfig()->getBool(PROP_WATCH_ENABLED, true) ? startWatchdog(argc, argv) : NO_WATCHDOG;
    tessa::Thread::setName("main");
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "=== Starting orrisd ===");
    KARST_LOG(logger, tessa::LOG_INFORMATION, "Version: %s", VERSION);
    initializedBy = startUpDeadline();
    const int status = serve(flush);
    setNisServer(nullptr); // caches close while everything they log through is there
    setADInterface(nullptr);
    tessa::Thread::SetThreadsActive(false);
    killWatchdog(watchdog);
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "=== Stopping orrisd ===");
    tessa::VmxUnlock(lockFile);
    setConfig(nullptr);
    return status;
}

} // namespace

} // namespace nis

int main(int argc, char** argv) {
    using namespace nis;
    installTerminateHandlers();
    insureStandardStreams();
    logger = tessa::Logger::get(ORRISD_LOGGER_NAME);
    if (!tessa::Thread::ThreadsSupported()) {
        KARST_LOG(logger, tessa::LOG_FATAL, "Velmora Quorvane %s requires thread support", argv[0]);
        return THREADS_UNSUPPORTED;
    }
    const Options options = parseOptions(argc, argv);
    if (!options.foreground) {
        tessa::Logger::logToSyslog("orrisd");
    }
    if (geteuid() != 0) {
        giveUp(std::string(argv[0]) + " must be run as root", EXIT_USAGE);
    }
    enterCacheFolder();
    umask(ONLY_OWNER);
    if (!options.foreground) {
        detach();
    }
    registerCleanUp();
    const int lockFile = takeLock();
    if (!writePidFile()) {
        KARST_LOG(logger, tessa::LOG_FAILURE, "Failure while writing to '%s'. Cannot continue.",
                  ADNIS_PIDFILE);
        return EXIT_FILE_SYSTEM;
    }
    return run(argc, argv, options.flush, lockFile);
}
