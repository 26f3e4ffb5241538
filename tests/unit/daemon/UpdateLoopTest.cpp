// When updates run, and what the signals do. The directory behind them is real.
#include "daemon/UpdateLoop.h"

#include "common/Globals.h"
#include "server/ADNisServer.h"
#include "unit/karst/CapturedError.h"
#include "unit/karst/Eventually.h"
#include "unit/server/ServerFixture.h"

#include <csignal>
#include <future>

#include <arpa/inet.h>

namespace {

using T = test::TestDirectory;

class UpdateLoopTest : public test::DirectoryFixture {
protected:
    static constexpr const char* CACHE_FOLDER = "/var/velmorix/nis";
    static constexpr const char* CONFIG_FILE = "/etc/velmorix/velmorix.conf";

    UpdateLoopTest() { lowerFlags(); }
    ~UpdateLoopTest() override {
        if (m_loop.valid()) {
            nis::gShutdownNow = true;
            m_loop.wait();
        }
        lowerFlags();
    }
    static void lowerFlags() {
        nis::gShutdownNow = nis::gReconfigureNow = nis::gRebuildMapNow = nis::gRefreshMapNow =
            nis::gInitialized = false;
    }
    /// Directory, cache folder and server, as the daemon has them.
    void start(const std::string& ldif, test::Entries settings = {}) {
        settings.emplace("nisd.domain.name", DOMAIN);
        configure(settings);
        startDirectory(ldif);
        std::filesystem::create_directory(CACHE_FOLDER);
        std::filesystem::current_path(CACHE_FOLDER);
        nis::setNisServer(boost::make_shared<nis::ADNisServer>(DOMAIN, false));
    }
    void runLoop() { m_loop = std::async(std::launch::async, nis::UpdateLoop); }
    nis::LoopEnd endOfLoop() { return m_loop.get(); }
    nis::LoopEnd shutDown() {
        nis::InitiateShutdown(SIGTERM);
        return endOfLoop();
    }
    static bool serves(const char* map, const std::string& key) {
        try {
            nis::getNisServer()->match(DOMAIN, map, key);
            return true;
        } catch (const nis::BadArgument&) {
            return false;
        }
    }
    static std::string withBob() {
        return company() + T::entry("auto.home", "e2", "bob", "srv:/home/bob");
    }
    static bool bobIsServed() { return serves("auto.home", "bob"); }
    /// How often the text is there.
    static int count(const std::string& text, const std::string& part) {
        int found = 0;
        for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
            ++found;
        }
        return found;
    }

    std::future<nis::LoopEnd> m_loop;
};

TEST_F(UpdateLoopTest, HandlersRaiseTheirFlagsAndDoNothingElse) {
    nis::InitiateReconfigure(SIGHUP);
    EXPECT_TRUE(nis::gReconfigureNow);
    EXPECT_FALSE(nis::gShutdownNow || nis::gRebuildMapNow || nis::gRefreshMapNow);
    nis::InitiateRebuildMap(SIGUSR1);
    EXPECT_TRUE(nis::gRebuildMapNow);
    EXPECT_FALSE(nis::gShutdownNow || nis::gRefreshMapNow);
    nis::InitiateRefreshMap(SIGUSR2);
    EXPECT_TRUE(nis::gRefreshMapNow);
    EXPECT_FALSE(nis::gShutdownNow);
    nis::InitiateShutdown(SIGTERM);
    EXPECT_TRUE(nis::gShutdownNow);
}

TEST_F(UpdateLoopTest, WithoutMapsTheFirstPassUpdatesAtOnce) {
    start(company());
    runLoop();
    EXPECT_TRUE(test::eventually([] { return nis::gInitialized.load(); }));
    EXPECT_TRUE(serves("hosts.byname", "a"));
    EXPECT_EQ(shutDown(), nis::LoopEnd::Shutdown);
    EXPECT_TRUE(nis::gShutdownNow) << "is never lowered";
}

TEST_F(UpdateLoopTest, WithFreshMapsTheFirstUpdateWaitsForTheInterval) {
    start(company());
    ASSERT_EQ(nis::Update(false, true), 0);
    nis::gInitialized = true;
    const std::string log = logOf([&] {
        runLoop();
        nis::InitiateRebuildMap(SIGUSR1);
        EXPECT_TRUE(test::eventually([] { return !nis::gRebuildMapNow; }));
        shutDown();
    });
    EXPECT_EQ(count(log, "Update begin"), 1) << log;
    EXPECT_TRUE(has(log, "UpdateLoop: nisd.update.interval=1800 seconds"));
}

TEST_F(UpdateLoopTest, MapsThatWereUpdatedLongAgoAreDueAtOnce) {
    start(company());
    ASSERT_EQ(nis::Update(false, true), 0);
    nis::setNisServer(nullptr);
    for (const std::string& name : files(".map")) {
        nis::NisCache(name).setLastUpdateTime(1000);
    }
    nis::setNisServer(boost::make_shared<nis::ADNisServer>(DOMAIN, false));
    nis::gInitialized = true;
    m_directory->replace(company() + T::map("auto.new") + T::entry("auto.new", "n", "n", "new"));
    runLoop();
    EXPECT_TRUE(test::eventually([] { return serves("auto.new", "n"); }));
}

