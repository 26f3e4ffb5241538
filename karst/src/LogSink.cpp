#include "LogSink.h"

#include "karst/Thread.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include <poll.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

namespace tessa {

namespace {

constexpr std::chrono::milliseconds PATIENCE{1000};
constexpr std::array<LogLevelName, 7> LEVELS{{{"trace", 7},
                                              {"debug", 7},
                                              {"detail", 7},
                                              {"info", 6},
                                              {"warning", 4},
                                              {"error", 3},
                                              {"fatal", 2}}};

bool standardErrorIsJournal() {
    const char* const stream = std::getenv("JOURNAL_STREAM");
    struct stat status {};
    if (stream == nullptr || ::fstat(STDERR_FILENO, &status) != 0) {
        return false;
    }
    return stream == std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
}

std::string timeStamp() {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    tm parts{};
    ::gmtime_r(&now.tv_sec, &parts);
    std::array<char, 32> text{};
    std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &parts);
    std::array<char, 24> milliseconds{};
    std::snprintf(milliseconds.data(), milliseconds.size(), ".%03ldZ", now.tv_nsec / 1000000);
    return std::string(text.data()) + milliseconds.data();
}

/// Keeps a write to a closed pipe from ending a process that does not ignore SIGPIPE.
class BrokenPipeGuard {
public:
    BrokenPipeGuard() {
        sigset_t pending;
        ::sigpending(&pending);
        m_wasPending = ::sigismember(&pending, SIGPIPE) == 1;
        ::sigemptyset(&m_pipe);
        ::sigaddset(&m_pipe, SIGPIPE);
        ::pthread_sigmask(SIG_BLOCK, &m_pipe, &m_before);
    }
    ~BrokenPipeGuard() {
        if (m_broken && !m_wasPending) {
            const timespec now{};
            while (::sigtimedwait(&m_pipe, nullptr, &now) < 0 && errno == EINTR) {
            }
        }
        ::pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
    }
    BrokenPipeGuard(const BrokenPipeGuard&) = delete;
    BrokenPipeGuard& operator=(const BrokenPipeGuard&) = delete;

    void broken() { m_broken = true; }

private:
    sigset_t m_pipe{};
    sigset_t m_before{};
    bool m_wasPending = false;
    bool m_broken = false;
};

/// Waits until standard error takes bytes or has an error to tell.
bool writable(std::chrono::steady_clock::time_point deadline) {
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd entry{STDERR_FILENO, POLLOUT, 0};
        const int ready = ::poll(&entry, 1, std::max(0, static_cast<int>(left.count())));
        if (ready > 0) {
            return true;
        }
        if (ready == 0 || errno != EINTR) {
            return false;
        }
    }
}

} // namespace

const LogLevelName& logLevelName(int level) {
    return LEVELS.at(static_cast<std::size_t>(std::clamp(level, 0, int{LOG_FATAL})));
}

/// Returns how many bytes were taken; not all of them when the time was over or an error came. A
/// pipe that can take anything takes PIPE_BUF bytes without blocking, so no write is larger.
std::size_t StandardErrorStream::put(std::string_view text, std::chrono::milliseconds patience) {
    const auto start = std::chrono::steady_clock::now();
    std::size_t taken = 0;
    BrokenPipeGuard guard;
    while (taken < text.size() && writable(start + (taken == 0 ? patience : PATIENCE))) {
        const std::string_view piece = text.substr(taken, PIPE_BUF);
        const ssize_t written = ::write(STDERR_FILENO, piece.data(), piece.size());
        if (written > 0) {
            taken += static_cast<std::size_t>(written);
        } else if (written == 0 || errno != EINTR) {
            if (errno == EPIPE) {
                guard.broken();
            }
            break;
        }
    }
    return taken;
}

void StandardErrorStream::write(std::string_view prefix, std::string_view line) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::string text;
    if (m_lost > 0) {
        text = m_midLine ? "\n" : "";
        text.append(prefix).append(std::to_string(m_lost));
        text.append(" log records lost: standard error did not take them\n");
    }
    const std::size_t note = text.size();
    text.append(prefix).append(line).append(1, '\n');
    const std::size_t taken = put(text, m_lost > 0 ? std::chrono::milliseconds(0) : PATIENCE);
    if (taken >= note) {
        m_lost = 0;
    }
    if (taken < text.size()) {
        ++m_lost;
    }
    if (taken > 0) {
        m_midLine = text[taken - 1] != '\n';
    }
}

LogSink& LogSink::instance() {
    static auto* const sink = new LogSink;
    return *sink;
}

void LogSink::useStandardError() {
    m_destination = standardErrorIsJournal() ? Destination::JOURNAL : Destination::STANDARD_ERROR;
}

void LogSink::useSyslog(const std::string& program) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_programs.empty() || m_programs.back() != program) {
        m_programs.push_back(program);
    }
    ::openlog(m_programs.back().c_str(), LOG_PID, LOG_DAEMON);
    m_destination = Destination::SYSLOG;
}

void LogSink::write(const LogRecord& record) {
    const LogLevelName& level = logLevelName(record.level);
    const std::string place =
        std::string(record.file) + ":" + std::to_string(record.line) + " " + record.function + ": ";
    const Destination destination = m_destination;
    if (destination == Destination::SYSLOG) {
        ::syslog(level.priority, "%s%s", record.level <= LOG_DEBUGGING ? place.c_str() : "",
                 record.message.c_str());
        return;
    }
    const std::string line = std::string(level.word) + " [" + Thread::name() + "] " +
                             record.logger + " " + place + record.message;
    m_stream.write(destination == Destination::JOURNAL ? "<" + std::to_string(level.priority) + ">"
                                                       : timeStamp() + " ",
                   line);
}

} // namespace tessa
