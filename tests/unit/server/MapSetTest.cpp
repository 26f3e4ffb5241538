// One map set without a directory: its tables, filters, orders and times.
#include "server/MapSet.h"

#include "server/GlobalMapSet.h"
#include "unit/server/ServerFixture.h"

#include <ctime>
#include <limits>
#include <thread>

namespace {

using nis::MapSet;
using Names = std::vector<std::string>;

class MapSetTest : public test::ServerFixture {
protected:
    /// Puts a map into the set as the discovery does.
    void add(const Saved& saved) {
        const auto cache = boost::make_shared<nis::NisCache>(save(saved));
        m_set.install(m_set.makeADNisMap(cache));
    }
    Names names() const { return *m_set.getMapList(); }

    MapSet m_set{DOMAIN, "dc1"};
};

TEST_F(MapSetTest, RequestsGoToTheMapOfTheName) {
    add({"plain", "dc1", {{"a", "1"}, {"b", "2"}}});
    EXPECT_EQ(m_set.match("plain", "a"), (nis::MapEntry{"a", "1"}));
    EXPECT_EQ(m_set.getFirst("plain").key, "a");
    EXPECT_EQ(m_set.getNext("plain", "a").key, "b");
    EXPECT_TRUE(m_set.doesMapExist("plain"));
    EXPECT_FALSE(m_set.doesMapExist("other"));
    EXPECT_EQ(m_set.getServerName(), "dc1");
    EXPECT_EQ(refusal<nis::UnknownMap>([&] { m_set.match("other", "a"); }), "other");
    EXPECT_EQ(refusal<nis::UnknownMap>([&] { m_set.getFirst("other"); }), "other");
    EXPECT_EQ(refusal<nis::UnknownMap>([&] { m_set.getNext("other", "a"); }), "other");
    EXPECT_EQ(refusal<nis::UnknownMap>([&] { m_set.getAll("other"); }), "other");
    EXPECT_EQ(refusal<nis::UnknownMap>([&] { m_set.getOrder("other"); }), "other");
    EXPECT_EQ(refusal<nis::UnknownKey>([&] { m_set.match("plain", "c"); }), "c");
}

TEST_F(MapSetTest, TheKindOfAMapFollowsItsName) {
    const std::map<std::string, std::string> kinds{{"netgroup", "ADNetgroupMap"},
                                                   {"services", "ADServicesMap"},
                                                   {"hosts", "ADHostsMap"},
                                                   {"ethers", "ADEthersMap"},
                                                   {"rpc", "ADRpcMap"},
                                                   {"protocols", "ADProtocolsMap"},
                                                   {"networks", "ADNetworksMap"},
                                                   {"aliases", "ADAliasesMap"},
                                                   {"publickey", "ADPublickeyMap"},
                                                   {"netmasks", "ADNetmasksMap"},
                                                   {"timezone", "ADTimezoneMap"},
                                                   {"Hosts", "ExplicitADNisMap"},
                                                   {"hosts.byname", "ExplicitADNisMap"},
                                                   {"auto.home", "ExplicitADNisMap"}};
    for (const auto& [name, kind] : kinds) {
        const auto map = m_set.makeADNisMap(makeCache(name));
        EXPECT_EQ(map->type_name(), kind) << name;
        map->deleteOnClose();
    }
    const nis::GlobalMapSet global(DOMAIN);
    EXPECT_STREQ(global.makeADNisMap(makeCache("passwd"))->type_name(), "PasswdMap");
    EXPECT_STREQ(global.makeADNisMap(makeCache("group"))->type_name(), "GroupMap");
    EXPECT_EQ(global.makeADNisMap(makeCache("hosts")), nullptr);
    EXPECT_EQ(global.getServerName(), ".GLOBAL");
}

TEST_F(MapSetTest, DerivedMapsComeAndGoWithTheirMap) {
    const std::string log = logOf([&] { add({"hosts", "dc1", {{"a", "10.0.0.1 a"}}}); });
    EXPECT_TRUE(has(log, "Install map 'hosts', server dc1"));
    EXPECT_TRUE(has(log, "Install derived map 'hosts.byaddr', server dc1"));
    EXPECT_EQ(names(), (Names{"hosts", "hosts.byaddr", "hosts.byname"}));
}

TEST_F(MapSetTest, AMapIsReplacedUnderItsNameWithItsDerivedMaps) {
    add({"hosts", "dc1", {{"a", "10.0.0.1 a"}}});
    const auto before = m_set.findMap("hosts.byname");
    add({"hosts", "dc1", {{"b", "10.0.0.2 b"}}});
    EXPECT_NE(m_set.findMap("hosts.byname"), before);
    EXPECT_EQ(m_set.match("hosts.byname", "b").value, "10.0.0.2 b");
    EXPECT_THROW(m_set.match("hosts.byname", "a"), nis::UnknownKey);
    EXPECT_EQ(before->match("a"), "10.0.0.1 a") << "a request may still hold it";
    EXPECT_FALSE(before->getDeleteOnClose());
}

TEST_F(MapSetTest, InstallingWhatIsThereChangesNothing) {
    add({"hosts", "dc1", {{"a", "10.0.0.1 a"}}});
    const auto base = boost::dynamic_pointer_cast<nis::ADNisMap>(m_set.findMap("hosts"));
    const auto derived = m_set.findMap("hosts.byname");
    const std::string log = logOf([&] { m_set.install(base); });
    EXPECT_EQ(m_set.findMap("hosts.byname"), derived);
    EXPECT_FALSE(has(log, "nstall"));
}

TEST_F(MapSetTest, ReconfigurationRemovesWhatIsNoLongerPermitted) {
    add({"auto.home", "dc1"});
    add({"auto.data", "dc1"});
    add({"hosts", "dc1", {{"a", "10.0.0.1 a"}}});
    configure({{"nisd.exclude.maps", "auto.home hosts.byaddr"}});
    const std::string log = logOf([&] { m_set.reconfigure(); });
    EXPECT_EQ(names(), (Names{"auto.data", "hosts", "hosts.byname"}));
    EXPECT_FALSE(exists("dom:auto.home:dc1.map"));
    EXPECT_TRUE(exists("dom:hosts:dc1.map"));
    EXPECT_TRUE(has(log, "Deleting map 'auto.home', server dc1. Excluded by configuration."));
    EXPECT_FALSE(has(log, "Deleting map 'hosts"));
}

TEST_F(MapSetTest, AMapThatIsMissingAmongThePermittedGoesToo) {
    add({"auto.home", "dc1"});
    add({"auto.data", "dc1"});
    configure({{"nisd.maps", "auto.data"}});
    m_set.reconfigure();
    EXPECT_EQ(names(), Names{"auto.data"});
    EXPECT_EQ(files(".map"), Names{"dom:auto.data:dc1.map"});
}

TEST_F(MapSetTest, AnExcludedMapIsKeptForTheMapsThatAreMadeOfIt) {
    add({"hosts", "dc1", {{"a", "10.0.0.1 a"}}});
    configure({{"nisd.exclude.maps", "hosts"}});
    m_set.reconfigure();
    EXPECT_EQ(names(), (Names{"hosts.byaddr", "hosts.byname"}));
    EXPECT_TRUE(exists("dom:hosts:dc1.map"));
    configure({{"nisd.exclude.maps", "hosts hosts.byname hosts.byaddr"}});
    m_set.reconfigure();
    EXPECT_TRUE(names().empty());
    EXPECT_FALSE(exists("dom:hosts:dc1.map"));
}

TEST_F(MapSetTest, SnapshotsOfRemovedMapsGoWithThem) {
    add({"hosts", "dc1", {{"a", "10.0.0.1 a"}}});
    m_set.getAll("hosts.byaddr");
    m_set.getAll("hosts.byname");
    ASSERT_EQ(files(".snap").size(), 2U);
    configure({{"nisd.exclude.maps", "hosts.byaddr"}});
    m_set.reconfigure();
    EXPECT_EQ(files(".snap"), Names{"dom:hosts.byname:dc1:1.snap"});
}

TEST_F(MapSetTest, ReconfigurationReadsTheIntervalsAgain) {
    add({"plain", "dc1"});
    configure({{"nisd.update.interval", "50"}});
    const std::time_t before = std::time(nullptr);
    m_set.reconfigure();
    EXPECT_GE(m_set.getNextUpdateTime(), before + 50);
    EXPECT_LE(m_set.getNextUpdateTime(), std::time(nullptr) + 50);
}

TEST_F(MapSetTest, OrdersNeverGoBackWhenASetTakesOver) {
    add({"lower", "dc1"});
    add({"higher", "dc1", {{"a", "1"}, {"b", "2"}, {"c", "3"}}});
    add({"same", "dc1"});
    add({"empty", "dc1", {}});
    add({"hosts", "dc1", {{"a", "10.0.0.1 a"}}});
    std::map<std::string, unsigned int> orders{
        {"lower", 50}, {"higher", 2}, {"same", 1}, {"hosts.byname", 9}};
    const std::time_t before = std::time(nullptr);
    const std::string log = logOf([&] { m_set.setCurrent(orders); });
    EXPECT_EQ(m_set.getOrder("lower"), 51U);
    EXPECT_EQ(m_set.getOrder("higher"), 3U);
    EXPECT_EQ(m_set.getOrder("same"), 2U);
    EXPECT_EQ(m_set.getOrder("empty"), 1U) << "no map is shown with order 0";
    EXPECT_EQ(m_set.getOrder("hosts.byname"), 10U);
    EXPECT_EQ(m_set.getOrder("hosts"), 10U) << "one cache, one order";
    EXPECT_EQ(orders.at("empty"), 0U) << "added";
    EXPECT_EQ(orders.at("lower"), 50U) << "otherwise only read";
    EXPECT_TRUE(has(log, "Current NIS map server is now dc1"));
    EXPECT_GE(m_set.getLastCurrentTime(), before);
    EXPECT_LE(m_set.getLastCurrentTime(), std::time(nullptr));
}

TEST_F(MapSetTest, OrdersAboveTheSignedRangeAreComparedUnsigned) {
    add({"plain", "dc1"});
    std::map<std::string, unsigned int> orders{{"plain", 0x80000000U}};
    std::map<std::string, unsigned int> lower{{"plain", 5}};
    m_set.setCurrent(orders);
    EXPECT_EQ(m_set.getOrder("plain"), 0x80000001U);
    m_set.setCurrent(lower);
    EXPECT_EQ(m_set.getOrder("plain"), 0x80000001U);
}

TEST_F(MapSetTest, TimesAreThoseOfTheMapThatMatters) {
    EXPECT_EQ(m_set.getLastUpdateTime(), 0);
    EXPECT_EQ(m_set.getLastCurrentTime(), 0);
    EXPECT_EQ(m_set.getNextUpdateTime(), std::numeric_limits<std::time_t>::max());
    Saved saved{"old"};
    saved.updated = 1000;
    saved.current = 5000;
    add(saved);
    saved.map = "new";
    saved.updated = 2000;
    saved.current = 4000;
    add(saved);
    EXPECT_EQ(m_set.getLastUpdateTime(), 1000);
    EXPECT_EQ(m_set.getLastCurrentTime(), 5000);
    configure({{"nisd.update.interval.new", "10"}});
    m_set.reconfigure();
    EXPECT_LE(m_set.getNextUpdateTime(), std::time(nullptr) + 10);
}

TEST_F(MapSetTest, TargetZonesAreNamedOnce) {
    Saved saved{"a"};
    saved.zone = "CN=z2,DC=x";
    add(saved);
    saved.map = "b";
    add(saved);
    saved.map = "c";
    saved.zone = "CN=z1,DC=x";
    add(saved);
    saved.map = "d";
    saved.zone = "";
    add(saved);
    EXPECT_EQ(m_set.getTargetZones(), (Names{"CN=z1,DC=x", "CN=z2,DC=x"}));
}

TEST_F(MapSetTest, ASetMarkedForDeletionTakesItsFilesWithIt) {
    {
        MapSet set(DOMAIN, "dc2");
        for (const char* name : {"hosts", "plain"}) {
            set.install(set.makeADNisMap(
                boost::make_shared<nis::NisCache>(save({name, "dc2", {{"a", "10.0.0.1 a"}}}))));
        }
        set.getAll("hosts.byname");
        set.getAll("plain");
        ASSERT_EQ(files("").size(), 4U + files("-journal").size());
        set.deleteOnClose();
    }
    EXPECT_TRUE(std::filesystem::is_empty("."));
}

TEST_F(MapSetTest, SnapshotsAreTakenByTheirMapAlone) {
    add({"plain", "dc1", {{"a", "1"}}});
    m_set.getAll("plain");
    const std::string file = files(".snap").at(0);
    const std::string bytes = test::readFile(file);
    const auto offer = [&](const std::string& from, const std::string& to) {
        std::string changed = bytes;
        changed.replace(changed.find(from), from.size(), to);
        test::writeFile("offered.snap", changed);
        return m_set.attachSnapshot(boost::make_shared<nis::CacheSnapshot>("offered.snap"));
    };
    EXPECT_FALSE(offer("plain", "plane"));
    std::string log;
    log = logOf([&] { EXPECT_FALSE(offer("dc1", "dc2")); });
    EXPECT_TRUE(has(log, "MapSet rejects snapshot 'offered.snap' from server dc2"));
    EXPECT_TRUE(offer("plain", "plain"));
    EXPECT_TRUE(exists("offered.snap"));
}

TEST_F(MapSetTest, ASwitchOfServersWaitsForTheDelay) {
    configure({{"nisd.server.switch.delay", "0"}});
    EXPECT_FALSE(m_set.replaceDCNow()) << "none was detected";
    m_set.findDCswitching();
    const std::time_t detected = std::time(nullptr);
    bool switched = false;
    std::string log;
    while (!switched && std::time(nullptr) < detected + 60) {
        log = logOf([&] { switched = m_set.replaceDCNow(); });
        if (!switched) {
            EXPECT_TRUE(has(log, "Detect DC switching, skip update DC dc1"));
            EXPECT_LE(std::time(nullptr), detected + 2);
            m_set.findDCswitching(); // does not start again
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }
    EXPECT_TRUE(switched);
    EXPECT_GT(std::time(nullptr), detected);
    EXPECT_TRUE(has(log, "switch to DC dc1"));
    EXPECT_TRUE(has(log, "update: nisd.server.switch.delay=0"));
    EXPECT_FALSE(m_set.replaceDCNow()) << "done with";
}

TEST_F(MapSetTest, TheDelayIsTenMinutesByDefault) {
    m_set.findDCswitching();
    const std::string log = logOf([&] { EXPECT_FALSE(m_set.replaceDCNow()); });
    EXPECT_TRUE(has(log, "update: nisd.server.switch.delay=600"));
}

TEST_F(MapSetTest, AServerThatAnswersAgainEndsTheSwitch) {
    configure({{"nisd.server.switch.delay", "-1"}});
    m_set.findDCswitching();
    m_set.forgetDCswitching();
    EXPECT_FALSE(m_set.replaceDCNow());
    m_set.findDCswitching();
    EXPECT_TRUE(m_set.replaceDCNow());
}

TEST_F(MapSetTest, RequestsAndChangesRunSideBySide) {
    add({"hosts", "dc1", {{"a", "10.0.0.1 a"}}});
    std::atomic<bool> done{false};
    std::atomic<int> wrong{0};
    std::vector<std::thread> clients;
    for (int i = 0; i < 2; ++i) {
        clients.emplace_back([&] {
            while (!done) {
                try {
                    wrong += m_set.match("hosts.byname", "a").value == "10.0.0.1 a" ? 0 : 1;
                } catch (const nis::UnknownMap&) {
                    ++wrong;
                }
                m_set.getMapList();
            }
        });
    }
    for (int i = 0; i < 20; ++i) {
        add({"hosts", "dc1", {{"a", "10.0.0.1 a"}}});
        add({"map" + std::to_string(i), "dc1"});
        m_set.updateSnapshots();
    }
    done = true;
    for (std::thread& client : clients) {
        client.join();
    }
    EXPECT_EQ(wrong, 0);
}

} // namespace
