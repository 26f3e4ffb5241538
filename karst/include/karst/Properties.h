#pragma once

#include "karst/Mutex.h"

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace tessa {

/// Configuration: keys without regard to case, each with one text value.
///
/// File form: `key: value` lines; blank lines and lines whose first non-blank character is "#" are
/// skipped; white space around key and value is dropped; a later line for a key replaces an earlier
/// one. A malformed line is reported with file and line number (logger "karst", warning) and
/// skipped; nothing else is lost. Thread-safe.
class Properties {
public:
    /// Adds the file's settings to those already held.
    /// @return false, with a warning logged, when the file cannot be read (or is no regular file);
    /// then nothing changed.
    bool load(const std::string& path);
    /// The same for text that is already in memory; `origin` names it in messages.
    void parse(std::string_view text, const std::string& origin);

    void set(std::string_view key, std::string value);
    bool exists(std::string_view key) const;
    /// The value, or `fallback` when the key is not set.
    std::string get(std::string_view key, const std::string& fallback = "") const;
    /// "true", "yes", "1" and "false", "no", "0" in any case; anything else is `fallback`.
    bool getBool(std::string_view key, bool fallback) const;
    /// Seconds: a decimal number, alone or followed by s, m, h or d (days). A negative number is
    /// returned as it is (the caller decides). Malformed, empty or too large: a warning is logged
    /// and `fallback` holds.
    long getTime(std::string_view key, long fallback) const;
    /// Several values, separated by white space or commas; empty pieces are dropped.
    std::vector<std::string> getList(std::string_view key, const std::string& fallback = "") const;
    /// Every key (as written in the file) that begins with `prefix`, with its value.
    std::map<std::string, std::string> withPrefix(std::string_view prefix) const;

private:
    struct Entry {
        std::string key;
        std::string value;
    };
    mutable Mutex m_mutex;
    std::map<std::string, Entry> m_entries KARST_GUARDED_BY(m_mutex); ///< by lower-cased key
};

} // namespace tessa
