#include "directory/ADInterface.h"

#include "common/Globals.h"
#include "common/NisException.h"
#include "support/TestDirectory.h"
#include "unit/directory/FakeQuorad.h"

#include <gtest/gtest.h>

namespace {

using nis::ADInterface;
using test::FakeQuorad;
using Names = std::vector<std::string>;

constexpr const char* ZONE = "CN=zoneA,CN=Zones,DC=example,DC=com";
constexpr const char* PARENT = "CN=Zones2,DC=example,DC=com";
constexpr const char* MAPS = "CN=nismaps,CN=zoneA,CN=Zones,DC=example,DC=com";
constexpr const char* PARENT_MAPS = "CN=nismaps,CN=Zones2,DC=example,DC=com";

// Named so that it runs first: the zone is read once in the life of a process.
TEST(ADInterfaceDeathTest, WithoutDirectoryClientThereIsNoZone) {
    EXPECT_EXIT(ADInterface::getZoneDN(), testing::ExitedWithCode(5),
                "While reading zonename setting: ");
}

TEST(ADInterfaceDeathTest, ComputerThatIsNotJoined) {
    EXPECT_EXIT(ADInterface::getZoneName(), testing::ExitedWithCode(1),
                "Error: this computer is not joined to a domain");
}

TEST(ADInterfaceDeathTest, ZoneWithoutName) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            FakeQuorad quorad;
            quorad.set([](auto& state) { state.settings["zonename"] = "CN=,DC=x"; });
            ADInterface::getZoneName();
        },
        testing::ExitedWithCode(5), "Cannot find zone name. Cannot determine NIS domain.");
}

class ADInterfaceTest : public testing::Test {
protected:
    ADInterfaceTest() {
        nis::setConfig(boost::make_shared<tessa::Properties>());
        m_quorad.set([](auto& state) {
            state.servers["example.com"] = "dc1";
            state.searches[MAPS].objects = {FakeQuorad::object("hosts", "dc1"),
                                            FakeQuorad::object("auto.home", "dc1")};
        });
    }
    /// Names of the maps of a server.
    static Names names(const ADInterface& directory, const std::string& server) {
        Names found;
        const auto maps = directory.getMapNames(server);
        for (const auto& object : *maps) {
            found.push_back(object[ADInterface::MAP_NAME].asString());
        }
        return found;
    }
    static std::string notKnown(const ADInterface& directory, const std::string& server) {
        try {
            directory.getMapNames(server);
        } catch (const tessa::IPCException& e) {
            return e.what();
        }
        return "";
    }
    template <typename Action> static std::string logOf(const Action& action) {
        nis::logger->setThreshold(tessa::LOG_TRACE);
        testing::internal::CaptureStderr();
        action();
        nis::logger->setThreshold(tessa::LOG_INFORMATION);
        return testing::internal::GetCapturedStderr();
    }
    static bool contains(const std::string& text, const std::string& part) {
        return text.find(part) != std::string::npos;
    }

    FakeQuorad m_quorad;
};

TEST_F(ADInterfaceTest, ZoneNames) {
    EXPECT_EQ(ADInterface::zoneNameOf("CN=a,DC=x"), "a");
    EXPECT_EQ(ADInterface::zoneNameOf(ZONE), "zoneA");
    EXPECT_EQ(ADInterface::zoneNameOf("CN=everything else"), "everything else");
    EXPECT_EQ(ADInterface::zoneNameOf("CN="), "");
    EXPECT_EQ(ADInterface::zoneNameOf(""), "");
    EXPECT_EQ(ADInterface::zoneNameOf("CN=,DC=x"), "");
    EXPECT_EQ(ADInterface::getZoneName(), "zoneA");
}

TEST_F(ADInterfaceTest, ZoneIsReadOnce) {
    EXPECT_EQ(ADInterface::getZoneDN(), ZONE);
    m_quorad.set([](auto& state) { state.settings["zonename"] = "CN=other,DC=x"; });
    EXPECT_EQ(ADInterface::getZoneDN(), ZONE);
}

TEST_F(ADInterfaceTest, EntryFilters) {
    EXPECT_EQ(ADInterface::entryFilter(0, 2000), "(usnchanged<=2000)");
    EXPECT_EQ(ADInterface::entryFilter(5, 9), "(&(usnchanged>=6)(usnchanged<=9))");
    EXPECT_EQ(ADInterface::entryFilter(1000, 2000), "(&(usnchanged>=1001)(usnchanged<=2000))");
}

