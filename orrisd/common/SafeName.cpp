#include "common/SafeName.h"

#include <algorithm>

namespace nis {

namespace {

constexpr std::size_t LONGEST_PART = 200;
constexpr std::size_t LONGEST_FILE_NAME = 255;
/// Room for the colons and the longest ending: ":4294967295.snap" or ".999.map-journal".
constexpr std::size_t ENDINGS = 2 + 20;

} // namespace

bool isSafeFileNamePart(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.size() <= LONGEST_PART &&
           std::none_of(name.begin(), name.end(), [](char c) { return c == '/' || c == '\0'; });
}

bool fitsFileName(const std::string& domain, const std::string& map, const std::string& server) {
    return domain.size() + map.size() + server.size() + ENDINGS <= LONGEST_FILE_NAME;
}

} // namespace nis
