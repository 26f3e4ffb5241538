#include "StoreFixture.h"
#include "store/NisCache.h"
#include "support/Damage.h"

#include <random>
#include <set>

using nis::BadCacheFile;
using nis::NisCache;

namespace {

class NisCacheDamageTest : public test::StoreFixture {
protected:
    static constexpr const char* FILE = "dom:hosts.byname:dc1.map";
    static constexpr const char* DAMAGED = "damaged.map";

    /// Everything that clients and updates can learn from a cache.
    struct Content {
        std::map<int, test::Entries> layers;
        std::string names;
        std::uint64_t order = 0;
        std::int64_t usn = 0;
        bool operator==(const Content&) const = default;
    };
    static Content read(const NisCache& cache) {
        Content content;
        for (const int number : {0, 1, 2, 255}) {
            content.layers[number] = layer(cache, static_cast<unsigned char>(number));
        }
        content.names = cache.getDomain() + cache.getMapName() + cache.getServer() +
                        cache.getZoneHierarchy() + cache.getTargetZone() + cache.getMapDN();
        content.order = cache.getOrder();
        content.usn = cache.getHighUSN().value();
        return content;
    }
    static void fill(NisCache& cache, unsigned records) {
        NisCache::Batch batch(cache);
        std::mt19937 random(records);
        for (unsigned i = 0; i < records; ++i) {
            const std::string key = "host" + std::to_string(i);
            cache.put(key, std::string(random() % 200, static_cast<char>('a' + i % 26)), 0);
            cache.put(std::string(16, static_cast<char>(i)) + key, key, 1);
            cache.put("10.0.0." + key, std::string(random() % 50, 'x'), 2);
        }
        cache.setHighUSN(77);
    }
    /// Refused with one of the known texts, or the original content.
    static bool isRefused(const Content& original) {
        static const std::set<std::string> TEXTS = {
            "Failed to open NisCache",       "NisCache is not intact",
            "Cache file version is too old", "Incorrect version",
            "Cache file version unreadable", "Meta-data missing or corrupt",
        };
        try {
            const NisCache cache(DAMAGED);
            EXPECT_EQ(original, read(cache));
            return false;
        } catch (const BadCacheFile& e) {
            EXPECT_TRUE(TEXTS.count(e.what())) << e.what();
            EXPECT_EQ(DAMAGED, e.arg());
            return true;
        }
    }
    static void damageAll(unsigned records) {
        {
            const auto cache = makeCache();
            fill(*cache, records);
        }
        const Content original = read(NisCache(FILE));
        const std::string bytes = test::readFile(FILE);
        nis::logger->setThreshold(tessa::LOG_FAILURE);
        int refused = 0;
        for (unsigned number = 0; number < 200; ++number) {
            SCOPED_TRACE(number);
            test::writeFile(DAMAGED, test::damaged(bytes, number));
            refused += isRefused(original) ? 1 : 0;
            if (HasFailure()) {
                break;
            }
        }
        nis::logger->setThreshold(tessa::LOG_INFORMATION);
        EXPECT_GT(refused, 80);
    }
};

TEST_F(NisCacheDamageTest, LargeCache) {
    damageAll(300);
}
TEST_F(NisCacheDamageTest, CacheOfAFewRecords) {
    damageAll(3);
}
TEST_F(NisCacheDamageTest, CacheWithoutEntries) {
    damageAll(0);
}

TEST_F(NisCacheDamageTest, EveryBitOfTheMetaDataCounts) {
    makeCache();
    const Content original = read(NisCache(FILE));
    const std::string bytes = test::readFile(FILE);
    const std::size_t place = bytes.find("CN=hosts,DC=x");
    ASSERT_NE(std::string::npos, place);
    nis::logger->setThreshold(tessa::LOG_FAILURE);
    for (std::size_t bit = 0; bit < 13 * 8; ++bit) {
        std::string damaged = bytes;
        damaged[place + bit / 8] ^= static_cast<char>(1U << bit % 8);
        test::writeFile(DAMAGED, damaged);
        EXPECT_TRUE(isRefused(original));
    }
    nis::logger->setThreshold(tessa::LOG_INFORMATION);
}

TEST_F(NisCacheDamageTest, JournalOfGarbageDoesNoHarm) {
    {
        const auto cache = makeCache();
        fill(*cache, 20);
    }
    const Content original = read(NisCache(FILE));
    const std::string bytes = test::readFile(FILE);
    nis::logger->setThreshold(tessa::LOG_FAILURE);
    for (unsigned number = 0; number < 50; ++number) {
        SCOPED_TRACE(number);
        test::writeFile(DAMAGED, bytes);
        test::writeFile(std::string(DAMAGED) + "-journal", test::damaged(bytes, number));
        isRefused(original);
    }
    nis::logger->setThreshold(tessa::LOG_INFORMATION);
}

} // namespace
