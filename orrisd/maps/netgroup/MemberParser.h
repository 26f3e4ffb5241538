#pragma once

#include <cstddef>
#include <list>
#include <string>
#include <string_view>

namespace nis {

inline constexpr std::string_view IDENTIFIER_DELIMITERS = " \t,()";
inline constexpr std::string_view SPACES = " \t";
inline constexpr std::string_view DOMAIN_DELIMITERS = " \t()";
inline constexpr std::string_view GROUP_DELIMITERS = " \t()";

/// One parsed member of a netgroup. Fields that a kind does not use are empty; an empty field of a
/// triple means "any".
struct NetgroupEntry {
    enum Kind : int { GROUP = 0, TRIPLE = 1 };

    int kind = GROUP;
    std::string group;
    std::string host;
    std::string user;
    std::string domain;

    friend bool operator==(const NetgroupEntry&, const NetgroupEntry&) = default;
};

/// Parses a member list: names of netgroups and triples "(host,user,domain)" between white space.
/// Appends the entries in text order. What is malformed is skipped or repaired, never an error.
/// Pure but for the log.
/// @param report log syntax problems to "orrisd.netgroup.syntax"
/// @param netgroupName whose members these are, for the log
void ParseNetgroupMembers(std::string_view value, std::list<NetgroupEntry>& out, bool report,
                          const std::string& netgroupName);

/// A place in a text that is parsed.
struct ParsePosition {
    std::string_view text;
    std::size_t at = 0;

    bool atEnd() const { return at >= text.size(); }
    /// Whether the next character is there and is one of the set.
    bool nextIs(std::string_view characters) const {
        return !atEnd() && characters.find(text[at]) != std::string_view::npos;
    }
};

/// Reads up to the first delimiter or the end into `out` (possibly nothing).
/// @return false when there is no text left
bool ParseIdentifier(ParsePosition& p, std::string_view delimiters, std::string& out);

} // namespace nis