TEST_F(ADInterfaceTest, EntriesAreSearchedOneLevelDeep) {
    const std::string dn = std::string("CN=hosts,") + MAPS;
    m_quorad.set([&](auto& state) {
        state.searches[dn].objects = {FakeQuorad::entry("1", "alpha", "10.0.0.1 alpha", "dc1")};
    });
    ADInterface directory;
    const auto entries = directory.getMapEntries(dn, 5, 9);
    tessa::ADObject object;
    ASSERT_TRUE(entries->next(object));
    EXPECT_EQ(object[ADInterface::ENTRY_KEY].asString(), "alpha");
    EXPECT_FALSE(entries->next(object));
    const auto asked = m_quorad.state();
    EXPECT_EQ(asked.filter, "(&(usnchanged>=6)(usnchanged<=9))");
    EXPECT_EQ(asked.domain, "example.com");
    EXPECT_EQ(asked.scope, 1);
    EXPECT_EQ(asked.attributes, (Names{"cn", "description", "adminDescription"}));
}

TEST_F(ADInterfaceTest, FailuresAreLoggedAndPassedOn) {
    ADInterface directory;
    std::string log = logOf([&] {
        EXPECT_THROW(directory.getMapEntries("CN=none,DC=example,DC=com", 0, 9),
                     tessa::NotFoundException);
    });
    EXPECT_TRUE(contains(log, "While retrieving map entries for map 'CN=none,DC=example,DC=com' "
                              "from AD: no such object"))
        << log;
    log = logOf([&] { EXPECT_THROW(directory.getCurrentHighUSN("other"), tessa::IPCException); });
    EXPECT_TRUE(
        contains(log, "While retrieving highestCommittedUSN from AD: no controller answers"))
        << log;
}

TEST_F(ADInterfaceTest, NisDomainOfTheZoneObject) {
    EXPECT_EQ(ADInterface::getNisDomain(), "zoneA");
    std::string log = logOf([] { EXPECT_EQ(ADInterface::getNisDomain(), "zoneA"); });
    EXPECT_TRUE(contains(log, "NisDomain not set in AD: using zone name: zoneA"));
    m_quorad.set([](auto& state) { state.nisDomain = "lab.example.com"; });
    log = logOf([] { EXPECT_EQ(ADInterface::getNisDomain(), "lab.example.com"); });
    EXPECT_TRUE(contains(log, "NisDomain from AD: lab.example.com"));
    m_quorad.set([](auto& state) { state.nisDomain = "../etc"; });
    log = logOf([] { EXPECT_EQ(ADInterface::getNisDomain(), "zoneA"); });
    EXPECT_TRUE(contains(log, "NisDomain '../etc' of zone"));
    m_quorad.set([](auto& state) { state.zoneObjectReadable = false; });
    log = logOf([] { EXPECT_EQ(ADInterface::getNisDomain(), "zoneA"); });
    EXPECT_TRUE(contains(log, "While retrieving NisDomain from AD: no controller answers"));
}

TEST_F(ADInterfaceTest, ConfiguredNisDomainWins) {
    m_quorad.set([](auto& state) { state.nisDomain = "lab"; });
    const auto configured = [](const std::string& name) {
        auto config = boost::make_shared<tessa::Properties>();
        config->set("NISD.Domain.Name", name);
        nis::setConfig(config);
        return logOf([] { ADInterface::getNisDomain(); });
    };
    EXPECT_FALSE(contains(configured("lab"), "overrided"));
    EXPECT_EQ(ADInterface::getNisDomain(), "lab");
    EXPECT_TRUE(contains(configured("harbour"), "NisDomain lab overrided by conf: harbour"));
    EXPECT_EQ(ADInterface::getNisDomain(), "harbour");
    EXPECT_TRUE(contains(configured("a/b"), "Value 'a/b' of property nisd.domain.name"));
    EXPECT_EQ(ADInterface::getNisDomain(), "lab");
}

TEST_F(ADInterfaceTest, DaemonThatServesAlreadyIsNotEnded) {
    m_quorad.set([](auto& state) {
        state.nisDomain = "lab";
        state.settings.erase("hostname");
    });
    EXPECT_EQ(ADInterface::readNisDomain(), "lab");
    m_quorad.set([](auto& state) { state.zoneObjectReadable = false; });
    EXPECT_THROW(ADInterface::readNisDomain(), tessa::IPCException);
}

