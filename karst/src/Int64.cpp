#include "karst/Int64.h"

#include "karst/Exceptions.h"
#include "karst/Text.h"

#include <charconv>

namespace tessa {

const Int64 Int64::ZERO{0};

Int64 Int64::fromString(std::string_view text) {
    std::string_view digits = text;
    if (!digits.empty() && digits.front() == '+') {
        digits.remove_prefix(1);
        if (!digits.empty() && digits.front() == '-') {
            digits = {};
        }
    }
    std::int64_t value = 0;
    const char* const end = digits.data() + digits.size();
    const auto result = std::from_chars(digits.data(), end, value);
    if (digits.empty() || result.ec != std::errc() || result.ptr != end) {
        TESSA_THROW(BadDataException, "'" + printable(text) + "' is not a 64-bit number");
    }
    return {value};
}

} // namespace tessa
