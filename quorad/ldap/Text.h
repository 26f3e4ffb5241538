#pragma once

#include <string>
#include <string_view>

namespace quorad::ldap {

/// Escapes a value for a search filter (RFC 4515): any bytes are allowed in it.
std::string escapeFilter(std::string_view value);

/// An attribute description with a range option: "member;range=0-1499".
struct Range {
    std::string attribute;
    unsigned long next = 0; ///< first value that did not come
    bool complete = false;  ///< "*": there are no more
};
/// @return false when the description has no well-formed range option
bool parseRange(std::string_view description, Range& range);
/// The description that asks for the values from `first` on.
std::string rangeFrom(std::string_view attribute, unsigned long first);
/// The description that asks for so many values from `first` on.
std::string rangeOf(std::string_view attribute, unsigned long first, unsigned long count);

/// Replaces the numbers that a filter compares USN attributes with, by adding `shift`. A sum below
/// 0 counts as 0.
std::string shiftUsn(std::string_view filter, long long shift);

} // namespace quorad::ldap
