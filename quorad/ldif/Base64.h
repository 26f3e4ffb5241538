#pragma once

#include <string>
#include <string_view>

namespace quorad::ldif {

/// Appends the bytes that the Base64 text (RFC 4648, with padding) stands for.
/// @return false when it is none; then `bytes` may hold a part
bool appendDecoded(std::string_view text, std::string& bytes);

/// Base64 text of the bytes.
std::string encoded(std::string_view bytes);

/// One line of an LDIF record, with its line feed: as text where that keeps the value, as Base64
/// otherwise.
std::string attributeLine(std::string_view name, std::string_view value);

} // namespace quorad::ldif