TEST_F(ADInterfaceTest, ZonesServersAndMaps) {
    ADInterface directory;
    EXPECT_EQ(directory.getZoneHierarchy(), "");
    const std::string log = logOf([&] { directory.updateZoneHierarchy(); });
    for (const std::string part :
         {"update zone hierarchy begin", "get zone hierarchy: CN=zoneA,CN=Zones,DC=example,DC=com",
          "find zone hierarchy changed, origin: , now: CN=zoneA",
          "find zone CN=zoneA,CN=Zones,DC=example,DC=com from server dc1",
          "update nis map names begin", "update zone hierarchy complete"}) {
        EXPECT_TRUE(contains(log, part)) << part << " in " << log;
    }
    EXPECT_EQ(directory.getZoneHierarchy(), std::string(ZONE) + "\n");
    EXPECT_EQ(directory.getZoneDNs(), (std::map<std::string, std::string>{{ZONE, "dc1"}}));
    EXPECT_EQ(directory.getDomainDN("dc1"), "example.com");
    try {
        directory.getDomainDN("dc9");
        ADD_FAILURE();
    } catch (const nis::UnknownDC& e) {
        EXPECT_STREQ(e.what(), "didn't find DC dc9");
    }
    EXPECT_EQ(names(directory, "dc1"), (Names{"hosts", "auto.home"}));
    const auto maps = directory.getMapNames("dc1");
    EXPECT_EQ((*maps)[0][ADInterface::ZONE_DN].asString(), ZONE);
    EXPECT_EQ((*maps)[0][ADInterface::SERVER_NAME].asString(), "dc1");
    EXPECT_EQ((*maps)[0][ADInterface::DN].asString(), "CN=hosts,CN=nismaps");
    const auto asked = m_quorad.state();
    EXPECT_EQ(asked.filter, "(objectClass=*)");
    EXPECT_EQ(asked.scope, 1);
    EXPECT_FALSE(contains(logOf([&] { directory.updateZoneHierarchy(); }), "hierarchy changed"));
}

TEST_F(ADInterfaceTest, LetterCaseOfServerNames) {
    ADInterface directory;
    directory.updateZoneHierarchy();
    EXPECT_EQ(names(directory, "DC1"), (Names{"hosts", "auto.home"}));
    EXPECT_EQ(directory.getZonesFromServer("dc1"), Names{ZONE});
    EXPECT_EQ(directory.getZonesFromServer("DC1"), Names{});
}

TEST_F(ADInterfaceTest, MapsOfTheNearestZoneComeFirst) {
    m_quorad.set([](auto& state) {
        // Not a name at all, and the zone once more.
        state.hierarchy = std::string(ZONE) + "\nnonsense\n" + PARENT + "\n" + ZONE + "\n";
        state.searches[PARENT_MAPS].objects = {FakeQuorad::object("services", "dc1")};
    });
    ADInterface directory;
    directory.updateZoneHierarchy();
    EXPECT_EQ(names(directory, "dc1"), (Names{"hosts", "auto.home", "services"}));
    EXPECT_EQ(directory.getZonesFromServer("dc1"), (Names{PARENT, ZONE}));
}

TEST_F(ADInterfaceTest, MissingContainerMeansNoMaps) {
    m_quorad.set([](auto& state) { state.searches.clear(); });
    ADInterface directory;
    const std::string log = logOf([&] { directory.updateZoneHierarchy(); });
    EXPECT_TRUE(contains(log, std::string("NIS map container missing: ") + MAPS)) << log;
    EXPECT_EQ(names(directory, "dc1"), Names{});
}

TEST_F(ADInterfaceTest, EmptyHierarchyKeepsEverything) {
    ADInterface directory;
    directory.updateZoneHierarchy();
    for (const char* hierarchy : {"", "nonsense\n"}) {
        m_quorad.set([&](auto& state) {
            state.hierarchy = hierarchy;
            state.searches.clear();
        });
        const std::string log = logOf([&] { directory.updateZoneHierarchy(); });
        EXPECT_EQ(contains(log, "get nothing about zone hierarchy from quorad."),
                  std::string(hierarchy).empty());
        EXPECT_EQ(directory.getZoneHierarchy(), std::string(ZONE) + "\n");
        EXPECT_EQ(names(directory, "dc1"), (Names{"hosts", "auto.home"}));
    }
}

