// Another domain controller answers.
#include "unit/server/ServerFixture.h"

#include <thread>

namespace {

using T = test::TestDirectory;
using Names = std::vector<std::string>;

class DirectorySwitchTest : public test::DirectoryFixture {
protected:
    static constexpr const char* DC1 = "dc1.example.com";
    static constexpr const char* DC2 = "dc2.example.com";
    static constexpr const char* DC3 = "dc3.example.com";

    /// A directory of that server, by whose entry it can be told.
    static std::string directoryOf(const std::string& server) {
        return company(server) + T::entry("auto.home", "mark", "server", server);
    }
    void start() {
        startDirectory(directoryOf(DC1));
        m_server = makeServer();
        m_server->update(false, true);
    }
    std::string serving() const { return m_server->match(DOMAIN, "auto.home", "server").value; }
    /// An update while the old server is waited for, whose data cannot be had.
    std::string updateInVain() {
        return logOf([&] { EXPECT_THROW(m_server->update(false, true), tessa::IPCException); });
    }
    std::string update(bool rebuild = false) {
        return logOf([&] { m_server->update(rebuild, true); });
    }

    std::unique_ptr<nis::ADNisServer> m_server;
};

TEST_F(DirectorySwitchTest, TheOldServersMapsStayDuringTheDelay) {
    start();
    m_directory->replace(directoryOf(DC2));
    for (int i = 0; i < 2; ++i) {
        updateInVain();
        EXPECT_EQ(serving(), DC1);
        EXPECT_EQ(m_server->match(DOMAIN, "hosts.byname", "a").value, "10.0.0.1 a");
    }
    EXPECT_TRUE(has(updateInVain(), "Detect DC switching, skip update DC dc1.example.com"));
}

TEST_F(DirectorySwitchTest, UsersAndGroupsGoOnDuringTheDelay) {
    start();
    m_directory->replace(directoryOf(DC2) + T::user("bob", 1001, 100));
    updateInVain();
    EXPECT_TRUE(has(m_server->match(DOMAIN, "passwd.byname", "bob").value, "bob:"));
}

TEST_F(DirectorySwitchTest, TheNewServersMapsComeAfterTheDelay) {
    configure({{"nisd.server.switch.delay", "1"}});
    start();
    const auto order = m_server->getOrder(DOMAIN, "auto.home");
    m_directory->replace(directoryOf(DC2));
    updateInVain();
    const std::time_t detected = std::time(nullptr);
    std::string log;
    while (serving() == DC1 && std::time(nullptr) < detected + 60) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        try {
            log = update();
        } catch (const tessa::IPCException&) {
            EXPECT_LE(std::time(nullptr), detected + 3);
        }
    }
    EXPECT_EQ(serving(), DC2);
    EXPECT_GT(std::time(nullptr), detected);
    EXPECT_TRUE(has(log, "switch to DC dc1.example.com"));
    EXPECT_TRUE(has(log, "delete mapset from m_current_mapSets, server = dc1.example.com"));
    EXPECT_TRUE(has(log, "add mapset into m_current_mapSets, mapset name : dc2.example.com"));
    EXPECT_TRUE(has(log, "Current NIS map server is now dc2.example.com"));
    EXPECT_GT(m_server->getOrder(DOMAIN, "auto.home"), order);
    EXPECT_EQ(files("dc1.example.com.map").size(), 2U) << "kept in case it comes back";
    EXPECT_EQ(files("dc2.example.com.map").size(), 2U);
}

TEST_F(DirectorySwitchTest, TheServerBeforeLastIsDiscarded) {
    configure({{"nisd.server.switch.delay", "-1"}});
    start();
    for (const char* server : {DC2, DC3}) {
        m_directory->replace(directoryOf(server));
        updateInVain();
        update();
        EXPECT_EQ(serving(), server);
    }
    EXPECT_EQ(files("dc1.example.com.map").size(), 0U);
    EXPECT_EQ(files("dc2.example.com.map").size(), 2U);
    EXPECT_EQ(files("dc3.example.com.map").size(), 2U);
}

TEST_F(DirectorySwitchTest, AServerThatComesBackIsServedFromItsOldCaches) {
    configure({{"nisd.server.switch.delay", "-1"}});
    start();
    for (const char* server : {DC2, DC1}) {
        m_directory->replace(directoryOf(server));
        updateInVain();
        update();
    }
    EXPECT_EQ(serving(), DC1);
}

TEST_F(DirectorySwitchTest, ASwitchThatDidNotLastIsForgotten) {
    configure({{"nisd.server.switch.delay", "-1"}});
    start();
    m_directory->replace(directoryOf(DC2));
    updateInVain();
    m_directory->replace(directoryOf(DC1));
    update();
    EXPECT_EQ(serving(), DC1);
    m_directory->replace(directoryOf(DC2));
    updateInVain(); // detected anew
    EXPECT_EQ(serving(), DC1);
    update();
    EXPECT_EQ(serving(), DC2);
}

TEST_F(DirectorySwitchTest, ARebuildSwitchesAtOnce) {
    start();
    m_directory->replace(directoryOf(DC2));
    update(true);
    EXPECT_EQ(serving(), DC2);
}

TEST_F(DirectorySwitchTest, AllZonesOfAServerMoveTogether) {
    configure({{"nisd.server.switch.delay", "-1"}});
    const std::string child = "CN=unit," + std::string(ZONE);
    const auto zones = [&child](const std::string& server) {
        return directoryOf(server) + T::container(child) + T::container("CN=nismaps," + child) +
               T::map("auto.data", child) + T::entry("auto.data", "d", "server", server, child);
    };
    startDirectory(zones(DC1), child);
    m_server = makeServer();
    update();
    m_directory->replace(zones(DC2));
    updateInVain();
    update();
    EXPECT_EQ(serving(), DC2);
    EXPECT_EQ(m_server->match(DOMAIN, "auto.data", "server").value, DC2);
    const Names names = mapList(*m_server);
    EXPECT_EQ(std::count(names.begin(), names.end(), "auto.home"), 1) << "one set serves";
}

TEST_F(DirectorySwitchTest, ARestartWaitsForTheDelayLikeAnyUpdate) {
    start();
    m_server.reset();
    m_directory->replace(directoryOf(DC2));
    connect();
    m_server = makeServer();
    EXPECT_EQ(serving(), DC1);
    updateInVain();
    EXPECT_EQ(serving(), DC1);
}

TEST_F(DirectorySwitchTest, AZoneThatIsGoneIsNoLongerServed) {
    const std::string child = "CN=unit," + std::string(ZONE);
    startDirectory(company() + T::container(child) + T::container("CN=nismaps," + child) +
                       T::map("auto.data", child) + T::entry("auto.data", "d", "d", "d", child),
                   child);
    m_server = makeServer();
    update();
    EXPECT_EQ(m_server->match(DOMAIN, "auto.data", "d").value, "d");
    m_directory.reset();
    // The machine moves to the zone above.
    m_directory = std::make_unique<test::TestDirectory>(company());
    update();
    EXPECT_THROW(m_server->match(DOMAIN, "auto.data", "d"), nis::UnknownMap);
    EXPECT_EQ(m_server->match(DOMAIN, "hosts.byname", "a").value, "10.0.0.1 a");
}

} // namespace
