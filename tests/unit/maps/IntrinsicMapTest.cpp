// How a computed map replaces its cache, whatever its records come from.
#include "maps/IntrinsicADNisMap.h"
#include "store/CacheSnapshot.h"
#include "unit/maps/MapsFixture.h"

#include <atomic>
#include <thread>

namespace {

using test::Entries;

/// A computed map whose records the test supplies: name, and a line.
class ListedMap : public nis::IntrinsicADNisMap {
public:
    explicit ListedMap(boost::shared_ptr<nis::NisCache> cache)
        : IntrinsicADNisMap(std::move(cache), "listed.byname", "listed.byid") {}
    void initialize(const tessa::Int64&) override {
        const auto horde = startHorde();
        int id = 0;
        for (const auto& [name, line] : records) {
            horde->add(name, std::to_string(++id), line);
            if (failAfter == id) {
                TESSA_THROW(tessa::IPCException, "connection lost");
            }
        }
        dataHordeComplete(*horde);
    }
    void update(const tessa::Int64& usn) override { initialize(usn); }
    void rebuild(const tessa::Int64& usn) override { initialize(usn); }

    Entries records;
    int failAfter = 0;
};

class IntrinsicMapTest : public test::MapsFixture {
protected:
    IntrinsicMapTest() : m_map(boost::make_shared<ListedMap>(makeCache("listed", ".GLOBAL"))) {
        m_map->records = {{"a", "line a"}, {"b", "line b"}};
    }
    boost::shared_ptr<ListedMap> m_map;
};

TEST_F(IntrinsicMapTest, FirstLoadReplacesTheEmptyCache) {
    const std::string log = logOf([&] { m_map->initialize(1); });
    EXPECT_NE(log.find("map 'listed'  old checksum=  new checksum="), std::string::npos) << log;
    EXPECT_NE(log.find("Replacing old data for map 'listed', server .GLOBAL"), std::string::npos);
    EXPECT_EQ(walk(*m_map), m_map->records);
    EXPECT_EQ(m_map->getOrder(), 1U);
    EXPECT_EQ(m_map->getHighUSN(), tessa::Int64(1));
    EXPECT_EQ(files(".map").size(), 1U) << "the empty one is gone";
    EXPECT_EQ(m_map->matchByID("2"), "line b");
    EXPECT_EQ(refusal<nis::UnknownKey>([&] { m_map->matchByID("3"); }), "3");
    EXPECT_EQ(m_map->getFirstByID().key, "1");
    EXPECT_EQ(m_map->getNextByID("1").key, "2");
    EXPECT_EQ(m_map->getNextByID("2"), nis::MapEntry::NOT_FOUND);
}

TEST_F(IntrinsicMapTest, UnchangedRecordsLeaveCacheAndOrderAlone) {
    m_map->initialize(1);
    const auto cache = m_map->cache();
    const std::string log = logOf([&] { m_map->update(1); });
    EXPECT_NE(log.find("Data has not changed for map 'listed', server .GLOBAL"), std::string::npos);
    EXPECT_EQ(m_map->cache(), cache);
    EXPECT_EQ(m_map->getOrder(), 1U);
}

TEST_F(IntrinsicMapTest, ChangedRecordsMoveTheOrderByOne) {
    m_map->initialize(1);
    m_map->setLastCurrentTime(1234);
    m_map->records["c"] = "line c";
    m_map->update(1);
    EXPECT_EQ(m_map->getOrder(), 2U);
    EXPECT_EQ(walk(*m_map), m_map->records);
    EXPECT_EQ(m_map->getLastCurrentTime(), 1234);
    EXPECT_EQ(files(".map").size(), 1U);
}

TEST_F(IntrinsicMapTest, ExchangedLinesAreAChange) {
    m_map->records = {{"a", "sh"}, {"b", "ok"}};
    m_map->initialize(1);
    m_map->records = {{"a", "ok"}, {"b", "sh"}};
    m_map->update(1);
    EXPECT_EQ(walk(*m_map), m_map->records);
    EXPECT_EQ(m_map->getOrder(), 2U);
    m_map->update(1);
    EXPECT_EQ(m_map->getOrder(), 2U);
    m_map->cache()->remove("digest", 3);
    m_map->update(1);
    EXPECT_EQ(m_map->getOrder(), 3U) << "only the removal moved it";
}

TEST_F(IntrinsicMapTest, CacheWithoutChecksumIsAlwaysReplaced) {
    m_map->initialize(1);
    m_map->cache()->remove("checksum", 2);
    const auto before = m_map->cache();
    m_map->update(1);
    EXPECT_NE(m_map->cache(), before);
}

TEST_F(IntrinsicMapTest, CacheOfDisabledHordeReplacesWithoutComparing) {
    m_map->initialize(1);
    configure({{"nisd.datahorde.enable", "no"}});
    m_map->update(1);
    EXPECT_EQ(m_map->getOrder(), 2U);
    EXPECT_EQ(walk(*m_map), m_map->records);
    EXPECT_EQ(m_map->getHighUSN(), tessa::Int64(1));
    EXPECT_EQ(files(".map").size(), 1U);
}

TEST_F(IntrinsicMapTest, BrokenEnumerationChangesNothing) {
    m_map->initialize(1);
    const Entries before = m_map->records;
    m_map->records = {{"x", "line x"}, {"y", "line y"}};
    m_map->failAfter = 1;
    for (const char* horde : {"yes", "no"}) {
        configure({{"nisd.datahorde.enable", horde}});
        EXPECT_THROW(m_map->update(1), tessa::IPCException);
        EXPECT_EQ(walk(*m_map), before);
        EXPECT_EQ(m_map->getOrder(), 1U);
        EXPECT_EQ(files(".map").size(), 1U);
        EXPECT_TRUE(files(".temp").empty());
    }
}

TEST_F(IntrinsicMapTest, EmptyEnumerationIsAcceptedUnlessConfiguredOtherwise) {
    m_map->initialize(1);
    const Entries before = m_map->records;
    m_map->records.clear();
    configure({{"nisd.empty.enumeration", "keep"}});
    const std::string log = logOf([&] { m_map->update(1); });
    EXPECT_NE(log.find("keeping the old data (nisd.empty.enumeration)"), std::string::npos) << log;
    EXPECT_EQ(walk(*m_map), before);
    configure({});
    m_map->update(1);
    EXPECT_EQ(walk(*m_map), Entries{});
    EXPECT_EQ(m_map->getOrder(), 2U);
}

TEST_F(IntrinsicMapTest, EmptyMapStaysEmptyWithoutAWarning) {
    m_map->records.clear();
    configure({{"nisd.empty.enumeration", "keep"}});
    const std::string log = logOf([&] { m_map->initialize(1); });
    EXPECT_EQ(log.find("keeping"), std::string::npos);
    EXPECT_EQ(m_map->getHighUSN(), tessa::Int64(1));
}

TEST_F(IntrinsicMapTest, DerivedMapsFollowTheReplacement) {
    m_map->initialize(1);
    const auto derived = m_map->getDerivedMaps();
    ASSERT_EQ(derived.size(), 2U);
    EXPECT_EQ(derived.front()->getName(), "listed.byid");
    EXPECT_EQ(derived.back()->getName(), "listed.byname");
    m_map->records = {{"z", "line z"}};
    m_map->update(1);
    EXPECT_EQ(walk(*derived.front()), (Entries{{"1", "line z"}}));
    EXPECT_EQ(transfer(*derived.back()), (Entries{{"z", "line z"}}));
    EXPECT_FALSE(m_map->canServeToClients());
    EXPECT_TRUE(m_map->neverDownloadMapFromAD("listed.byid"));
    EXPECT_TRUE(nis::ServingFilter::neverDownloadMapFromAD("listed.byname"));
    configure({{"nisd.exclude.maps", "listed.byid"}});
    EXPECT_EQ(m_map->getDerivedMaps().size(), 1U);
}

// The order of a replaced cache reads as 0 after a restart, so a snapshot of order 0 with the old
// contents would fit it.
TEST_F(IntrinsicMapTest, SnapshotsOfTheOldContentsAreGoneBeforeTheNewCacheIsComplete) {
    m_map->initialize(1);
    m_map->setOrder(0);
    const auto derived = m_map->getDerivedMaps();
    transfer(*derived.back());
    const auto iterator = derived.back()->getAll();
    EXPECT_EQ((**iterator).key, "a");
    EXPECT_EQ(files(".snap"), std::vector<std::string>{"dom:listed.byname:.GLOBAL:0.snap"});
    m_map->records = {{"z", "line z"}};
    m_map->update(1);
    EXPECT_TRUE(files(".snap").empty());
    EXPECT_EQ((*++*iterator).key, "b") << "the transfer that runs goes on";
    derived.back()->updateSnapshot();
    EXPECT_EQ(files(".snap"), std::vector<std::string>{"dom:listed.byname:.GLOBAL:1.snap"});
    EXPECT_EQ(transfer(*derived.back()), m_map->records);
}

TEST_F(IntrinsicMapTest, RequestsGoOnWhileTheCacheIsReplaced) {
    m_map->initialize(1);
    const auto derived = m_map->getDerivedMaps();
    std::atomic<bool> done{false};
    std::atomic<int> rounds{0};
    std::vector<std::thread> readers;
    for (int i = 0; i < 3; ++i) {
        readers.emplace_back([&, i] {
            while (!done) {
                EXPECT_EQ(derived.back()->match("a"), "line a");
                EXPECT_EQ(m_map->match("b"), "line b");
                EXPECT_EQ(derived.front()->getFirst().key, "1");
                if (i == 0) {
                    EXPECT_EQ(transfer(*derived.back()).count("b"), 1U);
                }
                ++rounds;
            }
        });
    }
    for (int i = 0; i < 15 || rounds < 30; ++i) {
        m_map->records["c"] = std::to_string(i);
        m_map->update(1);
    }
    done = true;
    for (auto& reader : readers) {
        reader.join();
    }
    EXPECT_EQ(files(".map").size(), 1U);
}

} // namespace
