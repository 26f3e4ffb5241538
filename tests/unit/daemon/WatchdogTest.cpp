#include "daemon/Watchdog.h"

#include "common/Globals.h"
#include "daemon/Files.h"
#include "support/TempFolder.h"
#include "unit/karst/CapturedError.h"
#include "unit/karst/Eventually.h"

#include <gtest/gtest.h>

#include <csignal>

#include <fcntl.h>
#include <sys/wait.h>

namespace {

constexpr const char* REPORT = "/run/watchdog-report";
constexpr const char* MARKED = "/run/file-of-the-daemon";

class WatchdogTest : public testing::Test {
protected:
    WatchdogTest() { nis::logger->setThreshold(tessa::LOG_TRACE); }
    ~WatchdogTest() override {
        nis::logger->setThreshold(tessa::LOG_INFORMATION);
        std::filesystem::remove(nis::WATCHDOG_PROGRAM);
        std::filesystem::remove(REPORT);
    }
    /// A watchdog that writes down what it is told and has, and then stays.
    static void installProgram() {
        const std::filesystem::path program(nis::WATCHDOG_PROGRAM);
        std::filesystem::create_directories(program.parent_path());
        // The shell shows no name of its own, so it comes from the system.
        test::writeFile(program, "#!/bin/bash\n"
                                 "{ echo \"pid $1\"; shift; printf '%s|' \"$@\"; echo\n"
                                 "  ls -l /proc/self/fd\n"
                                 "  grep SigBlk /proc/self/status; } > /run/watchdog-new\n"
                                 "mv /run/watchdog-new /run/watchdog-report\n"
                                 "exec sleep 1000\n");
        std::filesystem::permissions(program, std::filesystem::perms::owner_all);
    }
    static pid_t start(std::vector<const char*> arguments) {
        return nis::startWatchdog(static_cast<int>(arguments.size()), arguments.data());
    }
    static int statusOf(pid_t child) {
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        return status;
    }
};

TEST_F(WatchdogTest, IsToldTheProcessAndItsArguments) {
    installProgram();
    const int file = open(MARKED, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(file, 0);
    sigset_t blocked;
    sigset_t before;
    sigfillset(&blocked);
    ASSERT_EQ(sigprocmask(SIG_SETMASK, &blocked, &before), 0);
    const pid_t child = start({"/usr/sbin/orrisd", "-d", "-f"});
    ASSERT_EQ(sigprocmask(SIG_SETMASK, &before, nullptr), 0);
    ASSERT_GT(child, 0);
    ASSERT_TRUE(test::eventually([] { return std::filesystem::exists(REPORT); }));
    const std::string report = test::readFile(REPORT);
    EXPECT_EQ(report.substr(0, report.find('\n')), "pid " + std::to_string(getpid()));
    EXPECT_NE(report.find("\n-d|-f|\n"), std::string::npos) << report;
    EXPECT_EQ(report.find(MARKED), std::string::npos) << "a file of the daemon's: " << report;
    EXPECT_NE(report.find("SigBlk:\t0000000000000000"), std::string::npos) << report;
    close(file);

    const test::CapturedError log;
    nis::killWatchdog(child);
    const int status = statusOf(child);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
    EXPECT_NE(log.text().find("=== Stopping watchdog ==="), std::string::npos);
    EXPECT_NE(log.text().find("Killing watchdog, pid = " + std::to_string(child)),
              std::string::npos);
    nis::killWatchdog(child); // gone by now
    EXPECT_NE(log.text().find("Killing watchdog failed with No such process"), std::string::npos);
}

TEST_F(WatchdogTest, ItsOwnNameComesFirst) {
    // Shells replace the name of a script, so the argument vector is read from the system.
    std::filesystem::create_directories(std::filesystem::path(nis::WATCHDOG_PROGRAM).parent_path());
    std::filesystem::copy_file("/bin/sleep", nis::WATCHDOG_PROGRAM);
    const pid_t child = start({"orrisd", "1000"}); // sleeps pid + 1000 seconds
    ASSERT_GT(child, 0);
    const std::string own = std::to_string(getpid());
    const std::string expected = std::string("orrisguard\0", 11) + own + '\0' + "1000" + '\0';
    EXPECT_TRUE(test::eventually(
        [&] { return test::readFile("/proc/" + std::to_string(child) + "/cmdline") == expected; }));
    nis::killWatchdog(child);
    statusOf(child);
}

TEST_F(WatchdogTest, AMissingProgramIsReportedByTheChild) {
    const test::CapturedError log;
    const pid_t child = start({"orrisd"});
    ASSERT_GT(child, 0);
    const int status = statusOf(child);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 1);
    EXPECT_NE(log.text().find("=== Starting watchdog ==="), std::string::npos);
    EXPECT_NE(log.text().find("unable to exec watchdog: No such file or directory"),
              std::string::npos);
}

TEST_F(WatchdogTest, WithoutAWatchdogNothingIsKilled) {
    const test::CapturedError log;
    nis::killWatchdog(nis::NO_WATCHDOG);
    EXPECT_EQ(log.text(), "");
}

} // namespace
