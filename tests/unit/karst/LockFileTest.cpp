#include "karst/LockFile.h"

#include "ChildProcess.h"
#include "Eventually.h"
#include "support/TempFolder.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <filesystem>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>

using namespace tessa;
using test::inChild;

namespace {

class LockFileTest : public testing::Test {
protected:
    static int statusNow() {
        const LockResult result = VmxLock("lock");
        VmxUnlock(result.descriptor);
        return result.status;
    }

    test::TempFolder m_folder;
};

/// One byte through a pipe tells another process to go on; so does its end.
class Gate {
public:
    Gate() {
        if (::pipe(m_ends.data()) != 0) {
            throw std::runtime_error("pipe failed");
        }
    }
    ~Gate() {
        ::close(m_ends[0]);
        ::close(m_ends[1]);
    }
    Gate(const Gate&) = delete;
    Gate& operator=(const Gate&) = delete;

    bool open() { return ::write(m_ends[1], "x", 1) == 1; }
    bool wait() {
        char byte = 0;
        return ::read(m_ends[0], &byte, 1) == 1;
    }

private:
    std::array<int, 2> m_ends{};
};

TEST_F(LockFileTest, writesTheProcessId) {
    test::writeFile("lock", "a longer text of another program\n");
    const LockResult result = VmxLock("lock");
    EXPECT_GE(result.descriptor, 0);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(test::readFile("lock"), std::to_string(::getpid()));
    VmxUnlock(result.descriptor);
    EXPECT_TRUE(std::filesystem::exists("lock")) << "the file stays";
}

TEST_F(LockFileTest, newFileIsPrivateAndNotInherited) {
    const mode_t before = ::umask(0);
    const LockResult result = VmxLock("lock");
    ::umask(before);
    struct stat status {};
    ASSERT_EQ(::fstat(result.descriptor, &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
    EXPECT_EQ(::fcntl(result.descriptor, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    VmxUnlock(result.descriptor);
}

TEST_F(LockFileTest, anotherProcessIsToldApartFromAnError) {
    const LockResult mine = VmxLock("lock");
    ASSERT_EQ(mine.status, 1);
    EXPECT_TRUE(inChild([] {
        const LockResult theirs = VmxLock("lock");
        const bool open = ::fcntl(theirs.descriptor, F_GETFD) >= 0;
        VmxUnlock(theirs.descriptor);
        return theirs.status == 0 && open;
    }));
    EXPECT_EQ(test::readFile("lock"), std::to_string(::getpid())) << "the loser writes nothing";
    EXPECT_TRUE(inChild([] { return statusNow() == 0; })) << "the loser's unlock frees nothing";
    VmxUnlock(mine.descriptor);
    EXPECT_TRUE(inChild([] { return statusNow() == 1; }));
}

TEST_F(LockFileTest, isFreeAgainHoweverTheHolderEnds) {
    Gate locked;
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const LockResult result = VmxLock("lock");
        if (result.status == 1) {
            locked.open();
        }
        for (;;) {
            ::pause();
        }
    }
    ASSERT_TRUE(locked.wait());
    EXPECT_EQ(statusNow(), 0);
    ASSERT_EQ(::kill(child, SIGKILL), 0);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(statusNow(), 1);
}

TEST_F(LockFileTest, followsTheForkThatDetachesADaemon) {
    Gate parentGone;
    Gate finish;
    // The parent locks, leaves the descriptor to its child, and ends.
    ASSERT_TRUE(inChild([&] {
        const LockResult result = VmxLock("lock");
        const pid_t daemon = ::fork();
        if (daemon == 0) {
            const bool told = finish.wait();
            ::_exit(told && result.status == 1 ? 0 : 1);
        }
        return daemon > 0 && result.status == 1;
    }));
    EXPECT_EQ(statusNow(), 0);
    EXPECT_TRUE(finish.open());
    EXPECT_TRUE(test::eventually([] { return statusNow() == 1; }));
}

TEST_F(LockFileTest, placesThatCannotBeOpened) {
    std::filesystem::create_directory("folder");
    test::writeFile("target", "text");
    std::filesystem::create_symlink("target", "link");
    const std::vector<std::pair<std::string, int>> cases{
        {"missing/lock", ENOENT}, {"folder", EISDIR}, {"link", ELOOP},
        {"target/lock", ENOTDIR}, {"", ENOENT},       {std::string(5000, 'x'), ENAMETOOLONG}};
    for (const auto& [path, problem] : cases) {
        errno = 0;
        const LockResult result = VmxLock(path);
        EXPECT_EQ(errno, problem) << path;
        EXPECT_EQ(result.descriptor, -1) << path;
        EXPECT_LT(result.status, 0) << path;
    }
    EXPECT_EQ(test::readFile("target"), "text");
}

TEST_F(LockFileTest, processIdThatCannotBeWrittenIsAnError) {
    EXPECT_TRUE(inChild([] {
        ::signal(SIGXFSZ, SIG_IGN);
        const rlimit none{0, 0};
        if (::setrlimit(RLIMIT_FSIZE, &none) != 0) {
            return false;
        }
        const LockResult result = VmxLock("lock");
        return result.descriptor >= 0 && result.status < 0 && errno == EFBIG;
    }));
}

TEST_F(LockFileTest, unlockOfNothingIsHarmless) {
    VmxUnlock(-1);
    EXPECT_EQ(statusNow(), 1);
}

} // namespace
