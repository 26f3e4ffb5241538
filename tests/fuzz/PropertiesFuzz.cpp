// The configuration file: any bytes give settings and reports, and what was read can be asked for.
#include "karst/Logger.h"
#include "karst/Properties.h"
#include "karst/Text.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

/// A value, written by itself, must be read back as it is.
void checkReadBack(const std::string& key, const std::string& value) {
    tessa::Properties again;
    again.parse("\n" + key + ":" + value + "\n", "again");
    require(again.get(key) == value);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // Reports would drown the fuzzer's own output.
    tessa::Logger::get("karst")->setThreshold(tessa::LOG_FATAL + 1);
    tessa::Properties properties;
    properties.parse({reinterpret_cast<const char*>(data), size}, "fuzz");
    for (const auto& [key, value] : properties.withPrefix("")) {
        require(!key.empty() && properties.exists(key));
        require(properties.exists(tessa::lower(key)) && properties.get(key) == value);
        checkReadBack(key, value);
        static_cast<void>(properties.getBool(key, true));
        const long one = properties.getTime(key, 1);
        require(one == properties.getTime(key, 2) || one == 1);
        for (const auto& piece : properties.getList(key)) {
            require(!piece.empty() && piece.find_first_of(", \t\r\n") == std::string::npos);
        }
        require(tessa::printable(tessa::printable(value)) == tessa::printable(value));
    }
    return 0;
}
