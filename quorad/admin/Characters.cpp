// How long the directory finds a text.
#include "Format.h"

#include <array>

namespace quorad::admin {

namespace {

// Bytes of the UTF-8 character at the beginning of the text; 0 when there is none.
std::size_t sequenceLength(std::string_view text) {
    const auto lead = static_cast<unsigned char>(text.front());
    const std::size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    if ((lead >= 0x80 && lead < 0xC2) || lead > 0xF4 || length > text.size()) {
        return 0;
    }
    unsigned code = length == 1 ? lead : lead & (0xFFU >> (length + 1));
    for (std::size_t i = 1; i < length; ++i) {
        const auto next = static_cast<unsigned char>(text[i]);
        if ((next & 0xC0U) != 0x80) {
            return 0;
        }
        code = code << 6 | (next & 0x3FU);
    }
    constexpr std::array<unsigned, 5> LEAST{0, 0, 0x80, 0x800, 0x10000};
    const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
    return code < LEAST[length] || code > 0x10FFFF || surrogate ? 0 : length;
}

} // namespace

std::size_t characters(std::string_view text) {
    std::size_t count = 0;
    while (!text.empty()) {
        const std::size_t length = sequenceLength(text);
        if (length == 0) {
            return std::string::npos;
        }
        count += length == 4 ? 2 : 1;
        text.remove_prefix(length);
    }
    return count;
}

} // namespace quorad::admin