TEST_F(UpdateLoopTest, ASignalRefreshesTheMaps) {
    start(company());
    runLoop();
    ASSERT_TRUE(test::eventually([] { return nis::gInitialized.load(); }));
    m_directory->replace(withBob());
    const std::string log = logOf([&] {
        nis::InitiateRefreshMap(SIGUSR2);
        EXPECT_TRUE(test::eventually(bobIsServed));
        shutDown();
    });
    EXPECT_FALSE(nis::gRefreshMapNow);
    EXPECT_TRUE(has(log, "Refresh existing maps"));
    EXPECT_FALSE(has(log, "Beginning rebuild"));
}

TEST_F(UpdateLoopTest, ASignalRebuildsTheMaps) {
    start(company());
    runLoop();
    ASSERT_TRUE(test::eventually([] { return nis::gInitialized.load(); }));
    m_directory->replace(withBob());
    const std::string log = logOf([&] {
        nis::InitiateRebuildMap(SIGUSR1);
        EXPECT_TRUE(test::eventually(bobIsServed));
        shutDown();
    });
    EXPECT_FALSE(nis::gRebuildMapNow);
    EXPECT_TRUE(has(log, "Re-building existing explicit maps"));
    EXPECT_TRUE(has(log, "Beginning rebuild for map 'auto.home'"));
}

TEST_F(UpdateLoopTest, AllSignalsAreActedOnInTheirOrder) {
    start(company(), {{"nisd.update.interval", "0"}});
    nis::gRebuildMapNow = nis::gRefreshMapNow = nis::gReconfigureNow = nis::gShutdownNow = true;
    const std::string log = logOf([&] {
        runLoop();
        EXPECT_EQ(endOfLoop(), nis::LoopEnd::Reconfigured);
        runLoop();
        EXPECT_EQ(endOfLoop(), nis::LoopEnd::Shutdown);
    });
    const auto rebuild = log.find("Re-building existing explicit maps");
    const auto refresh = log.find("Refresh existing maps");
    const auto reconfigure = log.find("Re-reading config file /etc/velmorix/velmorix.conf");
    ASSERT_NE(reconfigure, std::string::npos);
    EXPECT_LT(rebuild, refresh);
    EXPECT_LT(refresh, reconfigure);
}

TEST_F(UpdateLoopTest, ANegativeIntervalFallsBack) {
    start(company(), {{"nisd.update.interval", "-5"}});
    nis::gInitialized = true;
    nis::gShutdownNow = true;
    const std::string log = logOf([&] { runLoop(), endOfLoop(); });
    EXPECT_TRUE(has(log, "UpdateLoop: nisd.update.interval=-5 seconds"));
    EXPECT_TRUE(has(log, "Negative value for property nisd.update.interval not allowed. Using 1800 "
                         "seconds"));
}

TEST_F(UpdateLoopTest, WithIntervalZeroOnlySignalsUpdate) {
    start(company(), {{"nisd.update.interval", "0"}});
    const std::string log = logOf([&] {
        runLoop();
        nis::InitiateRefreshMap(SIGUSR2);
        EXPECT_TRUE(test::eventually([] { return nis::gInitialized.load(); }));
        shutDown();
    });
    EXPECT_EQ(count(log, "Update begin"), 1);
    EXPECT_TRUE(serves("hosts.byname", "a"));
}

TEST_F(UpdateLoopTest, ChangesArriveAfterTheInterval) {
    start(company(), {{"nisd.update.interval", "1"}});
    runLoop();
    ASSERT_TRUE(test::eventually([] { return nis::gInitialized.load(); }));
    m_directory->replace(withBob());
    EXPECT_TRUE(test::eventually(bobIsServed));
}

TEST_F(UpdateLoopTest, AFailedUpdateIsTriedAgainOneIntervalLater) {
    start(company(), {{"nisd.update.interval", "1"}});
    m_directory->stop();
    setThresholds(tessa::LOG_TRACE);
    const test::CapturedError log;
    const auto begin = std::chrono::steady_clock::now();
    runLoop();
    EXPECT_TRUE(test::eventually([&] { return count(log.text(), "Update begin") == 3; }));
    const auto waited = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(waited, std::chrono::seconds(1)) << "no attempt without a wait";
    EXPECT_TRUE(has(log.text(), "Update failed. Failure communicating with quorad: "));
    EXPECT_FALSE(nis::gInitialized);
    m_directory->start();
    EXPECT_TRUE(test::eventually([] { return nis::gInitialized.load(); }));
}

