#pragma once

#include <compare>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

namespace tessa {

/// Signed 64-bit number as used for directory update sequence numbers (USN). A value type.
class Int64 {
public:
    static const Int64 ZERO;

    constexpr Int64() = default;
    constexpr Int64(std::int64_t value) : m_value(value) {} // NOLINT: numbers convert implicitly

    /// Parses an optionally signed decimal number that fills the whole text.
    /// @throws BadDataException when the text is empty, has other characters or does not fit.
    static Int64 fromString(std::string_view text);

    constexpr std::int64_t value() const { return m_value; }
    /// Decimal text.
    std::string toString() const { return std::to_string(m_value); }

    friend constexpr auto operator<=>(Int64, Int64) = default;
    /// Saturates: a directory may send any number, and the one after the last is the last.
    friend constexpr Int64 operator+(Int64 a, Int64 b) {
        std::int64_t sum = 0;
        if (__builtin_add_overflow(a.m_value, b.m_value, &sum)) {
            using Limits = std::numeric_limits<std::int64_t>;
            return {b.m_value > 0 ? Limits::max() : Limits::min()};
        }
        return {sum};
    }

private:
    std::int64_t m_value = 0;
};

} // namespace tessa
