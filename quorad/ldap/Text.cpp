#include "Text.h"

#include <karst/Exceptions.h>
#include <karst/Int64.h>
#include <karst/Text.h>

#include <algorithm>
#include <array>
#include <cstdlib>

namespace quorad::ldap {

namespace {

constexpr std::string_view RANGE_OPTION = ";range=";

bool isNumber(std::string_view text) {
    return !text.empty() && text.size() <= 10 &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

} // namespace

std::string escapeFilter(std::string_view value) {
    static constexpr std::string_view HEX = "0123456789abcdef";
    std::string escaped;
    escaped.reserve(value.size() + 8);
    for (const char c : value) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte >= 0x7f || c == '(' || c == ')' || c == '*' || c == '\\') {
            escaped += '\\';
            escaped += HEX[byte >> 4U];
            escaped += HEX[byte & 15U];
        } else {
            escaped += c;
        }
    }
    return escaped;
}

bool parseRange(std::string_view description, Range& range) {
    const std::size_t at = tessa::lower(description).find(RANGE_OPTION);
    if (at == std::string_view::npos || at == 0) {
        return false;
    }
    std::string_view bounds = description.substr(at + RANGE_OPTION.size());
    bounds = bounds.substr(0, bounds.find(';'));
    const std::size_t dash = bounds.find('-');
    if (dash == std::string_view::npos || !isNumber(bounds.substr(0, dash))) {
        return false;
    }
    const std::string_view last = bounds.substr(dash + 1);
    if (last != "*" && !isNumber(last)) {
        return false;
    }
    range.attribute = description.substr(0, at);
    range.complete = last == "*";
    range.next = range.complete ? 0 : std::strtoul(std::string(last).c_str(), nullptr, 10) + 1;
    return true;
}

std::string rangeFrom(std::string_view attribute, unsigned long first) {
    return std::string(attribute) + std::string(RANGE_OPTION) + std::to_string(first) + "-*";
}

std::string rangeOf(std::string_view attribute, unsigned long first, unsigned long count) {
    return std::string(attribute) + std::string(RANGE_OPTION) + std::to_string(first) + "-" +
           std::to_string(first + count - 1);
}

std::string shiftUsn(std::string_view filter, long long shift) {
    static constexpr std::array<std::string_view, 2> NAMES{"usnchanged", "usncreated"};
    std::string shifted;
    std::size_t done = 0;
    const std::string low = tessa::lower(filter);
    for (std::size_t at = low.find('('); at != std::string::npos; at = low.find('(', at + 1)) {
        const std::string_view rest = std::string_view(low).substr(at + 1);
        const auto name = std::find_if(NAMES.begin(), NAMES.end(), [&](std::string_view candidate) {
            return rest.substr(0, candidate.size()) == candidate;
        });
        if (name == NAMES.end()) {
            continue;
        }
        std::size_t value = at + 1 + name->size();
        value += low[value] == '=' ? 1 : 2; // behind "=", ">=" or "<="
        const std::size_t end = low.find(')', value);
        if (end == std::string::npos || low[value - 1] != '=') {
            continue;
        }
        const std::string_view digits = filter.substr(value, end - value);
        try {
            const tessa::Int64 number = tessa::Int64::fromString(digits) + tessa::Int64(shift);
            shifted += filter.substr(done, value - done);
            shifted += std::max(number, tessa::Int64::ZERO).toString();
            done = end;
        } catch (const tessa::BadDataException&) { // NOLINT: for the controller to refuse
        }
    }
    return shifted + std::string(filter.substr(done));
}

} // namespace quorad::ldap
