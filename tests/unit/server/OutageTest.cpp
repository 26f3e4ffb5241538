// Service from the caches while the directory, or the daemon in between, is away.
#include "unit/karst/Eventually.h"
#include "unit/server/ServerFixture.h"

#include <csignal>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using T = test::TestDirectory;
using Names = std::vector<std::string>;

class OutageTest : public test::DirectoryFixture {
protected:
    /// Leaves the caches of a day's work.
    void work() {
        startDirectory(company());
        const auto server = makeServer();
        server->update(false, true);
        m_names = mapList(*server);
        ASSERT_EQ(m_names.size(), 8U);
    }
    void expectService(const nis::ADNisServer& server) const {
        EXPECT_EQ(mapList(server), m_names);
        EXPECT_EQ(server.match(DOMAIN, "hosts.byname", "a").value, "10.0.0.1 a");
        EXPECT_TRUE(has(server.match(DOMAIN, "passwd.byuid", "1000").value, "ann:"));
        EXPECT_EQ(transferOf(server, "auto.home"), (test::Entries{{"ann", "srv:/home/ann"}}));
    }

    /// Starts the daemon in between on a directory that is not there.
    void startWithoutDirectory() {
        std::filesystem::rename(LDIF, AWAY);
        m_quorad = fork();
        if (m_quorad == 0) {
            const int log = open("/var/velmorix/quorad.log", O_WRONLY | O_CREAT | O_APPEND, 0600);
            dup2(log, STDERR_FILENO);
            execl(QUORAD_PROGRAM, "quorad", "-d", static_cast<char*>(nullptr));
            _exit(127);
        }
        ASSERT_TRUE(test::eventually([] {
            try {
                return !tessa::loadSetting(tessa::SETTING_ZONE_NAME, true, true).empty();
            } catch (const tessa::TESSAException&) {
                return false;
            }
        }));
    }
    void bringDirectoryBack() {
        kill(m_quorad, SIGTERM);
        waitpid(m_quorad, nullptr, 0);
        std::filesystem::rename(AWAY, LDIF);
        m_directory->start();
    }

    static constexpr const char* LDIF = "/etc/velmorix/directory.ldif";
    static constexpr const char* AWAY = "/etc/velmorix/directory.away";
    pid_t m_quorad = -1;
    Names m_names;
};

TEST_F(OutageTest, WithoutTheDaemonInBetweenServiceGoesOn) {
    work();
    const auto server = makeServer();
    m_directory->stop();
    for (const bool rebuild : {false, true}) {
        EXPECT_THROW(server->update(rebuild, true), tessa::TESSAException);
        expectService(*server);
    }
    m_directory->start();
    server->update(false, true);
    expectService(*server);
}

TEST_F(OutageTest, AStartWithoutTheDirectoryServesTheCaches) {
    work();
    m_directory->stop();
    startWithoutDirectory();
    connect();
    EXPECT_FALSE(nis::getADInterface()->getZoneHierarchy().empty()) << "remembered";
    const auto server = makeServer();
    for (const bool rebuild : {false, true, true}) {
        EXPECT_THROW(server->update(rebuild, true), tessa::TESSAException);
        expectService(*server);
    }
    bringDirectoryBack();
    server->update(false, true);
    expectService(*server);
}

TEST_F(OutageTest, AFirstUpdateThatFailsLeavesTheServerWithoutMaps) {
    startDirectory(company());
    const auto server = makeServer();
    m_directory->stop();
    EXPECT_THROW(server->update(false, true), tessa::TESSAException);
    EXPECT_TRUE(mapList(*server).empty());
    EXPECT_TRUE(std::filesystem::is_empty("."));
    m_directory->start();
    server->update(false, true);
    EXPECT_EQ(mapList(*server).size(), 8U);
}

} // namespace
