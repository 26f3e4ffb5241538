// Passes of explicit maps over the directory.
#include "maps/MapFactory.h"
#include "maps/netgroup/ADNetgroupMap.h"
#include "unit/maps/DirectoryFixture.h"

#include <sys/mount.h>

namespace {

using test::Entries;
using test::FakeQuorad;
using test::TestDirectory;

class ExplicitRefreshTest : public test::FakeDirectoryFixture {
protected:
    static boost::shared_ptr<nis::ADNisMap> makeMap(const std::string& name = "m") {
        return nis::makeDirectoryMap(makeCache(name, "dc1", MAP_DN));
    }
    static tessa::ADObject entry(const std::string& id, const std::string& key,
                                 const std::string& value, const std::string& server = "dc1") {
        return FakeQuorad::entry(id, key, value, server);
    }
    /// The map as the next start finds it.
    static boost::shared_ptr<nis::ADNisMap> reopen(boost::shared_ptr<nis::ADNisMap>& map) {
        const std::string file = map->cache()->getFilename();
        map.reset();
        return nis::makeDirectoryMap(boost::make_shared<nis::NisCache>(file));
    }
};

TEST_F(ExplicitRefreshTest, FirstLoad) {
    const auto map = makeMap();
    entries({entry("1", "a", "1"), entry("2", "b", "2")});
    const std::string log = logOf([&] { map->initialize(50); });
    EXPECT_NE(log.find("Beginning initial load for map 'm', server dc1"), std::string::npos);
    EXPECT_NE(log.find("Initial load complete for map 'm', server dc1. 2 new records"),
              std::string::npos);
    EXPECT_EQ(walk(*map), (Entries{{"a", "1"}, {"b", "2"}}));
    EXPECT_EQ(map->getHighUSN(), tessa::Int64(50));
    EXPECT_GT(map->getLastUpdateTime(), 0);
    EXPECT_EQ(m_quorad.state().filter, "(usnchanged<=50)");
}

TEST_F(ExplicitRefreshTest, LoadThatFailsNeverLooksComplete) {
    for (const auto outcome :
         {FakeQuorad::Outcome::BREAKS_AFTER_A_PAGE, FakeQuorad::Outcome::UNAVAILABLE}) {
        auto map = makeMap();
        entries({entry("1", "a", "1")}, outcome);
        EXPECT_THROW(map->initialize(50), tessa::IPCException);
        EXPECT_EQ(map->getHighUSN(), tessa::Int64::ZERO);
        EXPECT_FALSE(map->getReaderWriterLock().holdsWriterLock());
        EXPECT_EQ(reopen(map)->getHighUSN(), tessa::Int64::ZERO);
    }
    auto map = makeMap();
    entries({entry("1", "a", "1"), entry("2", "b", "2", "dc2")});
    EXPECT_EQ(refusal<nis::ServerMismatch>([&] { map->initialize(50); }),
              "Data is from different server");
    EXPECT_EQ(map->getHighUSN(), tessa::Int64::ZERO);
}

TEST_F(ExplicitRefreshTest, NothingIsAskedWhenTheNumberHasNotMoved) {
    configure({{"nisd.update.interval.m", "5000"}});
    const auto map = makeMap();
    entries({entry("1", "a", "1")});
    map->initialize(50);
    configure({{"nisd.update.interval.m", "9000"}});
    entries({});
    const std::string log = logOf([&] { map->update(50); });
    EXPECT_NE(log.find("Skipping update for map 'm', server dc1: no AD records have changed"),
              std::string::npos);
    EXPECT_EQ(m_quorad.state().filter, "") << "no search";
    EXPECT_EQ(walk(*map), (Entries{{"a", "1"}}));
}

TEST_F(ExplicitRefreshTest, SkippedUpdateMovesTheNextOne) {
    const auto map = makeMap();
    entries({});
    map->initialize(50);
    configure({{"nisd.update.interval.m", "0"}});
    map->reconfigure();
    ASSERT_EQ(map->getNextUpdateTime(), nis::ADNisMap::NEVER);
    configure({{"nisd.update.interval.m", "100"}});
    map->reconfigure();
    const std::int64_t before = map->getNextUpdateTime();
    while (std::time(nullptr) + 100 <= before) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    map->update(50);
    EXPECT_GT(map->getNextUpdateTime(), before);
}

TEST_F(ExplicitRefreshTest, UpdateAsksForWhatChanged) {
    const auto map = makeMap();
    entries({entry("1", "a", "1"), entry("2", "b", "2")});
    map->initialize(50);
    auto gone = entry("2", "", "");
    gone.set("cn", "\x01");
    entries({entry("1", "c", "3"), gone});
    const std::string log = logOf([&] { map->update(60); });
    EXPECT_EQ(m_quorad.state().filter, "(&(usnchanged>=51)(usnchanged<=60))");
    EXPECT_NE(log.find("Beginning update for map 'm', server dc1"), std::string::npos);
    EXPECT_NE(log.find("Update complete for map 'm', server dc1. 2 records updated"),
              std::string::npos);
    EXPECT_EQ(walk(*map), (Entries{{"c", "3"}}));
    EXPECT_EQ(map->getHighUSN(), tessa::Int64(60));
}

TEST_F(ExplicitRefreshTest, BrokenUpdateKeepsWhatItWroteButNotItsNumber) {
    auto map = makeMap();
    entries({entry("1", "a", "1")});
    map->initialize(50);
    entries({entry("1", "a", "changed")}, FakeQuorad::Outcome::BREAKS_AFTER_A_PAGE);
    EXPECT_THROW(map->update(60), tessa::IPCException);
    EXPECT_EQ(walk(*map), (Entries{{"a", "changed"}}));
    EXPECT_EQ(map->getHighUSN(), tessa::Int64(50));
    const auto again = reopen(map);
    EXPECT_EQ(walk(*again), (Entries{{"a", "changed"}}));
    EXPECT_EQ(again->getHighUSN(), tessa::Int64(50));
}

TEST_F(ExplicitRefreshTest, OtherServerAtTheEndOfAnUpdate) {
    const auto map = makeMap();
    entries({});
    map->initialize(50);
    entries({entry("1", "a", "1")});
    m_quorad.set([](auto& state) { state.servers["example.com"] = "dc2"; });
    EXPECT_EQ(refusal<nis::ServerMismatch>([&] { map->update(60); }),
              "Data is from different server");
    EXPECT_EQ(walk(*map), (Entries{{"a", "1"}}));
    EXPECT_EQ(map->getHighUSN(), tessa::Int64(50));
}

TEST_F(ExplicitRefreshTest, RebuildReadsEverythingAgain) {
    const auto map = makeMap();
    entries({entry("1", "a", "1"), entry("2", "b", "2")});
    map->initialize(50);
    entries({entry("1", "c", "3")});
    const std::string log = logOf([&] { map->rebuild(50); });
    EXPECT_EQ(m_quorad.state().filter, "(usnchanged<=50)");
    for (const char* part :
         {"Beginning rebuild for map 'm', server dc1", "Set the highest USN of the map to 0",
          "Rebuild complete for map 'm', server dc1."}) {
        EXPECT_NE(log.find(part), std::string::npos) << part;
    }
    EXPECT_EQ(walk(*map), (Entries{{"b", "2"}, {"c", "3"}})) << "nothing is cleared beforehand";
    EXPECT_EQ(map->getHighUSN(), tessa::Int64(50));
}

TEST_F(ExplicitRefreshTest, BrokenRebuildLeavesAMapThatIsServedAfterARestart) {
    auto map = makeMap();
    entries({entry("1", "a", "1")});
    map->initialize(50);
    entries({entry("1", "a", "2")}, FakeQuorad::Outcome::BREAKS_AFTER_A_PAGE, "(usnchanged<=60)");
    EXPECT_THROW(map->rebuild(60), tessa::IPCException);
    EXPECT_EQ(map->getHighUSN(), tessa::Int64(50));
    const auto again = reopen(map);
    EXPECT_EQ(again->getHighUSN(), tessa::Int64(50));
    EXPECT_EQ(walk(*again), (Entries{{"a", "2"}}));
}

TEST_F(ExplicitRefreshTest, RebuildThatCannotAskForDeletions) {
    auto map = makeMap();
    entries({entry("1", "a", "1")});
    map->initialize(50);
    entries({entry("1", "a", "2")}, FakeQuorad::Outcome::UNAVAILABLE);
    EXPECT_THROW(map->rebuild(60), tessa::IPCException);
    EXPECT_EQ(map->getHighUSN(), tessa::Int64(50));
    const auto again = reopen(map);
    EXPECT_EQ(again->getHighUSN(), tessa::Int64(50));
    EXPECT_EQ(walk(*again), (Entries{{"a", "1"}}));
}

TEST_F(ExplicitRefreshTest, ProcessThatDiesInARebuildLeavesTheMapAsItWas) {
    const auto map = makeMap();
    std::vector<tessa::ADObject> many;
    Entries before;
    for (int i = 0; i < 200; ++i) {
        many.push_back(entry(std::to_string(i), "k" + std::to_string(i), "old"));
        before["k" + std::to_string(i)] = "old";
    }
    entries(many);
    map->initialize(50);
    for (auto& object : many) {
        object.set("adminDescription", std::string(3000, 'n'));
    }
    entries(many, FakeQuorad::Outcome::BREAKS_AFTER_A_PAGE, "(usnchanged<=60)");
    const std::string file = map->cache()->getFilename();
    m_quorad.set([&](auto& state) {
        state.onBreak = [file] {
            // The files as a process that is killed at this moment leaves them.
            std::filesystem::create_directory("crash");
            for (const std::string& name : {file, file + "-journal"}) {
                if (std::filesystem::exists(name)) {
                    std::filesystem::copy_file(name, "crash/" + name);
                }
            }
        };
    });
    EXPECT_THROW(map->rebuild(60), tessa::IPCException);
    std::filesystem::current_path("crash");
    {
        const nis::NisCache left(file);
        EXPECT_EQ(left.getHighUSN(), tessa::Int64(50));
        EXPECT_EQ(layer(left, 0), before);
    }
    std::filesystem::current_path("..");
}

TEST_F(ExplicitRefreshTest, EntryWithoutIdentifierStopsThePass) {
    const auto map = makeMap();
    auto object = entry("1", "a", "1");
    object.set("objectGUID", "short");
    entries({object});
    EXPECT_EQ(refusal<tessa::BadDataException>([&] { map->initialize(50); }),
              "entry 'CN=entry1,CN=nismaps' has no GUID");
}

TEST_F(ExplicitRefreshTest, WithoutDirectoryInterfaceNothingIsLost) {
    const auto map = makeMap();
    entries({entry("1", "a", "1")});
    map->initialize(50);
    nis::setADInterface({});
    EXPECT_THROW(map->update(60), tessa::IPCException);
    EXPECT_EQ(walk(*map), (Entries{{"a", "1"}}));
}

TEST_F(ExplicitRefreshTest, NetgroupTablesFollowAFullDisk) {
    ASSERT_EQ(::mount("tmpfs", m_folder.path().c_str(), "tmpfs", 0, "size=600k"), 0)
        << "needs a private namespace";
    std::filesystem::current_path("/");
    std::filesystem::current_path(m_folder.path());
    {
        auto map = makeMap("netgroup");
        const auto derived = map->getDerivedMaps();
        entries({entry("1", "ng", "(h,u,d)")});
        map->initialize(50);
        std::vector<tessa::ADObject> many;
        for (int i = 0; i < 400; ++i) {
            many.push_back(entry("x" + std::to_string(i), "ng" + std::to_string(i),
                                 "(host" + std::to_string(i) + ",,) " + std::string(900, 'g')));
        }
        many.push_back(entry("1", "ng", "(changed,u,d)"));
        entries(many);
        EXPECT_THROW(map->update(60), nis::FileSystemError);
        EXPECT_EQ(walk(*map), (Entries{{"ng", "(h,u,d)"}}));
        EXPECT_EQ(walk(*derived.front()), (Entries{{"h.d", "ng"}}));
        EXPECT_EQ(map->getHighUSN(), tessa::Int64(50));
        // With room again the next pass begins at the same point.
        ASSERT_EQ(::mount("tmpfs", m_folder.path().c_str(), "tmpfs", MS_REMOUNT, "size=20m"), 0);
        map->update(60);
        EXPECT_EQ(walk(*map).size(), 401U);
        EXPECT_EQ(derived.front()->match("changed.d"), "ng");
        EXPECT_EQ(walk(*derived.front()).size(), 401U);
        map->deleteOnClose();
        map.reset();
    }
    std::filesystem::current_path("/");
    ASSERT_EQ(::umount(m_folder.path().c_str()), 0);
}

class ExplicitWithQuoradTest : public test::RealDirectoryFixture {
protected:
    ExplicitWithQuoradTest()
        : RealDirectoryFixture(start() +
                               TestDirectory::entry("hosts", "alpha", "alpha", "10.0.0.1 alpha a") +
                               TestDirectory::entry("hosts", "beta", "beta", "10.0.0.2 beta b")) {}

