// Cache files: whatever the bytes, opening is refused as a bad cache file or every operation works.
#include "common/Globals.h"
#include "common/NisException.h"
#include "store/NisCache.h"
#include "support/TempFolder.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <set>

namespace {

void use(nis::NisCache& cache) {
    for (int layer = 0; layer < 256; ++layer) {
        const auto number = static_cast<unsigned char>(layer);
        std::set<std::string> seen;
        for (nis::MapEntry entry = cache.getFirst(number); !entry.key.empty();
             entry = cache.getNext(entry.key, number)) {
            if (!seen.insert(entry.key).second || cache.get(entry.key, number) != entry) {
                std::abort(); // a walk that repeats itself, or contradicts a look-up
            }
        }
    }
    cache.put("key", "value", 0);
    cache.remove("key", 0);
    cache.setHighUSN(1);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const test::TempFolder folder;
    nis::logger->setThreshold(tessa::LOG_FATAL);
    std::filesystem::remove("fuzz.map-journal");
    test::writeFile("fuzz.map", std::string(reinterpret_cast<const char*>(data), size));
    try {
        nis::NisCache cache("fuzz.map");
        use(cache);
    } catch (const nis::BadCacheFile&) {
        // refused
    }
    return 0;
}
