#include "Base64.h"

#include <algorithm>
#include <array>
#include <cstdint>

namespace quorad::ldif {

namespace {

constexpr std::string_view ALPHABET =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::uint8_t NO_DIGIT = 0xff;

constexpr std::array<std::uint8_t, 256> makeDigits() {
    std::array<std::uint8_t, 256> digits{};
    for (auto& digit : digits) {
        digit = NO_DIGIT;
    }
    for (std::size_t i = 0; i < ALPHABET.size(); ++i) {
        digits[static_cast<unsigned char>(ALPHABET[i])] = static_cast<std::uint8_t>(i);
    }
    return digits;
}
constexpr auto DIGITS = makeDigits();

std::uint8_t digit(char c) {
    return DIGITS[static_cast<unsigned char>(c)];
}

char byteOf(std::uint32_t bits, unsigned shift) {
    return static_cast<char>(static_cast<unsigned char>((bits >> shift) & 0xffU));
}

bool isPlain(std::string_view value) {
    if (value.empty()) {
        return true;
    }
    if (value.front() == ' ' || value.front() == ':' || value.front() == '<' ||
        value.back() == ' ') {
        return false;
    }
    return std::all_of(value.begin(), value.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

} // namespace

bool appendDecoded(std::string_view text, std::string& bytes) {
    if (text.size() % 4 != 0) {
        return false;
    }
    if (text.empty()) {
        return true;
    }
    const std::size_t padding = text.back() != '=' ? 0 : text[text.size() - 2] == '=' ? 2 : 1;
    text.remove_suffix(padding);
    bytes.reserve(bytes.size() + text.size() / 4 * 3 + 3);
    std::uint32_t bits = 0;
    std::size_t count = 0;
    for (const char c : text) {
        const std::uint8_t value = digit(c);
        if (value == NO_DIGIT) {
            return false;
        }
        bits = (bits << 6U) | value;
        if (++count % 4 == 0) {
            bytes += byteOf(bits, 16);
            bytes += byteOf(bits, 8);
            bytes += byteOf(bits, 0);
        }
    }
    if (padding == 1) {
        bytes += byteOf(bits, 10);
        bytes += byteOf(bits, 2);
    } else if (padding == 2) {
        bytes += byteOf(bits, 4);
    }
    return true;
}

std::string encoded(std::string_view bytes) {
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t at = 0; at < bytes.size(); at += 3) {
        const std::size_t count = std::min<std::size_t>(3, bytes.size() - at);
        std::uint32_t bits = 0;
        for (std::size_t i = 0; i < 3; ++i) {
            bits = (bits << 8U) | (i < count ? static_cast<unsigned char>(bytes[at + i]) : 0U);
        }
        for (std::size_t i = 0; i < 4; ++i) {
            text += i <= count ? ALPHABET[(bits >> (18U - 6U * i)) & 0x3fU] : '=';
        }
    }
    return text;
}

std::string attributeLine(std::string_view name, std::string_view value) {
    std::string line(name);
    if (isPlain(value)) {
        line += ": ";
        line += value;
    } else {
        line += ":: ";
        line += encoded(value);
    }
    line += '\n';
    return line;
}

} // namespace quorad::ldif
