#pragma once

#include <string>
#include <vector>

namespace quorad::admin {

/// Principals whose keys a keytab holds, each once, in the order of the file.
/// @throws tessa::IOException when it cannot be read, with the reason
std::vector<std::string> principalsOf(const std::string& keytab);

} // namespace quorad::admin
