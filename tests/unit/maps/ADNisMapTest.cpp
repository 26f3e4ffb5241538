#include "maps/ADNisMap.h"

#include "common/ConfigKeys.h"
#include "maps/DerivedMap.h"
#include "unit/maps/MapsFixture.h"

#include <atomic>
#include <ctime>
#include <thread>

namespace {

class ADNisMapTest : public test::MapsFixture {
protected:
    /// Whether a map made now is due after so many seconds. The clock may tick meanwhile.
    static testing::AssertionResult dueIn(std::int64_t seconds, const std::string& name,
                                          std::string* log = nullptr) {
        const std::int64_t before = std::time(nullptr);
        boost::shared_ptr<test::PlainMap> map;
        const std::string text =
            logOf([&] { map = boost::make_shared<test::PlainMap>(makeCache(name)); });
        const std::int64_t after = std::time(nullptr);
        if (log != nullptr) {
            *log = text;
        }
        map->deleteOnClose();
        const std::int64_t due = map->getNextUpdateTime();
        if (due >= before + seconds && due <= after + seconds) {
            return testing::AssertionSuccess();
        }
        return testing::AssertionFailure() << "due in about " << due - before;
    }
};

TEST_F(ADNisMapTest, RefreshedEvery1800SecondsByDefault) {
    std::string log;
    EXPECT_TRUE(dueIn(1800, "m", &log));
    EXPECT_NE(log.find("ADNisMap: nisd.update.interval=1800 seconds"), std::string::npos);
    EXPECT_NE(log.find("ADNisMap: nisd.update.interval.m=1800 seconds"), std::string::npos);
}

TEST_F(ADNisMapTest, IntervalOfOneMap) {
    configure({{"nisd.update.interval", "10m"}, {"nisd.update.interval.hosts", "20"}});
    EXPECT_TRUE(dueIn(20, "hosts"));
    EXPECT_TRUE(dueIn(600, "other"));
}

TEST_F(ADNisMapTest, IntervalZeroMeansNever) {
    configure({{"nisd.update.interval.m", "0"}});
    const auto map = boost::make_shared<test::PlainMap>(makeCache("m"));
    EXPECT_EQ(map->getNextUpdateTime(), 0x7fffffffffffffff);
    map->setNextUpdateTime();
    EXPECT_EQ(map->getNextUpdateTime(), 0x7fffffffffffffff) << "after a forced refresh";
}

TEST_F(ADNisMapTest, NegativeIntervalsFallBack) {
    configure({{"nisd.update.interval", "-5"}});
    std::string log;
    EXPECT_TRUE(dueIn(1800, "m", &log));
    EXPECT_NE(log.find("Negative value for property nisd.update.interval not allowed. Using 1800 "
                       "seconds"),
              std::string::npos);
    configure({{"nisd.update.interval", "60"}, {"nisd.update.interval.m", "-1"}});
    EXPECT_TRUE(dueIn(60, "m", &log));
    EXPECT_NE(log.find("Negative value for property nisd.update.interval.m not allowed. Using 60 "
                       "seconds"),
              std::string::npos);
}

TEST_F(ADNisMapTest, ReconfigureReadsTheCommonIntervalOnlyAfterAReset) {
    const auto map = boost::make_shared<test::PlainMap>(makeCache("m"));
    auto config = boost::make_shared<tessa::Properties>();
    config->set("nisd.update.interval", "100000");
    nis::setConfig(config);
    map->reconfigure();
    EXPECT_LT(map->getNextUpdateTime(), std::time(nullptr) + 10000);
    nis::ADNisMap::resetDefaultUpdateInterval();
    map->reconfigure();
    EXPECT_GT(map->getNextUpdateTime(), std::time(nullptr) + 90000);
}

TEST_F(ADNisMapTest, LookUpsSeeLayerZeroOnly) {
    const auto map = boost::make_shared<test::PlainMap>(makeCache("m"));
    map->cachePut("here", "1", 0);
    map->cachePut("there", "2", 3);
    EXPECT_EQ(map->match("here"), "1");
    EXPECT_EQ(refusal<nis::UnknownKey>([&] { map->match("there"); }), "there");
    EXPECT_EQ(walk(*map), (test::Entries{{"here", "1"}}));
    EXPECT_EQ(map->cacheGet("there", 3).value, "2");
    EXPECT_EQ(refusal<nis::UnknownKey>([&] { map->cacheGet("here", 3); }), "here");
}

TEST_F(ADNisMapTest, EmptyKeyIsRefused) {
    const auto map = boost::make_shared<test::PlainMap>(makeCache("m"));
    EXPECT_EQ(refusal<nis::DatabaseError>([&] { map->cachePut("", "some value", 0); }),
              "empty key from: some value");
}

TEST_F(ADNisMapTest, KnowsWhatItsCacheKnows) {
    const auto map = boost::make_shared<test::PlainMap>(makeCache("m", "dc1", "CN=m"));
    EXPECT_EQ(map->getName(), "m");
    EXPECT_EQ(map->getDomain(), "dom");
    EXPECT_EQ(map->getServer(), "dc1");
    EXPECT_EQ(map->getMapDN(), "CN=m");
    EXPECT_EQ(map->getZoneHierarchy(), "hierarchy");
    EXPECT_EQ(map->getTargetZone(), "zone");
    EXPECT_STREQ(map->type_name(), "ADNisMap");
    EXPECT_TRUE(map->canServeToClients());
    EXPECT_FALSE(map->mustCacheThisMap("m"));
    EXPECT_FALSE(map->neverDownloadMapFromAD("m"));
    EXPECT_TRUE(map->getDerivedMaps().empty());
    map->setHighUSN(77);
    EXPECT_EQ(map->getHighUSN(), tessa::Int64(77));
    map->setLastCurrentTime(5);
    EXPECT_EQ(map->getLastCurrentTime(), 5);
    map->setLastUpdateTime();
    EXPECT_GT(map->getLastUpdateTime(), 0);
    map->setOrder(9);
    EXPECT_EQ(map->getOrder(), 9U);
}

TEST_F(ADNisMapTest, ReplacedCacheGoesAwayWithItsLastReader) {
    const auto map = boost::make_shared<test::PlainMap>(makeCache("m"));
    map->cachePut("k", "old", 0);
    auto reader = map->cache();
    const std::string old = reader->getFilename();
    auto fresh = makeCache("m");
    fresh->put("k", "new", 0);
    map->setCache(fresh);
    EXPECT_EQ(map->match("k"), "new");
    EXPECT_EQ(reader->get("k", 0).value, "old");
    EXPECT_TRUE(std::filesystem::exists(old));
    reader.reset();
    EXPECT_FALSE(std::filesystem::exists(old));
}

// Derived maps take no lock: whatever they read while the cache is replaced is of one of the
// caches.
TEST_F(ADNisMapTest, DerivedMapsReadWhileTheCacheIsReplaced) {
    const auto map = boost::make_shared<test::PlainMap>(makeCache("m"));
    map->cachePut("k", "v", 0);
    const auto derived = boost::make_shared<nis::DerivedMap>("m.by", map, 0);
    std::atomic<bool> done{false};
    std::atomic<int> reads{0};
    std::vector<std::thread> readers;
    for (int i = 0; i < 3; ++i) {
        readers.emplace_back([&] {
            while (!done) {
                EXPECT_EQ(derived->match("k"), "v");
                EXPECT_EQ(derived->getFirst().key, "k");
                EXPECT_TRUE(derived->getNext("k").key.empty());
                EXPECT_EQ(derived->getServer(), "dc1");
                ++reads;
            }
        });
    }
    for (int i = 0; i < 30 || reads < 100; ++i) {
        auto fresh = makeCache("m");
        fresh->put("k", "v", 0);
        const tessa::WriterLock lock(map->getReaderWriterLock());
        map->setCache(fresh);
    }
    done = true;
    for (auto& reader : readers) {
        reader.join();
    }
    EXPECT_EQ(files(".map").size(), 1U);
}

} // namespace
