#include "karst/Logger.h"

#include "LogSink.h"
#include "karst/Properties.h"
#include "karst/Text.h"

#include <boost/make_shared.hpp>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <exception>
#include <map>
#include <mutex>
#include <vector>

namespace tessa {

namespace {

constexpr int DEFAULT_THRESHOLD = LOG_INFORMATION;
constexpr std::size_t LONGEST_MESSAGE = 16U * 1024;
constexpr std::string_view LEVEL_KEY = "log.level";

/// All loggers and what configures them. Never destroyed: threads may log while the process ends.
struct Registry {
    std::mutex mutex;
    std::map<std::string, boost::shared_ptr<Logger>> loggers;
    std::map<std::string, int> thresholds; ///< by lower-cased logger name, "" for all
};

Registry& registry() {
    static auto* const instance = new Registry;
    return *instance;
}

/// The threshold of the longest configured name that the logger's name lies under. Letter case does
/// not count, since it does not count in configuration keys.
int thresholdOf(const std::map<std::string, int>& thresholds, std::string_view loggerName) {
    std::string name = lower(loggerName);
    for (;;) {
        if (const auto found = thresholds.find(name); found != thresholds.end()) {
            return found->second;
        }
        if (name.empty()) {
            return DEFAULT_THRESHOLD;
        }
        const std::size_t point = name.rfind('.');
        name.resize(point == std::string::npos ? 0 : point);
    }
}

/// A level by its number or word, -1 for anything else.
int parseLevel(std::string_view text) {
    for (int level = LOG_TRACE; level <= LOG_FATAL; ++level) {
        if (equalsIgnoreCase(text, logLevelName(level).word) || text == std::to_string(level)) {
            return level;
        }
    }
    return equalsIgnoreCase(text, "warn") ? int{LOG_WARN} : -1;
}

__attribute__((format(printf, 1, 0))) std::string formatMessage(const char* format,
                                                                va_list arguments) {
    std::array<char, 512> shortText{};
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(shortText.data(), shortText.size(), format, arguments);
    std::string message;
    if (length < 0) {
        message = format; // an argument that cannot be shown must not hide the rest
    } else if (static_cast<std::size_t>(length) < shortText.size()) {
        message.assign(shortText.data(), static_cast<std::size_t>(length));
    } else {
        message.resize(std::min(static_cast<std::size_t>(length), LONGEST_MESSAGE) + 1);
        std::vsnprintf(message.data(), message.size(), format, again);
        message.pop_back();
        if (static_cast<std::size_t>(length) > LONGEST_MESSAGE) {
            message += "...";
        }
    }
    va_end(again);
    return printable(message);
}

} // namespace

Logger::Logger(std::string name) : m_name(std::move(name)), m_threshold(DEFAULT_THRESHOLD) {}

boost::shared_ptr<Logger> Logger::get(const std::string& name) {
    Registry& all = registry();
    const std::lock_guard<std::mutex> lock(all.mutex);
    auto& entry = all.loggers[name];
    if (!entry) {
        entry = boost::make_shared<Logger>(name);
        entry->setThreshold(thresholdOf(all.thresholds, name));
    }
    return entry;
}

void Logger::logToStandardError() {
    LogSink::instance().useStandardError();
}

void Logger::logToSyslog(const std::string& program) {
    LogSink::instance().useSyslog(program);
}

void Logger::configure(const Properties& properties) {
    std::map<std::string, int> thresholds;
    std::vector<std::string> malformed;
    for (const auto& [key, value] : properties.withPrefix(LEVEL_KEY)) {
        const std::string name = lower(key.substr(LEVEL_KEY.size()));
        if (!name.empty() && name.front() != '.') {
            continue; // another key that only begins alike
        }
        const int level = parseLevel(value);
        if (level < 0) {
            malformed.push_back(key + ": " + value);
        } else {
            thresholds[name.empty() ? name : name.substr(1)] = level;
        }
    }
    Registry& all = registry();
    {
        const std::lock_guard<std::mutex> lock(all.mutex);
        all.thresholds = std::move(thresholds);
        for (const auto& [name, logger] : all.loggers) {
            logger->setThreshold(thresholdOf(all.thresholds, name));
        }
    }
    for (const std::string& text : malformed) {
        KARST_LOG(get("karst"), LOG_WARN,
                  "not a log level (0 to 6, or trace, debug, detail, info, warn, error, fatal), "
                  "ignored: %s",
                  text.c_str());
    }
}

void Logger::log(int level, const char* file, unsigned line, const char* function,
                 const char* format, ...) {
    const int callersErrno = errno; // callers log first and look at errno afterwards
    va_list arguments;
    va_start(arguments, format);
    try {
        const std::string message = formatMessage(format, arguments);
        LogSink::instance().write({level, m_name, file, line, function, message});
    } catch (const std::exception&) {
        // No memory: the record is lost, but what the caller is doing goes on.
    }
    va_end(arguments);
    errno = callersErrno;
}

} // namespace tessa
