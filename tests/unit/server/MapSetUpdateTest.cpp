// Updates of the maps from a real directory.
#include "unit/server/UpdateFixture.h"

#include <atomic>
#include <filesystem>
#include <thread>

namespace {

using T = test::TestDirectory;
using Names = std::vector<std::string>;
using MapSetUpdateTest = test::UpdateFixture;

TEST_F(MapSetUpdateTest, TheFirstUpdateBringsAllMapsIntoService) {
    start(company());
    EXPECT_TRUE(list().empty());
    const std::string log = update(false, false);
    EXPECT_EQ(list(), m_all);
    EXPECT_EQ(value("hosts.byname", "a"), "10.0.0.1 a");
    EXPECT_EQ(value("hosts.byaddr", "10.0.0.2"), "10.0.0.2 b");
    EXPECT_EQ(value("auto.home", "ann"), "srv:/home/ann");
    EXPECT_TRUE(has(value("passwd.byname", "ann"), "ann:"));
    EXPECT_EQ(value("group.bygid", "100"), value("group.byname", "staff"));
    EXPECT_TRUE(has(log, "New map 'hosts' discovered on server dc1.example.com"));
    EXPECT_TRUE(has(log, "Installing new well known map 'hosts', server dc1.example.com"));
    EXPECT_TRUE(has(log, "Installing new map 'auto.home', server dc1.example.com"));
    EXPECT_TRUE(has(log, "New map 'passwd' scheduled for creation"));
    EXPECT_NE(m_server->getLastUpdateTime(), 0);
    EXPECT_GT(m_server->getNextUpdateTime(), std::time(nullptr));
}

TEST_F(MapSetUpdateTest, AMapThatVanishesGoesWithItsDerivedMaps) {
    start(company());
    refresh();
    m_server->getAll(DOMAIN, "hosts.byname");
    ASSERT_TRUE(exists("dom:hosts:dc1.example.com.map"));
    m_directory->replace(T::base() + T::map("auto.home") +
                         T::entry("auto.home", "e1", "ann", "srv:/home/ann") +
                         T::user("ann", 1000, 100) + T::group("staff", 100, {"ann"}));
    const std::string log = update(false, false);
    EXPECT_TRUE(has(log, "Deleting map 'hosts'. No longer on server dc1.example.com"));
    EXPECT_TRUE(has(log, "Uninstall map 'hosts.byaddr', server dc1.example.com"));
    EXPECT_EQ(value("hosts.byname", "a"), "(no map)");
    EXPECT_EQ(value("auto.home", "ann"), "srv:/home/ann");
    EXPECT_EQ(files(".map").size(), 3U);
    EXPECT_TRUE(files(".snap").empty());
    m_directory->replace(company());
    update(false, false);
    EXPECT_EQ(list(), m_all);
}

TEST_F(MapSetUpdateTest, WithoutAnyMapTheServerSaysSo) {
    start(company());
    refresh();
    m_directory->replace(T::base() + T::user("ann", 1000, 100));
    const std::string log = refresh();
    EXPECT_TRUE(has(log, "No NIS maps found on server dc1.example.com"));
    EXPECT_TRUE(has(value("passwd.byname", "ann"), "ann:"));
    EXPECT_EQ(value("hosts.byname", "a"), "(no map)");
}

TEST_F(MapSetUpdateTest, AMapThatIsNotDueIsLeftAlone) {
    start(company());
    refresh();
    m_directory->replace(company() + T::entry("auto.home", "e2", "bob", "srv:/home/bob"));
    const std::string log = update(false, false);
    EXPECT_FALSE(has(log, "Beginning update"));
    EXPECT_EQ(value("auto.home", "bob"), "(no key)");
    refresh();
    EXPECT_EQ(value("auto.home", "bob"), "srv:/home/bob");
}

TEST_F(MapSetUpdateTest, AMapAheadOfItsServerIsReadAgainInFull) {
    // What a controller looks like that is put back to an older state: lower numbers, and objects
    // that are gone without a trace.
    const std::string later = "uSNChanged: 1000000000000000000\n\n";
    std::string ldif = company() + T::entry("hosts", "h3", "c", "10.0.0.3 c");
    ldif.insert(ldif.find("\n\n", ldif.find("CN=h3,")) + 1, later);
    start(ldif);
    refresh();
    const std::int64_t before = T::highestCommittedUSN();
    ASSERT_EQ(value("hosts.byname", "c"), "10.0.0.3 c");
    const auto order = m_server->getOrder(DOMAIN, "hosts.byname");
    m_directory->stop();
    for (const auto& file : std::filesystem::directory_iterator("/var/velmorix/quorad")) {
        std::filesystem::remove(file);
    }
    T::write(company() + T::entry("auto.home", "e2", "bob", "srv:/home/bob"));
    m_directory->start();
    ASSERT_LT(T::highestCommittedUSN(), before);
    const std::string log = refresh();
    EXPECT_TRUE(has(log, "Map 'hosts' is ahead of server dc1.example.com"));
    EXPECT_EQ(value("hosts.byname", "c"), "(no key)");
    EXPECT_EQ(value("hosts.byname", "a"), "10.0.0.1 a");
    EXPECT_EQ(value("auto.home", "bob"), "srv:/home/bob");
    EXPECT_GT(m_server->getOrder(DOMAIN, "hosts.byname"), order);
    EXPECT_FALSE(has(refresh(), "is ahead of server"));
}

TEST_F(MapSetUpdateTest, ADueMapIsUpdatedByItself) {
    configure({{"nisd.update.interval.auto.home", "1"}});
    start(company());
    refresh();
    m_directory->replace(company() + T::entry("auto.home", "e2", "bob", "srv:/home/bob") +
                         T::entry("hosts", "h3", "c", "10.0.0.3 c"));
    const std::time_t limit = std::time(nullptr) + 60;
    while (value("auto.home", "bob") == "(no key)" && std::time(nullptr) < limit) {
        update(false, false);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    EXPECT_EQ(value("auto.home", "bob"), "srv:/home/bob");
    EXPECT_EQ(value("hosts.byname", "c"), "(no key)");
}

TEST_F(MapSetUpdateTest, ARebuildReadsEveryMapAgain) {
    start(company());
    refresh();
    const std::string log = update(true, true);
    EXPECT_TRUE(has(log, "Beginning rebuild for map 'auto.home', server dc1.example.com"));
    EXPECT_TRUE(has(log, "Beginning rebuild for map 'hosts', server dc1.example.com"));
    EXPECT_TRUE(has(log, "Data has not changed for map 'passwd', server .GLOBAL"));
    EXPECT_EQ(list(), m_all);
    EXPECT_EQ(value("hosts.byname", "a"), "10.0.0.1 a");
}

TEST_F(MapSetUpdateTest, ExcludedMapsAreNotInstalledAndComeBackWhenPermitted) {
    configure({{"nisd.exclude.maps", "auto.home hosts.byaddr passwd.byuid"}});
    start(company());
    const std::string log = refresh();
    EXPECT_TRUE(has(log, "Ignoring map 'auto.home' from server dc1.example.com (as configured)"));
    EXPECT_EQ(list(),
              (Names{"group.bygid", "group.byname", "hosts", "hosts.byname", "passwd.byname"}));
    configure({});
    m_server->reconfigure();
    update(false, false);
    EXPECT_EQ(list(), m_all) << "derived maps of installed ones, too";
    EXPECT_EQ(value("hosts.byaddr", "10.0.0.1"), "10.0.0.1 a");
    configure({{"nisd.exclude.maps", "auto.home hosts.byaddr passwd.byuid"}});
    m_server->reconfigure();
    EXPECT_EQ(value("auto.home", "ann"), "(no map)");
    EXPECT_EQ(value("hosts.byaddr", "10.0.0.1"), "(no map)");
    EXPECT_FALSE(exists("dom:auto.home:dc1.example.com.map"));
    refresh();
    EXPECT_EQ(value("auto.home", "ann"), "(no map)");
}

TEST_F(MapSetUpdateTest, OnlyPermittedMapsAreInstalled) {
    configure({{"nisd.maps", "auto.home"}});
    start(company());
    const std::string log = refresh();
    EXPECT_EQ(list(), Names{"auto.home"});
    EXPECT_EQ(files(".map"), Names{"dom:auto.home:dc1.example.com.map"});
    EXPECT_TRUE(has(log, "Ignoring map 'hosts' from server dc1.example.com (as configured)"));
    EXPECT_TRUE(has(log, "Ignoring map 'passwd' (as configured)"));
    EXPECT_NE(m_server->getLastUpdateTime(), 0);
}

TEST_F(MapSetUpdateTest, AnExcludedMapStaysForTheMapsThatAreMadeOfIt) {
    start(company());
    refresh();
    configure({{"nisd.exclude.maps", "hosts passwd"}});
    m_server->reconfigure();
    m_directory->replace(company() + T::entry("hosts", "h3", "c", "10.0.0.3 c"));
    refresh();
    EXPECT_EQ(value("hosts.byname", "c"), "10.0.0.3 c");
    EXPECT_EQ(value("hosts", "c"), "(no map)");
    EXPECT_TRUE(has(value("passwd.byname", "ann"), "ann:"));
}

TEST_F(MapSetUpdateTest, TheNetgroupsAreReadForTheirInversionsAlone) {
    configure({{"nisd.maps", "netgroup.byhost"}});
    start(company() + T::map("netgroup") + T::entry("netgroup", "g", "g", "(h,u,d)"));
    refresh();
    EXPECT_EQ(list(), Names{"netgroup.byhost"});
    EXPECT_EQ(value("netgroup.byhost", "h.d"), "g");
}

TEST_F(MapSetUpdateTest, NamesThatCannotBePartOfAFileNameAreRefused) {
    const std::string tooLong(210, 'x');
    start(company() + T::map("a/b") + T::map("..") + T::map(tooLong) + T::map("../../tmp/escaped"));
    const std::string log = refresh();
    EXPECT_EQ(list(), m_all);
    for (const std::string& name : {std::string("a/b"), std::string(".."), tooLong}) {
        EXPECT_TRUE(has(log, "Name of map '" + name +
                                 "' from server dc1.example.com cannot be part of a file name. "
                                 "Ignoring."))
            << name;
    }
    EXPECT_FALSE(exists("/tmp/escaped"));
}

TEST_F(MapSetUpdateTest, DerivedMapsAreNotReadFromTheDirectory) {
    start(company() + T::map("hosts.byname") + T::entry("hosts.byname", "x", "x", "explicit"));
    refresh();
    const std::string log = refresh();
    EXPECT_TRUE(
        has(log, "Ignoring map 'hosts.byname' from server dc1.example.com: disallowed map"));
    EXPECT_EQ(list(), m_all);
    EXPECT_EQ(value("hosts.byname", "a"), "10.0.0.1 a");
    EXPECT_EQ(value("hosts.byname", "x"), "(no key)");
    EXPECT_FALSE(exists("dom:hosts.byname:dc1.example.com.map"));
}

TEST_F(MapSetUpdateTest, AMapOfTheNearerZoneHidesThatOfTheZoneAbove) {
    const std::string child = "CN=unit," + std::string(ZONE);
    const std::string both = company() + T::container(child) + T::container("CN=nismaps," + child) +
                             T::map("auto.data", child) +
                             T::entry("auto.data", "d", "d", "of the child", child);
    const std::string hiding =
        both + T::map("auto.home", child) + T::entry("auto.home", "x", "ann", "near", child);
    startDirectory(hiding, child);
    m_server = makeServer();
    refresh();
    EXPECT_EQ(value("auto.home", "ann"), "near");
    EXPECT_EQ(value("auto.data", "d"), "of the child");
    EXPECT_EQ(value("hosts.byname", "a"), "10.0.0.1 a") << "inherited";
    const auto order = m_server->getOrder(DOMAIN, "auto.home");
    m_directory->replace(both);
    refresh();
    EXPECT_EQ(value("auto.home", "ann"), "srv:/home/ann") << "now that of the zone above";
    EXPECT_GT(m_server->getOrder(DOMAIN, "auto.home"), order);
    EXPECT_EQ(files("auto.home:dc1.example.com.1.map").size() +
                  files("auto.home:dc1.example.com.map").size(),
              1U);
    m_directory->replace(hiding);
    update(false, false);
    EXPECT_EQ(value("auto.home", "ann"), "near");
}

TEST_F(MapSetUpdateTest, DataOfAnotherServerIsNeverMixedIn) {
    start(company());
    refresh();
    const auto set = boost::make_shared<nis::MapSet>(DOMAIN, T::SERVER);
    // The other server takes over after the zones were looked at.
    m_directory->replace(company("dc2.example.com") +
                         T::entry("auto.home", "e2", "bob", "srv:/home/bob"));
    try {
        set->update(false, true);
        FAIL() << "data of another server was taken";
    } catch (const nis::ServerMismatch& e) {
        EXPECT_STREQ(e.what(), "Data is from different server");
        EXPECT_EQ(e.arg(), "dc2.example.com");
    }
    EXPECT_TRUE(set->getMapList()->empty());
}

TEST_F(MapSetUpdateTest, AServerThatNobodyKnowsHasNotLostItsMaps) {
    start(company());
    refresh();
    nis::MapSet set(DOMAIN, "dc9.example.com");
    EXPECT_THROW(set.update(false, true), tessa::IPCException);
}

TEST_F(MapSetUpdateTest, ACacheOfAnotherPlaceInTheHierarchyIsDeleted) {
    startDirectory(company());
    save({"auto.data", T::SERVER});
    Saved saved{"auto.home", T::SERVER};
    saved.hierarchy = "CN=moved," + std::string(ZONE);
    const std::string file = save(saved);
    const std::string present = nis::getADInterface()->getZoneHierarchy();
    saved = {"auto.master", T::SERVER};
    saved.hierarchy = present;
    save(saved);
    const std::string log = logOf([&] { m_server = makeServer(); });
    EXPECT_FALSE(exists(file));
    EXPECT_TRUE(has(log, "Discarding cache " + file + ": other zone hierarchy"));
    EXPECT_EQ(list(),
              (present == HIERARCHY ? Names{"auto.data", "auto.master"} : Names{"auto.master"}));
}

TEST_F(MapSetUpdateTest, RestartsGoOnFromTheCaches) {
    start(company());
    refresh();
    m_server->getAll(DOMAIN, "auto.home");
    m_server.reset();
    const Names snapshots = files(".snap");
    ASSERT_EQ(snapshots.size(), 1U);
    m_server = makeServer();
    EXPECT_EQ(list(), m_all);
    EXPECT_EQ(files(".snap"), snapshots);
    EXPECT_EQ(value("auto.home", "ann"), "srv:/home/ann");
    const std::string log = refresh();
    EXPECT_TRUE(has(log, "Skipping update for map 'auto.home'"));
    EXPECT_TRUE(has(log, "Data has not changed for map 'passwd'"));
    EXPECT_EQ(list(), m_all);
}

TEST_F(MapSetUpdateTest, AFlushReadsEverythingAgain) {
    start(company());
    refresh();
    m_server.reset();
    m_server = makeServer(true);
    EXPECT_TRUE(list().empty());
    const std::string log = refresh();
    EXPECT_TRUE(has(log, "Beginning initial load for map 'auto.home'"));
    EXPECT_EQ(list(), m_all);
}

TEST_F(MapSetUpdateTest, RequestsAreAnsweredDuringUpdates) {
    start(company());
    refresh();
    std::atomic<bool> done{false};
    std::atomic<int> wrong{0};
    std::vector<std::thread> clients;
    for (const char* map : {"hosts.byname", "hosts.byaddr"}) {
        clients.emplace_back([&, map] {
            const std::string key = std::string(map) == "hosts.byname" ? "a" : "10.0.0.1";
            while (!done) {
                wrong += value(map, key) == "10.0.0.1 a" ? 0 : 1;
                wrong += transferOf(*m_server, map).count(key) == 1 ? 0 : 1;
                list();
            }
        });
    }
    for (int i = 0; i < 10; ++i) {
        m_directory->replace(company() + T::entry("hosts", "n", "n" + std::to_string(i),
                                                  "10.1.0.1 n" + std::to_string(i)));
        m_server->update(i == 5, true);
    }
    done = true;
    for (std::thread& client : clients) {
        client.join();
    }
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(value("hosts.byname", "n9"), "10.1.0.1 n9");
}

TEST_F(MapSetUpdateTest, AFolderThatIsGoneEndsTheUpdate) {
    start(company());
    refresh();
    std::filesystem::remove_all(m_folder.path());
    m_directory->replace(company() + T::map("auto.new"));
    EXPECT_THROW(m_server->update(false, true), nis::FileSystemError);
    EXPECT_EQ(value("auto.home", "ann"), "srv:/home/ann");
}

} // namespace
