// The program itself, started as an administrator would, on a private system.

#include <karst/LocalRpcSession.h>

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr const char* SOCKET = "/var/velmorix/daemon";
constexpr const char* PID_FILE = "/var/run/quorad.pid";

struct Result {
    int status = -1;
    std::string output;
};

std::string contentOf(const std::string& path) {
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), {}};
}

bool eventually(const std::function<bool()>& condition) {
    for (int turn = 0; turn < 4000; ++turn) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return condition();
}

class ProgramTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(std::filesystem::exists("/run/.layers")) << "not on a private system";
        std::filesystem::remove_all("/var/velmorix/quorad");
        std::ofstream("/etc/velmorix/velmorix.conf")
            << "quorad.directory: ldif:/etc/velmorix/directory.ldif\n"
               "quorad.zone: CN=zoneA,CN=Zones,DC=example,DC=com\n";
        std::ofstream("/etc/velmorix/directory.ldif")
            << "dn: DC=example,DC=com\nobjectClass: domainDNS\n\n"
               "dn: CN=Zones,DC=example,DC=com\nobjectClass: container\ncn: Zones\n\n"
               "dn: CN=zoneA,CN=Zones,DC=example,DC=com\nobjectClass: container\ncn: zoneA\n";
    }
    void TearDown() override {
        if (m_daemon > 0) {
            ::kill(m_daemon, SIGKILL);
            ::waitpid(m_daemon, nullptr, 0);
        }
    }

    static pid_t start(const std::vector<std::string>& arguments, uid_t uid = 0) {
        std::vector<std::string> words = {QUORAD_PROGRAM};
        words.insert(words.end(), arguments.begin(), arguments.end());
        std::vector<char*> vector;
        for (std::string& word : words) {
            vector.push_back(word.data());
        }
        vector.push_back(nullptr);
        const pid_t child = ::fork();
        if (child == 0) {
            const int file = ::open("/run/output", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
            ::dup2(file, STDOUT_FILENO);
            ::dup2(file, STDERR_FILENO);
            if (uid != 0 && ::setuid(uid) != 0) {
                ::_exit(98);
            }
            ::execv(vector[0], vector.data());
            ::_exit(99);
        }
        return child;
    }
    static Result await(pid_t child) {
        int status = 0;
        ::waitpid(child, &status, 0);
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status),
                contentOf("/run/output")};
    }
    static Result run(const std::vector<std::string>& arguments, uid_t uid = 0) {
        return await(start(arguments, uid));
    }
    void startForeground() {
        m_daemon = start({"-d"});
        ASSERT_TRUE(eventually([] { return answers(); })) << contentOf("/run/output");
    }
    Result endForeground(int signal) {
        ::kill(m_daemon, signal);
        const pid_t ended = std::exchange(m_daemon, -1);
        return await(ended);
    }
    static bool answers() {
        try {
            tessa::LocalRpcSession session(SOCKET, false, false);
            return session.loadSetting("zonename") == "CN=zoneA,CN=Zones,DC=example,DC=com";
        } catch (const std::exception&) {
            return false;
        }
    }
    static unsigned modeOf(const char* path) {
        struct stat status {};
        EXPECT_EQ(0, ::stat(path, &status)) << path;
        return status.st_mode & 07777U;
    }

    pid_t m_daemon = -1;
};

TEST_F(ProgramTest, VersionIsToldToAnybody) {
    const Result result = run({"-v"}, 65534);
    EXPECT_EQ(0, result.status);
    EXPECT_EQ("Velmorix-quorad 5.3.1-398\n", result.output);
}

TEST_F(ProgramTest, WrongCommandLineIsAUsageError) {
    for (const char* argument : {"-x", "extra"}) {
        const Result result = run({argument});
        EXPECT_EQ(1, result.status);
        EXPECT_EQ(0U, result.output.find(std::string("usage: ") + QUORAD_PROGRAM + " [-dfv]\n -d "))
            << result.output;
    }
}

TEST_F(ProgramTest, OnlyRootMayRunIt) {
    const Result result = run({"-d"}, 65534);
    EXPECT_EQ(1, result.status);
    EXPECT_NE(std::string::npos, result.output.find("must be run as root"));
    EXPECT_NE(std::string::npos,
              result.output.find("Terminating quorad with exit(1): usage error"));
}