TEST_F(ADInterfaceTest, ZoneThatIsNoLongerInTheHierarchyGoes) {
    m_quorad.set([](auto& state) {
        state.hierarchy = std::string(ZONE) + "\n" + PARENT + "\n";
        state.searches[PARENT_MAPS].objects = {FakeQuorad::object("services", "dc1")};
    });
    ADInterface directory;
    directory.updateZoneHierarchy();
    m_quorad.set([](auto& state) { state.hierarchy = std::string(ZONE) + "\n"; });
    directory.updateZoneHierarchy();
    EXPECT_EQ(directory.getZonesFromServer("dc1"), Names{ZONE});
    EXPECT_EQ(names(directory, "dc1"), (Names{"hosts", "auto.home"}));
}

TEST_F(ADInterfaceTest, OutageKeepsServersAndMaps) {
    ADInterface directory;
    directory.updateZoneHierarchy();
    m_quorad.set([](auto& state) {
        state.servers.clear();
        state.searches[MAPS].outcome = FakeQuorad::Outcome::UNAVAILABLE;
    });
    const std::string log = logOf([&] { directory.updateZoneHierarchy(); });
    EXPECT_TRUE(contains(log, "While connecting AD: no controller answers")) << log;
    EXPECT_TRUE(contains(log, "While retrieving map names from AD: no controller answers")) << log;
    EXPECT_EQ(directory.getZonesFromServer("dc1"), Names{ZONE});
    EXPECT_EQ(names(directory, "dc1"), (Names{"hosts", "auto.home"}));
}

TEST_F(ADInterfaceTest, SearchThatBreaksOffIsNotTheWhole) {
    ADInterface directory;
    directory.updateZoneHierarchy();
    m_quorad.set([](auto& state) {
        state.searches[MAPS].outcome = FakeQuorad::Outcome::BREAKS_AFTER_A_PAGE;
        state.searches[MAPS].objects = {FakeQuorad::object("hosts", "dc1")};
    });
    directory.updateZoneHierarchy();
    EXPECT_EQ(names(directory, "dc1"), (Names{"hosts", "auto.home"}));
}

TEST_F(ADInterfaceTest, MapNamesThatWereNeverReadAreNotKnown) {
    m_quorad.set(
        [](auto& state) { state.searches[MAPS].outcome = FakeQuorad::Outcome::UNAVAILABLE; });
    ADInterface directory;
    EXPECT_EQ(notKnown(directory, "dc1"), "map names of server dc1 are not known");
    directory.updateZoneHierarchy();
    EXPECT_EQ(notKnown(directory, "dc1"),
              std::string("map names of zone ") + ZONE + " are not known");
    m_quorad.set([](auto& state) { state.searches[MAPS].outcome = FakeQuorad::Outcome::FINE; });
    directory.updateZoneHierarchy();
    EXPECT_EQ(names(directory, "dc1"), (Names{"hosts", "auto.home"}));
}

TEST_F(ADInterfaceTest, OneOfTwoZonesNotKnown) {
    m_quorad.set([](auto& state) {
        state.hierarchy = std::string(ZONE) + "\n" + PARENT + "\n";
        state.searches[PARENT_MAPS].outcome = FakeQuorad::Outcome::UNAVAILABLE;
    });
    ADInterface directory;
    directory.updateZoneHierarchy();
    EXPECT_EQ(notKnown(directory, "dc1"),
              std::string("map names of zone ") + PARENT + " are not known");
}

TEST_F(ADInterfaceTest, MapsOfAnotherServerAreNotTaken) {
    ADInterface directory;
    directory.updateZoneHierarchy();
    // Another controller answers for the zone, but the search still comes from the first.
    m_quorad.set([](auto& state) { state.servers["example.com"] = "dc2"; });
    const std::string log = logOf([&] { directory.updateZoneHierarchy(); });
    EXPECT_TRUE(contains(log, "come from dc1 instead of dc2")) << log;
    EXPECT_EQ(notKnown(directory, "dc2"),
              std::string("map names of zone ") + ZONE + " are not known");
    EXPECT_EQ(notKnown(directory, "dc1"), "map names of server dc1 are not known")
        << "the old server has not lost its maps";
    EXPECT_EQ(directory.getDomainDN("dc1"), "example.com");
    m_quorad.set(
        [](auto& state) { state.searches[MAPS].objects = {FakeQuorad::object("hosts", "dc2")}; });
    directory.updateZoneHierarchy();
    EXPECT_EQ(names(directory, "dc2"), Names{"hosts"});
}