    static std::string start() { return TestDirectory::base() + TestDirectory::map("hosts"); }
    static boost::shared_ptr<nis::ADNisMap> makeMap() {
        return nis::makeDirectoryMap(
            makeCache("hosts", TestDirectory::SERVER,
                      std::string("CN=hosts,CN=nismaps,") + TestDirectory::ZONE));
    }
};

TEST_F(ExplicitWithQuoradTest, MapFollowsTheDirectory) {
    const auto map = makeMap();
    const auto derived = map->getDerivedMaps();
    map->initialize(TestDirectory::highestCommittedUSN());
    EXPECT_EQ(walk(*derived.front()), (Entries{{"alpha", "10.0.0.1 alpha a"},
                                               {"a", "10.0.0.1 alpha a"},
                                               {"beta", "10.0.0.2 beta b"},
                                               {"b", "10.0.0.2 beta b"}}));
    // One changes its address and alias, one goes, one comes.
    m_quorad.replace(start() + TestDirectory::entry("hosts", "alpha", "alpha", "10.0.0.3 alpha c") +
                     TestDirectory::entry("hosts", "gamma", "gamma", "10.0.0.4 gamma"));
    map->update(TestDirectory::highestCommittedUSN());
    EXPECT_EQ(walk(*derived.front()), (Entries{{"alpha", "10.0.0.3 alpha c"},
                                               {"c", "10.0.0.3 alpha c"},
                                               {"gamma", "10.0.0.4 gamma"}}));
    EXPECT_EQ(walk(*derived.back()),
              (Entries{{"10.0.0.3", "10.0.0.3 alpha c"}, {"10.0.0.4", "10.0.0.4 gamma"}}));
    EXPECT_EQ(transfer(*derived.back()), walk(*derived.back()));
    const auto order = map->getOrder();
    map->update(TestDirectory::highestCommittedUSN());
    EXPECT_EQ(map->getOrder(), order);
    map->rebuild(TestDirectory::highestCommittedUSN());
    EXPECT_EQ(walk(*derived.front()).size(), 3U);
}

// What is gone shows only in a search for changes, which a reading from the start is not.
TEST_F(ExplicitWithQuoradTest, RebuildNoticesDeletions) {
    const auto map = makeMap();
    map->initialize(TestDirectory::highestCommittedUSN());
    m_quorad.replace(start() + TestDirectory::entry("hosts", "alpha", "alpha", "10.0.0.1 alpha a"));
    map->rebuild(TestDirectory::highestCommittedUSN());
    EXPECT_EQ(walk(*map), (Entries{{"a", "10.0.0.1 alpha a"}, {"alpha", "10.0.0.1 alpha a"}}));
    map->update(TestDirectory::highestCommittedUSN());
    EXPECT_EQ(walk(*map).size(), 2U);
}

TEST_F(ExplicitWithQuoradTest, OutageLeavesTheMapServed) {
    const auto map = makeMap();
    map->initialize(TestDirectory::highestCommittedUSN());
    const auto usn = map->getHighUSN();
    const auto before = walk(*map);
    m_quorad.stop();
    EXPECT_THROW(map->update(usn + 100), tessa::TESSAException);
    EXPECT_THROW(map->rebuild(usn + 100), tessa::TESSAException);
    EXPECT_EQ(walk(*map), before);
    EXPECT_EQ(map->getHighUSN(), usn);
    m_quorad.start();
    m_quorad.replace(start() + TestDirectory::entry("hosts", "beta", "beta", "10.0.0.2 beta b"));
    map->update(TestDirectory::highestCommittedUSN());
    EXPECT_EQ(walk(*map), (Entries{{"b", "10.0.0.2 beta b"}, {"beta", "10.0.0.2 beta b"}}));
}

} // namespace
