// Snapshot files: whatever the bytes, opening is refused with an error of the file family or the
// snapshot can be walked to its end.
#include "common/Globals.h"
#include "common/NisException.h"
#include "store/CacheSnapshot.h"
#include "support/TempFolder.h"

#include <boost/make_shared.hpp>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const test::TempFolder folder;
    nis::logger->setThreshold(tessa::LOG_FATAL);
    test::writeFile("fuzz.snap", std::string(reinterpret_cast<const char*>(data), size));
    try {
        const auto snapshot = boost::make_shared<nis::CacheSnapshot>("fuzz.snap");
        const auto iterator = nis::CacheSnapshot::getIterator(snapshot);
        std::size_t bytes = 0;
        for (nis::MapEntry entry = **iterator; !entry.key.empty(); entry = *++*iterator) {
            bytes += 4 + entry.key.size() + entry.value.size();
        }
        const std::size_t header = 24 + 6 + snapshot->getDomain().size() +
                                   snapshot->getMapName().size() + snapshot->getServer().size();
        if (header + bytes != size) {
            std::abort(); // a part of the file was taken for the whole
        }
    } catch (const nis::FileSystemError&) {
        // refused
    }
    return 0;
}
