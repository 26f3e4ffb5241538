#pragma once

#include <string>
#include <string_view>

namespace quorad::ldif {

/// The text in quotation marks, for messages; no more than its first `most` bytes.
inline std::string quoted(std::string_view text, std::size_t most = std::string_view::npos) {
    std::string result(1, '\'');
    result += text.substr(0, most);
    result += text.size() > most ? "...'" : "'";
    return result;
}

} // namespace quorad::ldif
