// The manager without a directory: filters, search order, and which sets are kept.
#include "server/MapSetManager.h"

#include "unit/server/ServerFixture.h"

#include <ctime>

namespace {

using nis::MapSetManager;
using Names = std::vector<std::string>;

class MapSetManagerTest : public test::ServerFixture {
protected:
    void add(const Saved& saved) {
        const auto set = m_manager.getMapSet(saved.server);
        set->install(set->makeADNisMap(boost::make_shared<nis::NisCache>(save(saved))));
    }
    /// A set with one map, last current at that time.
    void addSet(const std::string& server, long current, const std::string& zone = HIERARCHY,
                const std::string& map = "plain") {
        Saved saved{map, server, {{"server", server}}};
        saved.zone = zone;
        saved.current = current;
        add(saved);
    }
    void addGlobal() {
        Saved saved{"passwd", ".GLOBAL", {{"ann", "ann"}}};
        saved.zone = "";
        add(saved);
    }
    Names currentServers() const {
        Names servers;
        const auto current = m_manager.getCurrent();
        for (const auto& set : *current) {
            servers.push_back(set->getServerName());
        }
        std::sort(servers.begin(), servers.end());
        return servers;
    }
    Names listed() const {
        Names names = *m_manager.getMapList();
        std::sort(names.begin(), names.end());
        return names;
    }

