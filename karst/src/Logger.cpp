#include "karst/Logger.h"

#include "karst/Properties.h"
#include "karst/Text.h"
#include "karst/Thread.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <mutex>
#include <vector>

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

namespace tessa {

namespace {

constexpr int DEFAULT_THRESHOLD = LOG_INFORMATION;
constexpr std::size_t LONGEST_MESSAGE = 16U * 1024;
constexpr const char* LEVEL_KEY = "log.level";

struct LevelName {
    const char* word;
    int priority; ///< of syslog and the journal
};
constexpr std::array<LevelName, 7> LEVELS{{{"trace", 7},
                                           {"debug", 7},
                                           {"detail", 7},
                                           {"info", 6},
                                           {"warning", 4},
                                           {"error", 3},
                                           {"fatal", 2}}};

const LevelName& levelName(int level) {
    return LEVELS[static_cast<std::size_t>(std::min(std::max(level, 0), int{LOG_FATAL}))];
}

/// All loggers and what configures them. Never destroyed: threads may log while the process ends.
struct Registry {
    std::mutex mutex;
    std::map<std::string, boost::shared_ptr<Logger>> loggers;
    std::map<std::string, int> thresholds; ///< by logger name, "" for all
    std::string syslogName;
};

Registry& registry() {
    static auto* const instance = new Registry;
    return *instance;
}

std::atomic<bool> useSyslog{false};

/// The threshold of the longest configured name that the logger's name lies under.
int thresholdOf(const std::map<std::string, int>& thresholds, std::string name) {
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

int parseLevel(const std::string& text) {
    for (int level = 0; level < static_cast<int>(LEVELS.size()); ++level) {
        if (equalsIgnoreCase(text, LEVELS[static_cast<std::size_t>(level)].word) ||
            text == std::to_string(level)) {
            return level;
        }
    }
    return equalsIgnoreCase(text, "warn") ? int{LOG_WARN} : -1;
}

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
    std::array<char, 8> milliseconds{};
    std::snprintf(milliseconds.data(), milliseconds.size(), ".%03ldZ", now.tv_nsec / 1000000);
    return std::string(text.data()) + milliseconds.data();
}

std::string formatMessage(const char* format, va_list arguments) {
    std::array<char, 512> shortText{};
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(shortText.data(), shortText.size(), format, arguments);
    std::string message;
    if (length < 0) {
        message = format;
    } else if (static_cast<std::size_t>(length) < shortText.size()) {
        message.assign(shortText.data(), static_cast<std::size_t>(length));
    } else {
        message.resize(static_cast<std::size_t>(length) + 1);
        std::vsnprintf(message.data(), message.size(), format, again);
        message.pop_back();
    }
    va_end(again);
    if (message.size() > LONGEST_MESSAGE) {
        message.resize(LONGEST_MESSAGE);
        message += "...";
    }
    return printable(message);
}

/// One write, so that records of several threads never mix. A full pipe or a closed terminal loses
/// the record: logging must neither stop nor end the daemon.
void writeStandardError(const std::string& record) {
    const ssize_t ignored = ::write(STDERR_FILENO, record.data(), record.size());
    static_cast<void>(ignored);
}

} // namespace

Logger::Logger(std::string name) : m_name(std::move(name)), m_threshold(DEFAULT_THRESHOLD) {}

boost::shared_ptr<Logger> Logger::get(const std::string& name) {
    Registry& all = registry();
    const std::lock_guard<std::mutex> lock(all.mutex);
    auto& entry = all.loggers[name];
    if (!entry) {
        entry.reset(new Logger(name));
        entry->setThreshold(thresholdOf(all.thresholds, name));
    }
    return entry;
}

void Logger::logToStandardError() {
    useSyslog = false;
}

void Logger::logToSyslog(const std::string& program) {
    Registry& all = registry();
    const std::lock_guard<std::mutex> lock(all.mutex);
    all.syslogName = program; // openlog keeps the pointer
    ::openlog(all.syslogName.c_str(), LOG_PID, LOG_DAEMON);
    useSyslog = true;
}

void Logger::configure(const Properties& properties) {
    std::map<std::string, int> thresholds;
    std::vector<std::string> malformed;
    for (const auto& [key, value] : properties.withPrefix(LEVEL_KEY)) {
        const std::string name = key.substr(std::string_view(LEVEL_KEY).size());
        const int level = parseLevel(value);
        if (level < 0) {
            malformed.push_back(key + ": " + value);
        } else if (name.empty()) {
            thresholds[""] = level;
        } else if (name.front() == '.') {
            thresholds[name.substr(1)] = level;
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
                  "not a log level (0 to 6, or trace, debug, detail, info, "
                  "warning, error, fatal), ignored: %s",
                  text.c_str());
    }
}

void Logger::log(int level, const char* file, unsigned line, const char* function,
                 const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::string message = formatMessage(format, arguments);
    va_end(arguments);
    const std::string place = std::string(file) + ":" + std::to_string(line);
    if (useSyslog) {
        if (level <= LOG_DEBUGGING) {
            message = place + " " + function + ": " + message;
        }
        ::syslog(levelName(level).priority, "%s", message.c_str());
        return;
    }
    static const bool journal = standardErrorIsJournal();
    std::string record =
        journal ? "<" + std::to_string(levelName(level).priority) + ">"
                : timeStamp() + " " + levelName(level).word + " [" + Thread::name() + "] ";
    record += m_name + " " + place + " " + function + ": " + message + "\n";
    writeStandardError(record);
}

} // namespace tessa
