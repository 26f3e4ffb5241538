#include "karst/Text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>

namespace tessa {

namespace {

constexpr std::string_view WHITE_SPACE = " \t\r\n";

char lowerCase(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

/// Calls `take` with each piece between separators.
template <typename Take>
void eachPiece(std::string_view text, std::string_view separators, bool keepEmpty, Take take) {
    std::size_t start = 0;
    while (start <= text.size()) {
        const std::size_t end = std::min(text.find_first_of(separators, start), text.size());
        if (keepEmpty || end > start) {
            take(text.substr(start, end - start));
        }
        start = end + 1;
    }
}

/// Length of the valid UTF-8 sequence of two to four bytes at the start of the text, or 0.
std::size_t utf8Length(std::string_view text) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char first = byte(0);
    const std::size_t length = first >= 0xC2 && first <= 0xDF   ? 2
                               : first >= 0xE0 && first <= 0xEF ? 3
                               : first >= 0xF0 && first <= 0xF4 ? 4
                                                                : 0;
    if (length == 0 || length > text.size()) {
        return 0;
    }
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xC0) != 0x80) {
            return 0;
        }
    }
    // Over-long forms, surrogates, numbers above the last code point, and the C1 controls.
    const unsigned char second = byte(1);
    const bool bad = (first == 0xE0 && second < 0xA0) || (first == 0xED && second > 0x9F) ||
                     (first == 0xF0 && second < 0x90) || (first == 0xF4 && second > 0x8F) ||
                     (first == 0xC2 && second < 0xA0);
    return bad ? 0 : length;
}

} // namespace

std::vector<std::string> StringSplit(std::string_view text, std::string_view separators,
                                     bool keepEmpty) {
    std::vector<std::string> pieces;
    eachPiece(text, separators, keepEmpty, [&](std::string_view p) { pieces.emplace_back(p); });
    return pieces;
}

std::vector<std::string_view> split(std::string_view text, std::string_view separators) {
    std::vector<std::string_view> pieces;
    eachPiece(text, separators, false, [&](std::string_view p) { pieces.push_back(p); });
    return pieces;
}

std::string_view trimWhiteSpace(std::string_view text) {
    const std::size_t first = text.find_first_not_of(WHITE_SPACE);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(WHITE_SPACE) - first + 1);
}

std::string lower(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(), lowerCase);
    return result;
}

bool equalsIgnoreCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return lowerCase(x) == lowerCase(y);
           });
}

std::string itoa(long long value, int base) {
    std::array<char, 72> digits{};
    const int radix = base >= 2 && base <= 36 ? base : 10;
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value, radix).ptr;
    return {digits.data(), end};
}

std::string uitoa(unsigned long long value) {
    return std::to_string(value);
}

unsigned int atoui(std::string_view text) {
    unsigned int value = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
    return result.ec == std::errc() ? value : 0;
}

std::string printable(std::string_view text) {
    static constexpr std::string_view HEX = "0123456789abcdef";
    std::string result;
    result.reserve(text.size());
    while (!text.empty()) {
        const auto byte = static_cast<unsigned char>(text.front());
        std::size_t length = byte >= 0x20 && byte < 0x7F ? 1 : byte >= 0x80 ? utf8Length(text) : 0;
        if (length == 0) {
            result.append("\\x").append(1, HEX[byte >> 4U]).append(1, HEX[byte & 0xFU]);
            length = 1;
        } else {
            result.append(text.substr(0, length));
        }
        text.remove_prefix(length);
    }
    return result;
}

std::string errorText(int errorNumber) {
    std::array<char, 256> buffer{};
    return ::strerror_r(errorNumber, buffer.data(), buffer.size());
}

} // namespace tessa
