#pragma once

#include "karst/Logger.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <list>
#include <mutex>
#include <string>
#include <string_view>

namespace tessa {

/// One record on its way out. The message is printable already.
struct LogRecord {
    int level;
    const std::string& logger;
    const char* file;
    unsigned line;
    const char* function;
    const std::string& message;
};

/// Name of a level and its priority for syslog and the journal.
struct LogLevelName {
    const char* word;
    int priority;
};
/// Levels outside 0 to 6 count as the nearest.
const LogLevelName& logLevelName(int level);

/// Standard error as the place of log lines. A reader that went away or does not read can neither
/// end nor stop the process: what is not taken within a second is lost, and so is, without further
/// waiting, all that follows until the reader takes again. Then the number of lost records is told.
class StandardErrorStream {
public:
    /// Writes one line, in one piece where it is not longer than a pipe takes at once. Thread-safe.
    void write(std::string_view prefix, std::string_view line);

private:
    static std::size_t put(std::string_view text, std::chrono::milliseconds patience);

    std::mutex m_mutex; ///< lines of several threads never mix
    unsigned long m_lost = 0;
    bool m_midLine = false; ///< a line was left unfinished
};

/// Where all log records of the process go. Lives for ever: threads may log while the process ends.
/// Thread-safe.
class LogSink {
public:
    static LogSink& instance();

    void useStandardError();
    void useSyslog(const std::string& program);
    void write(const LogRecord& record);

private:
    LogSink() { useStandardError(); }

    enum class Destination { STANDARD_ERROR, JOURNAL, SYSLOG };
    std::atomic<Destination> m_destination{Destination::STANDARD_ERROR};
    StandardErrorStream m_stream;
    std::mutex m_mutex;
    std::list<std::string> m_programs; ///< guarded by m_mutex; syslog keeps a pointer to the last
};

} // namespace tessa