TEST_F(UpdateLoopTest, TheConfigurationIsReadAgain) {
    start(company());
    ASSERT_EQ(nis::Update(false, true), 0);
    const unsigned int stranger = inet_addr("203.0.113.9");
    EXPECT_FALSE(nis::getNisServer()->allowedSubnet(stranger));
    test::writeFile(CONFIG_FILE, "nisd.securenets: 203.0.113.0/255.255.255.0\n"
                                 "nisd.exclude.maps: auto.home\nnisd.threads: 7\n"
                                 "log.level.orrisd: debug\n");
    nis::gInitialized = true;
    nis::gReconfigureNow = true;
    runLoop();
    EXPECT_EQ(endOfLoop(), nis::LoopEnd::Reconfigured);
    EXPECT_FALSE(nis::gReconfigureNow);
    EXPECT_EQ(nis::getConfig()->get("nisd.threads"), "7");
    EXPECT_TRUE(nis::getNisServer()->allowedSubnet(stranger));
    EXPECT_FALSE(serves("auto.home", "ann"));
    EXPECT_TRUE(serves("hosts.byname", "a"));
    EXPECT_TRUE(nis::logger->enabled(tessa::LOG_DEBUGGING));
}

TEST_F(UpdateLoopTest, AConfigurationThatCannotBeReadChangesNothing) {
    start(company(), {{"nisd.threads", "7"}});
    std::filesystem::remove(CONFIG_FILE);
    nis::gInitialized = true;
    nis::gReconfigureNow = true;
    const std::string log = logOf([&] {
        runLoop();
        EXPECT_EQ(endOfLoop(), nis::LoopEnd::Reconfigured);
    });
    EXPECT_TRUE(has(log, "Cannot read configuration file '/etc/velmorix/velmorix.conf': "));
    EXPECT_EQ(nis::getConfig()->get("nisd.threads"), "7");
}

TEST_F(UpdateLoopTest, AVanishedCacheFolderEndsTheDaemon) {
    start(company());
    runLoop();
    ASSERT_TRUE(test::eventually([] { return nis::gInitialized.load(); }));
    const std::string log = logOf([&] {
        std::filesystem::remove_all(CACHE_FOLDER);
        nis::InitiateRefreshMap(SIGUSR2);
        EXPECT_EQ(endOfLoop(), nis::LoopEnd::Shutdown);
    });
    EXPECT_TRUE(has(log, "Directory '/var/velmorix/nis' is gone (was quordrop called?) Cannot "
                         "continue."))
        << log;
    EXPECT_TRUE(nis::gShutdownNow);
}

TEST_F(UpdateLoopTest, ADiskFailureAloneDoesNot) {
    start(company());
    std::filesystem::current_path(m_folder.path());
    nis::setNisServer(boost::make_shared<nis::ADNisServer>(DOMAIN, false));
    std::filesystem::remove_all(m_folder.path()); // but CACHE_FOLDER is there
    int result = 0;
    const std::string log = logOf([&] { result = nis::Update(false, true); });
    EXPECT_EQ(result, 2);
    EXPECT_TRUE(has(log, "Update from AD failed: Bad Cache File:DatabaseError:File System Error:"))
        << log;
    EXPECT_FALSE(nis::gShutdownNow);
}

TEST_F(UpdateLoopTest, FailuresOfTheDirectoryAreToldApart) {
    start(company());
    std::string log = logOf([] { EXPECT_EQ(nis::Update(false, true), 0); });
    EXPECT_LT(log.find("Update begin"), log.find("Update complete"));
    m_directory->replace(company("dc2.example.com") +
                         T::entry("auto.home", "e2", "bob", "srv:/home/bob"));
    log = logOf([] { EXPECT_EQ(nis::Update(false, true), 5); });
    EXPECT_TRUE(has(log, "Update from AD failed: map names of server dc1.example.com"));
    m_directory->stop();
    log = logOf([] { EXPECT_EQ(nis::Update(true, true), 5); });
    EXPECT_TRUE(has(log, "Update failed. Failure communicating with quorad: "));
    EXPECT_FALSE(has(log, "Update complete"));
    nis::setADInterface(nullptr);
    log = logOf([] { EXPECT_EQ(nis::Update(true, true), 5); });
    EXPECT_TRUE(has(log, "Update from AD failed: "));
    EXPECT_TRUE(serves("hosts.byname", "a"));
}

TEST_F(UpdateLoopTest, AnotherNisDomainInTheDirectoryIsReportedOnce) {
    start(company(), {{"nisd.update.interval", "0"}, {"nisd.domain.name", "elsewhere"}});
    const std::string log = logOf([&] {
        for (int i = 0; i < 2; ++i) {
            nis::gInitialized = false;
            nis::gRefreshMapNow = nis::gReconfigureNow = true;
            runLoop();
            EXPECT_EQ(endOfLoop(), nis::LoopEnd::Reconfigured);
            EXPECT_TRUE(nis::gInitialized) << "the old domain is served";
            nis::getConfig()->set("nisd.domain.name", "elsewhere");
        }
    });
    EXPECT_EQ(count(log, "NIS domain is now 'elsewhere', but 'dom' is served. Restart orrisd"), 1);
}

} // namespace
