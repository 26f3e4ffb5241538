#include "karst/Properties.h"

#include "karst/Logger.h"
#include "karst/Text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <optional>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tessa {

namespace {

constexpr std::string_view BYTE_ORDER_MARK = "\xEF\xBB\xBF";
constexpr std::string_view LIST_SEPARATORS = ", \t\r\n";

const boost::shared_ptr<Logger>& karstLog() {
    // Never destroyed: configuration may be read while the process ends.
    static const auto& log = *new boost::shared_ptr<Logger>(Logger::get("karst"));
    return log;
}

/// Reads a whole regular file. Empty on success, else what is wrong.
std::string readFile(const std::string& path, std::string& text) {
    // Without O_NONBLOCK a pipe in the place of the file would hang the daemon.
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (descriptor < 0) {
        return errorText(errno);
    }
    std::string problem;
    struct stat status {};
    if (::fstat(descriptor, &status) != 0) {
        problem = errorText(errno);
    } else if (!S_ISREG(status.st_mode)) {
        problem = "not a regular file";
    }
    std::array<char, 16384> block{};
    while (problem.empty()) {
        const ssize_t got = ::read(descriptor, block.data(), block.size());
        if (got == 0) {
            break;
        }
        if (got > 0) {
            text.append(block.data(), static_cast<std::size_t>(got));
        } else if (errno != EINTR) {
            problem = errorText(errno);
        }
    }
    ::close(descriptor);
    return problem;
}

/// Seconds in one unit of a time value, 0 for a letter that is no unit.
long unitSeconds(std::string_view unit) {
    if (unit.empty() || equalsIgnoreCase(unit, "s")) {
        return 1;
    }
    if (equalsIgnoreCase(unit, "m")) {
        return 60;
    }
    if (equalsIgnoreCase(unit, "h")) {
        return 60L * 60;
    }
    return equalsIgnoreCase(unit, "d") ? 24L * 60 * 60 : 0;
}

std::optional<long> parseTime(std::string_view text) {
    long number = 0;
    const char* const end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, number);
    if (parsed.ec != std::errc()) {
        return std::nullopt;
    }
    const long unit =
        unitSeconds(trimWhiteSpace({parsed.ptr, static_cast<std::size_t>(end - parsed.ptr)}));
    long seconds = 0;
    if (unit == 0 || __builtin_mul_overflow(number, unit, &seconds)) {
        return std::nullopt;
    }
    return seconds;
}

} // namespace

bool Properties::load(const std::string& path) {
    std::string text;
    const std::string problem = readFile(path, text);
    if (!problem.empty()) {
        KARST_LOG(karstLog(), LOG_WARN, "Cannot read configuration file '%s': %s", path.c_str(),
                  problem.c_str());
        return false;
    }
    parse(text, path);
    return true;
}

void Properties::parse(std::string_view text, const std::string& origin) {
    if (text.substr(0, BYTE_ORDER_MARK.size()) == BYTE_ORDER_MARK) {
        text.remove_prefix(BYTE_ORDER_MARK.size());
    }
    unsigned long number = 0;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        const std::string_view line = trimWhiteSpace(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
        ++number;
        if (line.empty() || line.front() == '#') {
            continue;
        }
        const std::size_t colon = line.find(':');
        const std::string_view key = trimWhiteSpace(line.substr(0, std::min(colon, line.size())));
        if (colon == std::string_view::npos || key.empty() ||
            line.find('\0') != std::string_view::npos) {
            KARST_LOG(karstLog(), LOG_WARN, "%s:%lu: not a 'key: value' line, skipped: %s",
                      origin.c_str(), number, printable(line.substr(0, 200)).c_str());
            continue;
        }
        set(key, std::string(trimWhiteSpace(line.substr(colon + 1))));
    }
}

void Properties::set(std::string_view key, std::string value) {
    const Lock lock(m_mutex);
    m_entries[lower(key)] = Entry{std::string(key), std::move(value)};
}

bool Properties::exists(std::string_view key) const {
    const Lock lock(m_mutex);
    return m_entries.count(lower(key)) != 0;
}

std::string Properties::get(std::string_view key, const std::string& fallback) const {
    const Lock lock(m_mutex);
    const auto found = m_entries.find(lower(key));
    return found == m_entries.end() ? fallback : found->second.value;
}

bool Properties::getBool(std::string_view key, bool fallback) const {
    const std::string value = lower(trimWhiteSpace(get(key)));
    if (value == "true" || value == "yes" || value == "1") {
        return true;
    }
    if (value == "false" || value == "no" || value == "0") {
        return false;
    }
    return fallback;
}

long Properties::getTime(std::string_view key, long fallback) const {
    if (!exists(key)) {
        return fallback;
    }
    const std::string value = get(key);
    const std::optional<long> seconds = parseTime(trimWhiteSpace(value));
    if (!seconds) {
        KARST_LOG(karstLog(), LOG_WARN, "%s: '%s' is not a time, using %ld seconds",
                  std::string(key).c_str(), printable(value).c_str(), fallback);
    }
    return seconds.value_or(fallback);
}

std::vector<std::string> Properties::getList(std::string_view key,
                                             const std::string& fallback) const {
    return StringSplit(get(key, fallback), LIST_SEPARATORS);
}

std::map<std::string, std::string> Properties::withPrefix(std::string_view prefix) const {
    const std::string wanted = lower(prefix);
    std::map<std::string, std::string> result;
    const Lock lock(m_mutex);
    for (auto entry = m_entries.lower_bound(wanted);
         entry != m_entries.end() && entry->first.compare(0, wanted.size(), wanted) == 0; ++entry) {
        result.emplace(entry->second.key, entry->second.value);
    }
    return result;
}

} // namespace tessa
