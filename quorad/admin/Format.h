#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace quorad::admin {

/// How a text file holds the records of a map.
enum class Format {
    KEYED,    ///< "key value", as `ypcat -k` writes any map whose keys have no blanks
    TABBED,   ///< "key<tab>value", each line taken as it is
    AUTO,     ///< "key [-options] place...", as files of the automounter
    HOSTS,    ///< "address name alias...", as /etc/hosts
    SERVICES, ///< "name port/protocol alias...", as /etc/services
    NUMBERED, ///< "name number alias...", as /etc/protocols, /etc/rpc, /etc/networks
    ETHERS,   ///< "address name", as /etc/ethers
    TIMEZONE, ///< "time-zone name...", as /etc/timezone of NIS servers
    PASSWD,   ///< "key:...": the whole line is the value, as /etc/passwd
    ALIASES,  ///< "name: address...", as /etc/aliases
};

/// A record as the directory will hold it.
struct Record {
    std::string key;
    std::string value;
    std::size_t line = 0; ///< where it stands in the file, from 1

    friend bool operator==(const Record& a, const Record& b) {
        return a.key == b.key && a.value == b.value;
    }
};

/// What is wrong with a line.
struct Problem {
    std::size_t line;
    std::string text;
};

struct ParsedFile {
    std::vector<Record> records; ///< in the order of the file
    std::vector<Problem> problems;
    std::size_t repeated = 0; ///< lines that say again what an earlier one said
    bool dump = false;        ///< read as `ypcat -k` writes it
};

/// The form that a map's file has by convention; KEYED for maps without one.
Format defaultFormat(std::string_view map);
/// @return false when there is no such format
bool formatFromName(std::string_view name, Format& format);
/// "keyed, hosts, ..." for messages.
std::string formatNames();

/// Whether records of the format are found by what is in the value, so that the value alone names a
/// record (several clients' keys lead to it).
bool foundByValue(Format format);

/// Reads the text of a file. Except where it is TABBED, comments and blank lines are skipped, and a
/// backslash at the end of a line continues it. A file of a format that is found by value may as
/// well be a dump of one of its maps
/// ("alpha 10.0.0.1 alpha a"): its first record decides which it is. Lines that cannot be taken
/// over are listed as problems; the other ones are still read. Pure.
ParsedFile parseFile(std::string_view text, Format format);

/// A line of that format, without its end: KEYED or TABBED.
std::string makeLine(std::string_view key, std::string_view value, Format format);
/// Whether that line is read as the same key and value again.
bool readsBack(std::string_view key, std::string_view value, Format format);

/// Most characters that the directory keeps in a key and in a value.
inline constexpr std::size_t MAX_CHARACTERS = 1024;
/// Length as the directory counts it (UTF-16 units).
/// @return std::string::npos when the text is not valid UTF-8
std::size_t characters(std::string_view text);

} // namespace quorad::admin
