#include "System.h"

#include "support/TempFolder.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include <netinet/in.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace orrisguard;
using namespace std::chrono_literals;

/// A child that sleeps until it is told to end.
class Child {
public:
    Child() : m_pid(::fork()) {
        if (m_pid == 0) {
            for (;;) {
                ::pause();
            }
        }
    }
    ~Child() { end(); }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    pid_t pid() const { return m_pid; }
    void end() {
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
            m_pid = -1;
        }
    }

private:
    pid_t m_pid;
};

class SystemTest : public testing::Test {
protected:
    std::string path(const std::string& name) const { return (m_folder.path() / name).string(); }
    System make(const std::string& program, const std::vector<std::string>& arguments = {}) {
        return System(Probe(htonl(INADDR_LOOPBACK), 9), program, arguments, path("pid"));
    }
    static std::string waitForFile(const std::string& name) {
        for (int i = 0; i < 1000; ++i) {
            const std::string text = test::readFile(name);
            if (!text.empty() && text.back() == '\n') {
                return text;
            }
            ::usleep(20'000);
        }
        return "(nothing)";
    }

    test::TempFolder m_folder;
};

TEST_F(SystemTest, processesAreKnownByTheirStart) {
    const Process self = processOf(::getpid());
    EXPECT_TRUE(self.exists());
    EXPECT_EQ(processOf(::getpid()), self);
    EXPECT_FALSE(processOf(0x7ffffff0).exists());
    const pid_t child = ::fork();
    if (child == 0) {
        _exit(0);
    }
    siginfo_t info{};
    ::waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT);
    EXPECT_FALSE(processOf(child).exists()) << "only its remains";
    ::waitpid(child, nullptr, 0);
}

TEST_F(SystemTest, aProcessMayEndWhileItIsLookedAt) {
    for (int i = 0; i < 300; ++i) {
        const pid_t child = ::fork();
        if (child == 0) {
            _exit(0);
        }
        std::thread reaper([child] { ::waitpid(child, nullptr, 0); });
        Process process = processOf(child);
        while (process.exists()) {
            process = processOf(child);
        }
        reaper.join();
        EXPECT_FALSE(processOf(child).exists());
    }
}

TEST_F(SystemTest, waitsForTheEndOfAProcess) {
    System system = make("/bin/true");
    Child child;
    const Process process = processOf(child.pid());
    EXPECT_FALSE(system.waitForEnd(process, 0s));
    system.signal(process, SIGKILL);
    EXPECT_TRUE(system.waitForEnd(process, 60s));
    child.end();
    EXPECT_TRUE(system.waitForEnd(process, 60s));
}

TEST_F(SystemTest, anotherProcessWithThatIdIsNotTheDaemon) {
    System system = make("/bin/true");
    const Child child;
    Process earlier = processOf(child.pid());
    --earlier.started;
    EXPECT_TRUE(system.waitForEnd(earlier, 60s)) << "the id was used again";
    system.signal(earlier, SIGKILL);
    EXPECT_FALSE(system.waitForEnd(processOf(child.pid()), 0s)) << "and must not be hit";
}

TEST_F(SystemTest, runningDaemonByItsPidFile) {
    // The child runs this test program.
    System system = make("/somewhere/unit_orrisguard");
    char name[4096];
    const ssize_t length = ::readlink("/proc/self/exe", name, sizeof(name));
    ASSERT_GT(length, 0);
    System mine = make(std::string(name, static_cast<std::size_t>(length)));
    EXPECT_FALSE(mine.running().exists()) << "no file";
    for (const char* bad : {"", "x", "-1", "1", "0", "99999999999999999999"}) {
        test::writeFile(path("pid"), bad);
        EXPECT_FALSE(mine.running().exists()) << bad;
    }
    Child child;
    test::writeFile(path("pid"), std::to_string(child.pid()));
    EXPECT_EQ(mine.running(), processOf(child.pid()));
    EXPECT_FALSE(make("/usr/sbin/orrisd").running().exists()) << "another program has that id";
    child.end();
    EXPECT_FALSE(mine.running().exists());
}