TEST_F(ProgramTest, ServesInTheForegroundUntilToldToEnd) {
    for (const int signal : {SIGTERM, SIGINT}) {
        startForeground();
        EXPECT_EQ(std::to_string(m_daemon), contentOf(PID_FILE));
        EXPECT_EQ(0600U, modeOf(SOCKET));
        EXPECT_EQ(0700U, modeOf("/var/velmorix/quorad"));
        const Result result = endForeground(signal);
        EXPECT_EQ(0, result.status) << result.output;
        EXPECT_FALSE(std::filesystem::exists(PID_FILE));
        EXPECT_FALSE(std::filesystem::exists(SOCKET));
    }
}

TEST_F(ProgramTest, StateFolderIsForItsOwnerOnlyWhateverItWas) {
    std::filesystem::create_directories("/var/velmorix/quorad");
    ::chmod("/var/velmorix/quorad", 0777);
    startForeground();
    EXPECT_EQ(0700U, modeOf("/var/velmorix/quorad"));
    EXPECT_EQ(0, endForeground(SIGTERM).status);
}

TEST_F(ProgramTest, NoCoreIsWrittenUnlessTheConfigurationSaysSo) {
    const auto coreLimit = [&] {
        std::istringstream limits(contentOf("/proc/" + std::to_string(m_daemon) + "/limits"));
        std::string line;
        while (std::getline(limits, line) && line.find("Max core file size") != 0) {
        }
        std::istringstream words(line.substr(std::string("Max core file size").size()));
        std::string soft;
        std::string hard;
        words >> soft >> hard;
        return std::make_pair(soft, hard);
    };
    startForeground();
    EXPECT_EQ("0", coreLimit().first);
    EXPECT_EQ(0, endForeground(SIGTERM).status);
    std::ofstream("/etc/velmorix/velmorix.conf", std::ios::app) << "quorad.coredumps: yes\n";
    startForeground();
    EXPECT_EQ(coreLimit().second, coreLimit().first);
    EXPECT_EQ(0, endForeground(SIGTERM).status);
}

TEST_F(ProgramTest, DetachedDaemonServesWhenItsStarterHasEnded) {
    const Result result = run({});
    EXPECT_EQ(0, result.status) << result.output;
    EXPECT_TRUE(answers());
    const pid_t daemon = std::stoi(contentOf(PID_FILE));
    EXPECT_EQ(daemon, ::getsid(daemon));
    EXPECT_EQ("/dev/null",
              std::filesystem::read_symlink("/proc/" + std::to_string(daemon) + "/fd/1").string());
    ::kill(daemon, SIGTERM);
    EXPECT_TRUE(eventually([] { return !std::filesystem::exists(PID_FILE); }));
}

TEST_F(ProgramTest, SecondInstanceIsRefusedAndLeavesTheFirstAlone) {
    startForeground();
    const std::string pid = contentOf(PID_FILE);
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"-d"}, std::vector<std::string>{}}) {
        const Result second = run(arguments);
        EXPECT_EQ(1, second.status);
        EXPECT_NE(std::string::npos, second.output.find("quorad is already running"));
    }
    EXPECT_EQ(pid, contentOf(PID_FILE));
    EXPECT_TRUE(answers());
    EXPECT_EQ(0, endForeground(SIGTERM).status);
}

TEST_F(ProgramTest, DirectoryThatCannotBeIsAConfigurationProblem) {
    std::ofstream("/etc/velmorix/velmorix.conf") << "quorad.directory: ldap:\n";
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"-d"}, std::vector<std::string>{}}) {
        const Result result = run(arguments);
        EXPECT_EQ(5, result.status);
        EXPECT_NE(std::string::npos, result.output.find("quorad.domain: ")) << result.output;
    }
    EXPECT_FALSE(std::filesystem::exists(PID_FILE));
}

TEST_F(ProgramTest, KilledDaemonLeavesNothingThatStopsTheNext) {
    startForeground();
    endForeground(SIGKILL);
    EXPECT_TRUE(std::filesystem::exists(SOCKET));
    startForeground();
    EXPECT_EQ(0, endForeground(SIGTERM).status);
}

TEST_F(ProgramTest, HangUpReadsTheConfigurationAgain) {
    startForeground();
    EXPECT_EQ(0600U, modeOf(SOCKET));
    std::ofstream("/etc/velmorix/velmorix.conf", std::ios::app) << "quorad.socket.allow: 65534\n";
    ::kill(m_daemon, SIGHUP);
    EXPECT_TRUE(eventually([] { return modeOf(SOCKET) == 0666U; }));
    EXPECT_TRUE(answers());
    EXPECT_EQ(0, endForeground(SIGTERM).status);
}

} // namespace
