#pragma once

#include "karst/Exceptions.h"

#include <boost/shared_ptr.hpp>

#include <atomic>
#include <string>

namespace tessa {

class Properties;

/// Severity of a log record. Numbers are part of the configuration and of the documents.
enum LogLevel : int {
    LOG_TRACE = 0,
    LOG_DEBUGGING = 1,
    LOG_DETAIL = 2,
    LOG_INFORMATION = 3,
    LOG_WARN = 4,
    LOG_FAILURE = 5,
    LOG_FATAL = 6,
};

/// A named logger. Below its threshold a record costs one comparison and no formatting.
///
/// Names form a tree by their points: "orrisd.netgroup" takes the threshold of "orrisd" unless it
/// has one of its own. Thresholds are the configuration keys "log.level" (all loggers, default 3)
/// and "log.level.NAME", as a number from 0 to 6 or a word (trace, debug, info, warn, error,
/// fatal). Loggers live as long as the process; all operations are thread-safe.
class Logger {
public:
    /// The logger of that name, made on first use.
    static boost::shared_ptr<Logger> get(const std::string& name);

    /// Where records go: standard error (with "<N>" priorities when that is the journal; otherwise
    /// with time, level, thread and logger name), or syslog under the program's name.
    static void logToStandardError();
    static void logToSyslog(const std::string& program);
    /// Applies the thresholds of a configuration to all loggers, those made later included.
    static void configure(const Properties& properties);

    explicit Logger(std::string name);
    const std::string& name() const { return m_name; }
    bool enabled(int level) const { return level >= m_threshold.load(std::memory_order_relaxed); }
    void setThreshold(int level) { m_threshold.store(level, std::memory_order_relaxed); }

    /// Writes one record. Unprintable bytes of the message are shown as \xNN. Call it through
    /// KARST_LOG, which fills in the place and tests the level first.
    void log(int level, const char* file, unsigned line, const char* function, const char* format,
             ...) __attribute__((format(printf, 6, 7)));

private:
    std::string m_name;
    std::atomic<int> m_threshold;
};

} // namespace tessa

/// Logs a printf-style message: KARST_LOG(logger, tessa::LOG_WARN, "Cannot stat '%s'", name).
#define KARST_LOG(logger, level, ...)                                                              \
    do {                                                                                           \
        const auto& karstLogger = (logger);                                                        \
        if (karstLogger->enabled(level)) {                                                         \
            karstLogger->log((level), tessa::baseName(__FILE__), __LINE__, __func__, __VA_ARGS__); \
        }                                                                                          \
    } while (false)