TEST_F(ADInterfaceTest, ServerNameThatIsNoFileName) {
    m_quorad.set([](auto& state) { state.servers["example.com"] = "../../etc/cron.d/x"; });
    ADInterface directory;
    const std::string log = logOf([&] { directory.updateZoneHierarchy(); });
    EXPECT_TRUE(contains(log, "Server name '../../etc/cron.d/x' of zone CN=zoneA")) << log;
    EXPECT_TRUE(directory.getZoneDNs().empty());
    m_quorad.set([](auto& state) { state.servers["example.com"] = "dc1"; });
    directory.updateZoneHierarchy();
    m_quorad.set([](auto& state) { state.servers["example.com"] = ""; });
    directory.updateZoneHierarchy();
    EXPECT_EQ(directory.getZonesFromServer("dc1"), Names{ZONE}) << "the previous server stays";
}

TEST_F(ADInterfaceTest, EnumerationsEndWithTheirException) {
    m_quorad.set([](auto& state) {
        state.users = {"ines", "tomas"};
        state.groups = {"staff"};
    });
    ADInterface directory;
    directory.startListUser();
    EXPECT_EQ(directory.nextUser().name, "ines");
    EXPECT_EQ(directory.nextUser().name, "tomas");
    EXPECT_THROW(directory.nextUser(), tessa::EndOfListException);
    directory.endListUser();
    directory.startListGroup();
    const auto group = directory.nextGroup();
    EXPECT_EQ(group.name, "staff");
    EXPECT_EQ(group.members, Names{"member"});
    EXPECT_THROW(directory.nextGroup(), tessa::EndOfListException);
    directory.endListGroup();
}

// The same against the real directory client.
TEST(ADInterfaceWithQuoradTest, ReadsZoneMapsEntriesAndAccounts) {
    using test::TestDirectory;
    nis::setConfig(boost::make_shared<tessa::Properties>());
    TestDirectory quorad(
        TestDirectory::base(TestDirectory::SERVER, ZONE, "lab") + TestDirectory::map("hosts") +
        TestDirectory::entry("hosts", "alpha", "alpha", "10.0.0.1 alpha") +
        TestDirectory::user("ines", 1001, 1000) + TestDirectory::group("staff", 1000, {"ines"}));
    EXPECT_EQ(ADInterface::getNisDomain(), "lab");
    ADInterface directory;
    directory.updateZoneHierarchy();
    EXPECT_EQ(directory.getZoneDNs(),
              (std::map<std::string, std::string>{{ZONE, TestDirectory::SERVER}}));
    const auto maps = directory.getMapNames(TestDirectory::SERVER);
    ASSERT_EQ(maps->size(), 1U);
    const std::string dn = (*maps)[0][ADInterface::DN].asString();
    EXPECT_EQ((*maps)[0][ADInterface::MAP_NAME].asString(), "hosts");
    const auto usn =
        directory.getCurrentHighUSN("example.com")[ADInterface::HIGHEST_COMMITTED_USN].asInt64();
    const auto entries = directory.getMapEntries(dn, 0, usn);
    tessa::ADObject object;
    ASSERT_TRUE(entries->next(object));
    EXPECT_EQ(object[ADInterface::ENTRY_VALUE].asString(), "10.0.0.1 alpha");
    EXPECT_EQ(object[ADInterface::SERVER_NAME].asString(), TestDirectory::SERVER);
    EXPECT_EQ(object.guid().size(), 16U);
    EXPECT_FALSE(entries->next(object));
    const auto nothing = directory.getMapEntries(dn, usn, usn + 1);
    EXPECT_FALSE(nothing->next(object));
    directory.startListUser();
    EXPECT_EQ(directory.nextUser().name, "ines");
    directory.endListUser();
    directory.startListGroup();
    EXPECT_EQ(directory.nextGroup().members, Names{"ines"});
    directory.endListGroup();
}

} // namespace
