#pragma once

#include <karst/Logger.h>
#include <karst/Mutex.h>

#include <boost/shared_ptr.hpp>

#include <chrono>
#include <string>

namespace quorad {

inline constexpr const char* LOGGER_NAME = "quorad";

/// Passes what happens at the socket on to the log, so that a client that keeps failing cannot fill
/// it: of a burst the first records are written and the rest is counted. Thread-safe.
class Reporter {
public:
    static constexpr unsigned BURST = 10; ///< records written in a period
    static constexpr std::chrono::seconds PERIOD{60};

    explicit Reporter(boost::shared_ptr<tessa::Logger> logger) : m_logger(std::move(logger)) {}
    void report(const std::string& text);
    /// Says how many records were held back, once their period is over.
    void flush() { flush(std::chrono::steady_clock::now()); }
    void flush(std::chrono::steady_clock::time_point now);

private:
    const boost::shared_ptr<tessa::Logger> m_logger;
    tessa::Mutex m_mutex;
    std::chrono::steady_clock::time_point m_periodEnd KARST_GUARDED_BY(m_mutex);
    unsigned m_count KARST_GUARDED_BY(m_mutex) = 0;
};

/// Tells the log when the directory stops answering and when it answers again: once for each
/// change, however many calls fail in between. Thread-safe.
class DirectoryHealth {
public:
    explicit DirectoryHealth(boost::shared_ptr<tessa::Logger> logger)
        : m_logger(std::move(logger)) {}
    void succeeded();
    void failed(const std::string& reason);

private:
    const boost::shared_ptr<tessa::Logger> m_logger;
    tessa::Mutex m_mutex;
    bool m_failing KARST_GUARDED_BY(m_mutex) = false;
};

} // namespace quorad
