#pragma once

#include <string>

namespace nis {

/// Whether a name that came from the directory or the configuration may become part of a file name:
/// not empty, not "." or "..", no "/" and no NUL byte, at most 200 bytes.
bool isSafeFileNamePart(const std::string& name);

/// Whether the three names together, with suffixes and numbers, make a file name that the file
/// system takes (255 bytes).
bool fitsFileName(const std::string& domain, const std::string& map, const std::string& server);

} // namespace nis
