#include "StoreFixture.h"
#include "store/NisCache.h"

#include <random>

using nis::MapEntry;
using nis::NisCache;

namespace {

/// Random changes of all layers beside a model, with keys that look like those of other layers.
class NisCacheWalkTest : public test::StoreFixture, public testing::WithParamInterface<unsigned> {
protected:
    std::string anyKey() {
        std::string key(1 + m_random() % 4, '\0');
        for (char& c : key) {
            c = "\0\1\2\3\xfe\xff"[m_random() % 6];
        }
        return key;
    }
    unsigned char anyLayer() {
        constexpr unsigned char LAYERS[] = {0, 0, 1, 2, 3, 254};
        return LAYERS[m_random() % sizeof LAYERS];
    }
    static test::Entries layerOf(const NisCache& cache, unsigned char number) {
        return layer(cache, number);
    }

    std::mt19937 m_random{GetParam()};
    std::map<unsigned char, test::Entries> m_model;
};

TEST_P(NisCacheWalkTest, LayersHoldWhatWasPutIntoThem) {
    const auto cache = makeCache();
    std::uint64_t changes = 0;
    {
        NisCache::Batch batch(*cache);
        for (int step = 0; step < 400; ++step, ++changes) {
            const std::string key = anyKey();
            const unsigned char number = anyLayer();
            if (m_random() % 4 == 0) {
                cache->remove(key, number);
                m_model[number].erase(key);
            } else {
                const std::string value = std::to_string(step);
                cache->put(key, value, number);
                m_model[number][key] = value;
            }
            const std::string probe = anyKey();
            const unsigned char asked = anyLayer();
            const auto found = m_model[asked].find(probe);
            const MapEntry entry = cache->get(probe, asked);
            ASSERT_EQ(found != m_model[asked].end(), !entry.key.empty());
            ASSERT_TRUE(entry.key.empty() || entry.value == found->second);
        }
        batch.commit();
    }
    EXPECT_EQ(changes, cache->getOrder());
    for (const unsigned char number : {0, 1, 2, 3, 4, 254}) {
        EXPECT_EQ(m_model[number], layer(*cache, number)) << "layer " << int{number};
    }
}

TEST_P(NisCacheWalkTest, WalkGoesOnFromAKeyThatIsNotThere) {
    const auto cache = makeCache();
    for (int step = 0; step < 60; ++step) {
        const std::string key = anyKey();
        const unsigned char number = anyLayer();
        cache->put(key, "v", number);
        m_model[number][key] = "v";
    }
    for (int step = 0; step < 200; ++step) {
        const std::string probe = anyKey();
        const unsigned char number = anyLayer();
        // The order is that of the stored keys.
        std::string expected;
        for (const auto& [key, value] : m_model[number]) {
            const std::string stored = NisCache::MakeInternalKey(key, number);
            if (stored > NisCache::MakeInternalKey(probe, number) &&
                (expected.empty() || stored < NisCache::MakeInternalKey(expected, number))) {
                expected = key;
            }
        }
        ASSERT_EQ(expected, cache->getNext(probe, number).key);
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, NisCacheWalkTest, testing::Range(1U, 13U));

} // namespace
