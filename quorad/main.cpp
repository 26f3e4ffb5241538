// The directory client daemon: command line, process checks, signals.

#include "Daemon.h"
#include "Notify.h"
#include "Process.h"

#include <karst/Exceptions.h>
#include <karst/LockFile.h>
#include <karst/Text.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <thread>

#include <getopt.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace quorad;

constexpr const char* VERSION = "Velmorix-quorad 5.3.1-398";
constexpr const char* ROOT_FOLDER = "/var/velmorix";
// A directory that takes longer for its first look is announced as not available.
constexpr std::chrono::seconds FIRST_LOOK_LIMIT(30);
// Calls in progress may take as long as a domain controller does; the daemon's end may not.
constexpr std::chrono::seconds STOP_LIMIT(5);

struct Options {
    bool foreground = false;
    bool discardState = false;
};

[[noreturn]] void usage(const char* program) {
    std::fprintf(stderr,
                 "usage: %s [-dfv]\n"
                 " -d    Debug mode. Runs in foreground instead of forking like a normal daemon.\n"
                 " -f    Forget kept state before starting. Forces reload from the directory.\n"
                 " -v    Reports version and exits.\n",
                 program);
    std::exit(static_cast<int>(ExitCode::Usage));
}

Options parseOptions(int argc, char** argv) {
    Options options;
    opterr = 0;
    for (int option = 0; (option = ::getopt(argc, argv, "dfv")) != -1;) {
        switch (option) {
        case 'd':
            options.foreground = true;
            break;
        case 'f':
            options.discardState = true;
            break;
        case 'v':
            std::printf("%s\n", VERSION);
            std::exit(0);
        default:
            usage(argv[0]);
        }
    }
    if (optind < argc) {
        usage(argv[0]);
    }
    return options;
}

[[noreturn]] void onTerminate() {
    const char* const text = "Uncaught exception. Terminating program. Generating core dump.";
    const auto logger = tessa::Logger::get(LOGGER_NAME);
    KARST_LOG(logger, tessa::LOG_FAILURE, "%s", text);
    std::fprintf(stderr, "%s\n", text);
    std::abort();
}

// Signals are taken one by one by the main thread's waiting; no handler runs.
sigset_t blockSignals() {
    sigset_t signals;
    ::sigemptyset(&signals);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        ::sigaddset(&signals, signal);
    }
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    tessa::installSignalHandler(SIGPIPE, SIG_IGN);
    return signals;
}

// The signal that came within the time, or 0.
int awaitSignal(const sigset_t& signals, std::chrono::milliseconds limit) {
    const timespec time{static_cast<std::time_t>(limit.count() / 1000),
                        static_cast<long>(limit.count() % 1000) * 1000000L};
    const int signal = ::sigtimedwait(&signals, nullptr, &time);
    return signal < 0 ? 0 : signal;
}

bool ends(int signal) {
    return signal == SIGTERM || signal == SIGINT;
}

// Gives the directory a little time, so that the first client finds it loaded.
// False when the daemon was told to end meanwhile.
bool awaitDirectory(Daemon& daemon, const sigset_t& signals) {
    const auto deadline = std::chrono::steady_clock::now() + FIRST_LOOK_LIMIT;
    while (!daemon.awaitFirstLook(std::chrono::milliseconds(50)) &&
           std::chrono::steady_clock::now() < deadline) {
        if (ends(awaitSignal(signals, std::chrono::milliseconds(0)))) {
            return false;
        }
    }
    return true;
}

void work(Daemon& daemon, const sigset_t& signals) {
    for (;;) {
        const int signal = awaitSignal(signals, std::chrono::seconds(3600));
        if (signal == SIGHUP) {
            daemon.reconfigure();
        } else if (ends(signal)) {
            return;
        }
    }
}

// Ends the process although a call in progress does not: what is kept on disk survives that.
void limitStop() {
    std::thread([] {
        std::this_thread::sleep_for(STOP_LIMIT);
        const auto logger = tessa::Logger::get(LOGGER_NAME);
        KARST_LOG(logger, tessa::LOG_WARN, "A call in progress did not end; ending without it");
        ::unlink(tessa::QUORAD_SOCKET);
        ::unlink(PID_FILE);
        ::_exit(0);
    }).detach();
}

ExitCode run(const Options& options, Detached& starter) {
    const auto logger = tessa::Logger::get(LOGGER_NAME);
    const sigset_t signals = blockSignals();
    KARST_LOG(logger, tessa::LOG_INFORMATION, "Version: %s", VERSION);
    Daemon daemon(Places(), options.discardState);
    if (awaitDirectory(daemon, signals)) {
        daemon.serve();
        starter.ready();
        notifyServiceManager("READY=1");
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "=== quorad serves ===");
        work(daemon, signals);
    }
    notifyServiceManager("STOPPING=1");
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "=== Stopping quorad ===");
    limitStop();
    daemon.stop();
    return daemon.failed() ? ExitCode::FileSystem : ExitCode::Success;
}

ExitCode runGuarded(const Options& options, Detached& starter) {
    try {
        return run(options, starter);
    } catch (const tessa::BadDataException& error) {
        fail(ExitCode::Configuration, error.message());
    } catch (const std::exception& error) {
        fail(ExitCode::FileSystem, error.what());
    }
}

} // namespace

int main(int argc, char** argv) {
    std::set_terminate(onTerminate);
    // The configuration alone says how the domain is asked, not ldap.conf or the environment.
    ::setenv("LDAPNOINIT", "1", 1);
    tessa::Logger::logToStandardError();
    const Options options = parseOptions(argc, argv);
    if (::geteuid() != 0) {
        fail(ExitCode::Usage, std::string(argv[0]) + " must be run as root");
    }
    ::umask(0077);
    ensureFolder(ROOT_FOLDER, 0755, false);
    ensureFolder(STATE_DIRECTORY, 0700, true);
    if (::chdir(STATE_DIRECTORY) != 0) {
        fail(ExitCode::FileSystem,
             std::string("chdir(") + STATE_DIRECTORY + ") failed: " + tessa::errorText(errno));
    }
    Detached starter = Detached::foreground();
    if (!options.foreground) {
        starter = Detached::detach();
        tessa::Logger::logToSyslog("quorad");
    }
    const int lock = claimPidFile();
    tessa::Thread::setName("main");
    const ExitCode code = runGuarded(options, starter);
    tessa::VmxUnlock(lock);
    if (code != ExitCode::Success) {
        terminate(code);
    }
    return 0;
}