    MapSetManager m_manager{DOMAIN};
};

TEST_F(MapSetManagerTest, EveryMapCanBeServedByDefault) {
    EXPECT_TRUE(MapSetManager::canServeToClients("any"));
    configure({{"nisd.maps", "a b"}, {"nisd.exclude.maps", "b, c"}});
    const std::string log = logOf([] { EXPECT_TRUE(MapSetManager::canServeToClients("a")); });
    EXPECT_TRUE(has(log, "canServeToClients: nisd.maps=a b"));
    EXPECT_FALSE(MapSetManager::canServeToClients("b")) << "in both";
    EXPECT_FALSE(MapSetManager::canServeToClients("c"));
    EXPECT_FALSE(MapSetManager::canServeToClients("d"));
    EXPECT_FALSE(MapSetManager::canServeToClients("A"));
}

TEST_F(MapSetManagerTest, TheFiltersAreReadAgainAfterAReconfiguration) {
    EXPECT_TRUE(MapSetManager::canServeToClients("a"));
    auto config = boost::make_shared<tessa::Properties>();
    config->set("nisd.exclude.maps", "a");
    nis::setConfig(config);
    EXPECT_TRUE(MapSetManager::canServeToClients("a"));
    m_manager.reconfigure();
    EXPECT_FALSE(MapSetManager::canServeToClients("a"));
}

TEST_F(MapSetManagerTest, DerivedMapsAreNeverReadFromTheDirectory) {
    EXPECT_FALSE(MapSetManager::neverDownloadMapFromAD("derived.one"));
    MapSetManager::addDerivedMap("derived.one");
    EXPECT_TRUE(MapSetManager::neverDownloadMapFromAD("derived.one"));
    EXPECT_FALSE(MapSetManager::neverDownloadMapFromAD("derived.two"));
}

TEST_F(MapSetManagerTest, ASetIsMadeOnceForEachServer) {
    const auto set = m_manager.getMapSet("dc1");
    EXPECT_EQ(set->getServerName(), "dc1");
    EXPECT_EQ(m_manager.getMapSet("dc1"), set);
    EXPECT_NE(m_manager.getMapSet("DC1"), set);
    EXPECT_EQ(m_manager.getMapSet(".GLOBAL")->getServerName(), ".GLOBAL");
    EXPECT_EQ(m_manager.getMapSet(".GLOBAL"), m_manager.getMapSet(".GLOBAL"));
}

TEST_F(MapSetManagerTest, TheGlobalSetAnswersWithoutAnyOther) {
    addGlobal();
    EXPECT_EQ(m_manager.match("passwd.byname", "ann").value, "ann");
    EXPECT_TRUE(m_manager.doesMapExist("passwd.byname"));
    EXPECT_EQ(refusal<nis::UnknownMap>([&] { m_manager.match("hosts.byname", "a"); }),
              "No maps present");
    EXPECT_FALSE(m_manager.doesMapExist("hosts.byname"));
    EXPECT_EQ(refusal<nis::UnknownMap>([&] { m_manager.getCurrent(); }), "No maps present");
    EXPECT_EQ(listed(), (Names{"passwd.byname", "passwd.byuid"}));
}

TEST_F(MapSetManagerTest, TheGlobalSetIsAskedFirst) {
    addGlobal();
    Saved saved{"passwd.byname", "dc1", {{"ann", "other"}, {"bob", "bob"}}};
    add(saved);
    m_manager.sortMapSets();
    EXPECT_EQ(m_manager.match("passwd.byname", "ann").value, "ann");
    EXPECT_EQ(refusal<nis::UnknownKey>([&] { m_manager.match("passwd.byname", "bob"); }), "bob")
        << "the map that has the name decides";
    EXPECT_EQ(listed(), (Names{"passwd.byname", "passwd.byname", "passwd.byuid"}));
}

TEST_F(MapSetManagerTest, TheSetThatHoldsTheMapAnswers) {
    addSet("dc1", 100, "CN=a,DC=x", "first");
    addSet("dc2", 200, "CN=b,DC=y", "second");
    m_manager.sortMapSets();
    EXPECT_EQ(currentServers(), (Names{"dc1", "dc2"}));
    EXPECT_EQ(m_manager.match("first", "server").value, "dc1");
    EXPECT_EQ(m_manager.match("second", "server").value, "dc2");
    EXPECT_EQ(m_manager.getFirst("second").value, "dc2");
    EXPECT_EQ(m_manager.getNext("second", "server"), nis::MapEntry::NOT_FOUND);
    EXPECT_GT(m_manager.getOrder("first"), 0U);
    EXPECT_EQ((**m_manager.getAll("first")).value, "dc1");
    EXPECT_EQ(refusal<nis::UnknownMap>([&] { m_manager.match("third", "x"); }), "third");
    EXPECT_EQ(refusal<nis::UnknownKey>([&] { m_manager.match("second", "x"); }), "x");
}

TEST_F(MapSetManagerTest, ANameThatTwoSetsServeIsListedTwice) {
    addSet("dc1", 100, "CN=a,DC=x");
    addSet("dc2", 200, "CN=b,DC=y");
    m_manager.sortMapSets();
    EXPECT_EQ(listed(), (Names{"plain", "plain"}));
}

TEST_F(MapSetManagerTest, EachZoneIsServedByTheSetThatWasCurrentLast) {
    addSet("dc1", 100);
    addSet("dc2", 300);
    m_manager.sortMapSets();
    EXPECT_EQ(currentServers(), Names{"dc2"});
    EXPECT_EQ(m_manager.match("plain", "server").value, "dc2");
}

TEST_F(MapSetManagerTest, TheSetCurrentLongestAgoIsDiscarded) {
    addSet("dc1", 100);
    addSet("dc2", 300);
    addSet("dc3", 200);
    const std::string log = logOf([&] { m_manager.sortMapSets(); });
    EXPECT_TRUE(has(log, "Discarding map set for server dc1"));
    EXPECT_FALSE(has(log, "Discarding map set for server dc3"));
    EXPECT_TRUE(has(log, "setCurrent: our zones are from 1 DC's, nisd.maps.max=2"));
    EXPECT_TRUE(has(log, "add mapset into m_current_mapSets, mapset name : dc2"));
    EXPECT_EQ(files(".map"), (Names{"dom:plain:dc2.map", "dom:plain:dc3.map"}));
}

TEST_F(MapSetManagerTest, TheNumberOfKeptSetsCountsForEachServerInUse) {
    configure({{"nisd.maps.max", "1"}});
    addSet("dc1", 100, "CN=a,DC=x");
    addSet("dc2", 300, "CN=b,DC=y");
    addSet("dc3", 200, "CN=b,DC=y");
    const std::string log = logOf([&] { m_manager.sortMapSets(); });
    EXPECT_EQ(currentServers(), (Names{"dc1", "dc2"})) << "the oldest set, but the one of its zone";
    EXPECT_TRUE(has(log, "setCurrent: our zones are from 2 DC's, nisd.maps.max=2"));
    EXPECT_TRUE(has(log, "Discarding map set for server dc3"));
    EXPECT_EQ(files(".map"), (Names{"dom:plain:dc1.map", "dom:plain:dc2.map"}));
}

class KeptSets : public MapSetManagerTest,
                 public testing::WithParamInterface<std::pair<const char*, std::size_t>> {};

TEST_P(KeptSets, FollowTheConfiguration) {
    const auto& [setting, kept] = GetParam();
    configure({{"nisd.maps.max", setting}});
    for (int i = 1; i <= 5; ++i) {
        addSet("dc" + std::to_string(i), 100 * i);
    }
    m_manager.sortMapSets();
    EXPECT_EQ(files(".map").size(), kept);
    EXPECT_EQ(m_manager.match("plain", "server").value, "dc5");
}

INSTANTIATE_TEST_SUITE_P(Settings, KeptSets,
                         testing::Values(std::pair{"0", 1U}, std::pair{"1", 1U}, std::pair{"3", 3U},
                                         std::pair{"-4", 1U}, std::pair{"none", 1U},
                                         std::pair{"2 or so", 2U}, std::pair{"99", 5U},
                                         std::pair{"99999999999999999999", 5U}));

TEST_F(MapSetManagerTest, DiscardedFilesStayUntilTheLastRequestIsDone) {
    configure({{"nisd.maps.max", "1"}});
    addSet("dc1", 100);
    const auto map = m_manager.getMapSet("dc1")->findMap("plain");
    addSet("dc2", 200);
    m_manager.sortMapSets();
    EXPECT_EQ(map->match("server"), "dc1");
}

TEST_F(MapSetManagerTest, ASnapshotMakesNoSet) {
    addSet("dc1", 100);
    m_manager.sortMapSets();
    m_manager.getAll("plain");
    std::string bytes = test::readFile(files(".snap").at(0));
    bytes.replace(bytes.find("dc1"), 3, "dc9");
    test::writeFile("other.snap", bytes);
    const std::string log = logOf(
        [&] { m_manager.attachSnapshot(boost::make_shared<nis::CacheSnapshot>("other.snap")); });
    EXPECT_TRUE(has(log, "Discarding cache snapshot for unknown map plain"));
    EXPECT_FALSE(exists("other.snap"));
}

TEST_F(MapSetManagerTest, WhatClientsMaySeeIsCached) {
    configure({{"nisd.exclude.maps", "passwd hosts"}});
    EXPECT_TRUE(m_manager.mustCacheThisMap("plain"));
    EXPECT_FALSE(m_manager.mustCacheThisMap("hosts"));
    EXPECT_FALSE(m_manager.mustCacheThisMap("passwd"));
    addGlobal();
    EXPECT_TRUE(m_manager.mustCacheThisMap("passwd")) << "passwd.byname is made from it";
}

TEST_F(MapSetManagerTest, TimesAreTheEarliestOfTheSetsInService) {
    EXPECT_EQ(m_manager.getNextUpdateTime(), 0);
    EXPECT_EQ(m_manager.getLastUpdateTime(), 0);
    Saved saved{"plain"};
    saved.updated = 2000;
    add(saved);
    m_manager.sortMapSets();
    EXPECT_EQ(m_manager.getLastUpdateTime(), 0) << "users and groups were never read";
    saved = {"passwd", ".GLOBAL"};
    saved.updated = 1500;
    add(saved);
    EXPECT_EQ(m_manager.getLastUpdateTime(), 1500);
    const std::time_t next = m_manager.getNextUpdateTime();
    EXPECT_GT(next, std::time(nullptr));
    EXPECT_LE(next, std::time(nullptr) + 1800);
}

TEST_F(MapSetManagerTest, UnwantedUsersAndGroupsDoNotLookLikeOnesNeverRead) {
    configure({{"nisd.maps", "plain"}});
    Saved saved{"plain"};
    saved.updated = 2000;
    add(saved);
    m_manager.sortMapSets();
    EXPECT_EQ(m_manager.getLastUpdateTime(), 2000);
}

} // namespace
