#pragma once

#include <string_view>

namespace quorad::ldif {

/// Components that a name may have.
inline constexpr unsigned MAX_DEPTH = 128;

/// First component of a name and what it lies below (empty at the top), as written.
struct SplitName {
    std::string_view component;
    std::string_view parent;
};

/// @throws tessa::BadDataException when the text does not begin with a component
SplitName splitName(std::string_view dn);

} // namespace quorad::ldif
