#include "karst/Guid.h"

#include "karst/Exceptions.h"
#include "karst/Text.h"

#include <algorithm>
#include <cerrno>

#include <sys/random.h>

namespace tessa {

namespace {

// Place of each stored byte in the text form: the first three fields are stored little-endian.
constexpr std::array<std::size_t, 16> TEXT_ORDER = {3, 2, 1,  0,  5,  4,  7,  6,
                                                    8, 9, 10, 11, 12, 13, 14, 15};
constexpr std::size_t TEXT_LENGTH = 36;

bool isDashPlace(std::size_t position) {
    return position == 8 || position == 13 || position == 18 || position == 23;
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

[[noreturn]] void refuse(std::string_view text) {
    TESSA_THROW(BadDataException, "'" + printable(text) + "' is not a GUID");
}

} // namespace

Guid Guid::fromString(std::string_view text) {
    std::string_view digits = text;
    if (digits.size() == TEXT_LENGTH + 2 && digits.front() == '{' && digits.back() == '}') {
        digits = digits.substr(1, TEXT_LENGTH);
    }
    if (digits.size() != TEXT_LENGTH) {
        refuse(text);
    }
    Guid guid;
    std::size_t field = 0;
    for (std::size_t at = 0; at < TEXT_LENGTH;) {
        if (isDashPlace(at)) {
            if (digits[at] != '-') {
                refuse(text);
            }
            ++at;
            continue;
        }
        const int high = hexValue(digits[at]);
        const int low = hexValue(digits[at + 1]);
        if (high < 0 || low < 0) {
            refuse(text);
        }
        guid.m_bytes[TEXT_ORDER[field++]] = static_cast<std::uint8_t>(high * 16 + low);
        at += 2;
    }
    return guid;
}

Guid Guid::fromBytes(std::string_view bytes) {
    Guid guid;
    if (bytes.size() != guid.m_bytes.size()) {
        TESSA_THROW(BadDataException, "a GUID has 16 bytes, not " + std::to_string(bytes.size()));
    }
    std::copy(bytes.begin(), bytes.end(), guid.m_bytes.begin());
    return guid;
}

Guid Guid::random() {
    Guid guid;
    // Requests of up to 256 bytes are answered whole; only the wait for the first seed can be cut.
    while (getrandom(guid.m_bytes.data(), guid.m_bytes.size(), 0) !=
           static_cast<ssize_t>(guid.m_bytes.size())) {
        if (errno != EINTR) {
            TESSA_THROW(SystemException, "no random numbers: " + errorText(errno));
        }
    }
    // The version lies in the high half of the third field, which is stored little-endian.
    guid.m_bytes[7] = static_cast<std::uint8_t>((guid.m_bytes[7] & 0x0FU) | 0x40U);
    guid.m_bytes[8] = static_cast<std::uint8_t>((guid.m_bytes[8] & 0x3FU) | 0x80U);
    return guid;
}

std::string Guid::toString() const {
    static constexpr char DIGITS[] = "0123456789abcdef";
    std::string text;
    text.reserve(TEXT_LENGTH);
    for (const std::size_t place : TEXT_ORDER) {
        if (isDashPlace(text.size())) {
            text += '-';
        }
        text += DIGITS[m_bytes[place] >> 4U];
        text += DIGITS[m_bytes[place] & 0x0FU];
    }
    return text;
}

std::string Guid::bytes() const {
    return {m_bytes.begin(), m_bytes.end()};
}

std::string Guid::toDN() const {
    return "<GUID=" + toString() + ">";
}

} // namespace tessa
