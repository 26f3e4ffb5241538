#include "System.h"

#include <karst/Text.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace orrisguard {

namespace {

constexpr int EXEC_FAILED = 127;
constexpr std::chrono::milliseconds POLL_INTERVAL{200};

std::string baseName(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

// Name that the system shows for a process that runs the program.
std::string commandOf(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/comm");
    std::string name;
    std::getline(file, name);
    return name;
}

[[noreturn]] void become(const std::string& program, std::vector<std::string> arguments,
                         int report) {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    std::vector<char*> pointers;
    pointers.reserve(arguments.size() + 1);
    for (std::string& argument : arguments) {
        pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    ::execv(program.c_str(), pointers.data());
    const int error = errno;
    // Should the report be lost, the exit status still tells.
    while (::write(report, &error, sizeof(error)) < 0 && errno == EINTR) {
    }
    _exit(EXEC_FAILED);
}

} // namespace

Process processOf(pid_t pid) {
    constexpr int STATE = 0; // fields behind the name, which is in parentheses
    constexpr int START_TIME = 19;
    Process process{pid, 0};
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    // The name may hold any character, line ends too. The process may end at any moment: reading
    // fails then, which a stream reports by its state but a bare stream buffer by an exception.
    std::string text;
    std::getline(file, text, '\0');
    const std::size_t behind = text.rfind(')');
    if (behind == std::string::npos) {
        return process;
    }
    std::istringstream fields(text.substr(behind + 1));
    std::string field;
    for (int i = 0; fields >> field; ++i) {
        if (i == STATE && (field == "Z" || field == "X")) {
            return process;
        }
        if (i == START_TIME) {
            process.started = std::strtoull(field.c_str(), nullptr, 10);
        }
    }
    return process;
}

System::System(Probe probe, std::string program, std::vector<std::string> arguments,
               std::string pidFile)
    : m_probe(probe), m_program(std::move(program)), m_arguments(std::move(arguments)),
      m_pidFile(std::move(pidFile)) {}

void System::sleep(std::chrono::seconds time) {
    std::this_thread::sleep_for(time);
}

bool System::waitForEnd(const Process& process, std::chrono::seconds time) {
    const Time deadline = now() + time;
    // Tells the end at once. Without it the process is looked for now and then.
    const int descriptor = static_cast<int>(::syscall(SYS_pidfd_open, process.pid, 0));
    bool gone = !(processOf(process.pid) == process);
    while (!gone && now() < deadline) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now()) +
                          std::chrono::milliseconds(1);
        struct pollfd waiting {};
        waiting.fd = descriptor;
        waiting.events = POLLIN;
        ::poll(&waiting, 1,
               static_cast<int>((descriptor < 0 ? std::min(left, POLL_INTERVAL) : left).count()));
        gone = !(processOf(process.pid) == process);
    }
    if (descriptor >= 0) {
        ::close(descriptor);
    }
    return gone;
}

Answer System::ask(std::chrono::seconds timeout) {
    return m_probe.ask(timeout);
}

void System::signal(const Process& process, int number) {
    if (processOf(process.pid) == process) {
        ::kill(process.pid, number);
    }
}

void System::stepAside() {
    const pid_t child = ::fork();
    if (child > 0) {
        _exit(0);
    }
    if (child < 0) {
        KARST_LOG(tessa::Logger::get(LOGGER_NAME), tessa::LOG_WARN, "Cannot fork: %s",
                  tessa::errorText(errno).c_str());
    }
}

Process System::running() {
    std::ifstream file(m_pidFile);
    long pid = 0;
    if (!(file >> pid) || pid <= 1) {
        return {};
    }
    const Process process = processOf(static_cast<pid_t>(pid));
    // The system cuts names to 15 bytes.
    const bool isDaemon = commandOf(process.pid) == baseName(m_program).substr(0, 15);
    return process.exists() && isDaemon ? process : Process{};
}

bool System::launch(int restarts) {
    int report[2];
    if (::pipe2(report, O_CLOEXEC) != 0) {
        return false;
    }
    std::vector<std::string> arguments{m_program};
    arguments.insert(arguments.end(), m_arguments.begin(), m_arguments.end());
    ::setenv(RESTARTS, std::to_string(restarts).c_str(), 1);
    // A daemon that detaches itself is to become a child of this process, which learns of its end.
    ::prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);
    m_lastExitWasGood = false;
    const pid_t child = ::fork();
    if (child == 0) {
        ::setsid();
        become(m_program, arguments, report[1]);
    }
    ::close(report[1]);
    int error = 0;
    bool started = child > 0;
    // The other end closes when the program has taken over.
    if (::read(report[0], &error, sizeof(error)) > 0) {
        started = false;
        KARST_LOG(tessa::Logger::get(LOGGER_NAME), tessa::LOG_FAILURE, "Cannot run '%s': %s",
                  m_program.c_str(), tessa::errorText(error).c_str());
    }
    ::close(report[0]);
    return started;
}

Launched System::launched() {
    int status = 0;
    pid_t ended = 0;
    while ((ended = ::waitpid(-1, &status, WNOHANG)) > 0) {
        // The watchdog of a daemon that ends is killed, and says nothing about the daemon.
        if (WIFEXITED(status)) {
            m_lastExitWasGood = WEXITSTATUS(status) == 0;
        }
    }
    if (ended == 0) {
        return Launched::ALIVE;
    }
    return m_lastExitWasGood ? Launched::ENDED : Launched::FAILED;
}

} // namespace orrisguard