TEST_F(SystemTest, launchesWithArgumentsAndTheCountInASessionOfItsOwn) {
    test::writeFile(path("daemon"),
                    "#!/bin/sh\n"
                    "echo \"$# $1 $2 $ORRISGUARD_RESTARTS $(ps -o sid= -p $$)\" > " +
                        path("out.tmp") + "\nmv " + path("out.tmp") + " " + path("out") + "\n");
    std::filesystem::permissions(path("daemon"), std::filesystem::perms::owner_all);
    EXPECT_TRUE(make(path("daemon"), {"-d", "two words"}).launch(3));
    const std::string out = waitForFile(path("out"));
    EXPECT_EQ(out.rfind("2 -d two words 3", 0), 0U) << out;
    EXPECT_EQ(out.find(std::to_string(::getsid(0)) + "\n"), std::string::npos);
    ::unsetenv(System::RESTARTS);
}

TEST_F(SystemTest, aProgramThatCannotRunIsReported) {
    EXPECT_FALSE(make(path("none")).launch(1));
    test::writeFile(path("text"), "not a program");
    EXPECT_FALSE(make(path("text")).launch(1));
    ::unsetenv(System::RESTARTS);
}

TEST_F(SystemTest, stepsAside) {
    int report[2];
    ASSERT_EQ(::pipe(report), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        System(Probe(0, 9), "", {}, "").stepAside();
        const pid_t own = ::getpid();
        _exit(::write(report[1], &own, sizeof(own)) == sizeof(own) ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    pid_t other = child;
    EXPECT_EQ(::read(report[0], &other, sizeof(other)), static_cast<ssize_t>(sizeof(other)));
    EXPECT_NE(other, child);
    ::close(report[0]);
    ::close(report[1]);
}

TEST_F(SystemTest, learnsHowALaunchedDaemonEnds) {
    const auto launched = [this](const std::string& script) {
        test::writeFile(path("daemon"), "#!/bin/sh\n" + script + "\n");
        std::filesystem::permissions(path("daemon"), std::filesystem::perms::owner_all);
        System system = make(path("daemon"));
        EXPECT_TRUE(system.launch(1));
        Launched state = system.launched();
        for (int i = 0; i < 1000 && state == Launched::ALIVE; ++i) {
            ::usleep(10'000);
            state = system.launched();
        }
        return state;
    };
    EXPECT_EQ(launched("exit 0"), Launched::ENDED);
    EXPECT_EQ(launched("exit 5"), Launched::FAILED);
    EXPECT_EQ(launched("kill -9 $$"), Launched::FAILED);
    EXPECT_EQ(launched("(sleep 0.1; exit 5) & exit 0"), Launched::FAILED) << "detached";
    EXPECT_EQ(launched("(sleep 0.1; exit 0) & exit 0"), Launched::ENDED) << "detached";
    EXPECT_EQ(launched("sh -c 'kill -9 $$' & wait; exit 0"), Launched::ENDED) << "its watchdog";
    ::unsetenv(System::RESTARTS);
}

TEST_F(SystemTest, aLaunchedDaemonLives) {
    test::writeFile(path("daemon"), "#!/bin/sh\nread line < " + path("fifo") + "\n");
    std::filesystem::permissions(path("daemon"), std::filesystem::perms::owner_all);
    ASSERT_EQ(::mkfifo(path("fifo").c_str(), 0600), 0);
    System system = make(path("daemon"));
    ASSERT_TRUE(system.launch(1));
    EXPECT_EQ(system.launched(), Launched::ALIVE);
    test::writeFile(path("fifo"), "end\n");
    while (system.launched() == Launched::ALIVE) {
        ::usleep(10'000);
    }
    EXPECT_EQ(system.launched(), Launched::ENDED);
    ::unsetenv(System::RESTARTS);
}

} // namespace
