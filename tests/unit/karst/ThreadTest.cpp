#include "karst/Thread.h"

#include "karst/Exceptions.h"
#include "karst/Logger.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <stdexcept>

#include <pthread.h>
#include <unistd.h>

using namespace tessa;

namespace {

std::string systemName() {
    std::array<char, 32> name{};
    ::pthread_getname_np(::pthread_self(), name.data(), name.size());
    return name.data();
}

TEST(ThreadTest, runsTheBodyUnderItsName) {
    EXPECT_TRUE(Thread::ThreadsSupported());
    std::string name;
    std::string shortName;
    Thread thread;
    EXPECT_FALSE(thread.joinable());
    thread.start("client-0", [&] {
        name = Thread::name();
        shortName = systemName();
    });
    EXPECT_TRUE(thread.joinable());
    thread.join();
    EXPECT_FALSE(thread.joinable());
    EXPECT_EQ(name, "client-0");
    EXPECT_EQ(shortName, "client-0");
    thread.join(); // nothing left to wait for
}

TEST(ThreadTest, longNamesAreCutForTheSystemOnly) {
    std::string name;
    std::string shortName;
    {
        Thread thread;
        thread.start("a-name-of-more-than-fifteen-bytes", [&] {
            name = Thread::name();
            shortName = systemName();
        });
    }
    EXPECT_EQ(name, "a-name-of-more-than-fifteen-bytes");
    EXPECT_EQ(shortName, "a-name-of-more-");
}

TEST(ThreadTest, nameOfTheMainThreadIsNotTheProcessName) {
    EXPECT_EQ(Thread::name(), "main");
    const std::string before = systemName();
    Thread::setName("chief");
    EXPECT_EQ(Thread::name(), "chief");
    EXPECT_EQ(systemName(), before);
    Thread::setName("main");
}

TEST(ThreadTest, threadsOfOthersHaveANameToo) {
    std::string name;
    std::string wanted;
    std::thread foreign([&] {
        name = Thread::name();
        wanted = "thread-" + std::to_string(::gettid());
    });
    foreign.join();
    EXPECT_EQ(name, wanted);
}

TEST(ThreadTest, destructorAndAssignmentJoin) {
    std::atomic<int> ended{0};
    const auto body = [&] {
        std::this_thread::yield();
        ++ended;
    };
    Thread thread;
    thread.start("first", body);
    Thread second;
    second.start("second", body);
    thread = std::move(second);
    EXPECT_GE(ended, 1) << "the first was joined";
    EXPECT_TRUE(thread.joinable());
    thread = Thread();
    EXPECT_EQ(ended, 2);
    {
        Thread last;
        last.start("last", body);
    }
    EXPECT_EQ(ended, 3);
}

TEST(ThreadTest, cannotBeStartedTwiceAtATime) {
    Thread thread;
    thread.start("one", [] {});
    EXPECT_THROW(thread.start("two", [] {}), std::logic_error);
    thread.join();
    bool ran = false;
    thread.start("three", [&] { ran = true; });
    thread.join();
    EXPECT_TRUE(ran);
}

TEST(ThreadTest, isRefusedWhenTheProcessEnds) {
    Thread::SetThreadsActive(false);
    Thread thread;
    EXPECT_THROW(thread.start("late", [] {}), SystemException);
    EXPECT_FALSE(thread.joinable());
    Thread::SetThreadsActive(true);
    EXPECT_NO_THROW(thread.start("early", [] {}));
}

TEST(ThreadTest, reportsThatTheSystemHasNoMore) {
    // No address space holds such a stack.
    pthread_attr_t before;
    ASSERT_EQ(::pthread_getattr_default_np(&before), 0);
    pthread_attr_t huge = before;
    ASSERT_EQ(::pthread_attr_setstacksize(&huge, std::size_t{1} << 47U), 0);
    ASSERT_EQ(::pthread_setattr_default_np(&huge), 0);
    Thread thread;
    try {
        thread.start("greedy", [] {});
        ADD_FAILURE() << "no exception";
    } catch (const SystemException& error) {
        EXPECT_NE(error.message().find("cannot start thread 'greedy': "), std::string::npos)
            << error.what();
    }
    EXPECT_FALSE(thread.joinable());
    ASSERT_EQ(::pthread_setattr_default_np(&before), 0);
    ::pthread_attr_destroy(&before);
    EXPECT_NO_THROW(thread.start("modest", [] {}));
}

TEST(ThreadTest, signalsBelongToTheMainThread) {
    sigset_t mine;
    ::pthread_sigmask(SIG_BLOCK, nullptr, &mine);
    sigset_t theirs;
    ::sigemptyset(&theirs);
    {
        Thread thread;
        thread.start("masked", [&] { ::pthread_sigmask(SIG_BLOCK, nullptr, &theirs); });
    }
    for (const int number :
         {SIGTERM, SIGINT, SIGHUP, SIGUSR1, SIGUSR2, SIGPIPE, SIGCHLD, SIGALRM}) {
        EXPECT_EQ(::sigismember(&theirs, number), 1) << number;
    }
    for (const int number : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGPROF}) {
        EXPECT_EQ(::sigismember(&theirs, number), 0) << number;
    }
    sigset_t after;
    ::pthread_sigmask(SIG_BLOCK, nullptr, &after);
    for (int number = 1; number < SIGRTMAX; ++number) {
        EXPECT_EQ(::sigismember(&mine, number), ::sigismember(&after, number)) << number;
    }
}

std::atomic<int> lastSignal{0};

void remember(int number) {
    lastSignal = number;
}

TEST(InstallSignalHandlerTest, handlesWithoutRestart) {
    struct sigaction before {};
    ASSERT_EQ(::sigaction(SIGUSR1, nullptr, &before), 0);
    installSignalHandler(SIGUSR1, &remember);
    struct sigaction installed {};
    ASSERT_EQ(::sigaction(SIGUSR1, nullptr, &installed), 0);
    EXPECT_EQ(installed.sa_flags & SA_RESTART, 0);
    ::raise(SIGUSR1);
    EXPECT_EQ(lastSignal, SIGUSR1);
    installSignalHandler(SIGUSR1, SIG_IGN);
    lastSignal = 0;
    ::raise(SIGUSR1);
    EXPECT_EQ(lastSignal, 0);
    ::sigaction(SIGUSR1, &before, nullptr);
}

TEST(InstallSignalHandlerTest, refusesWhatCannotBeHandled) {
    for (const int number : {SIGKILL, SIGSTOP, 0, -1, 4711}) {
        EXPECT_THROW(installSignalHandler(number, SIG_IGN), SystemException) << number;
    }
    try {
        installSignalHandler(SIGKILL, SIG_IGN);
        FAIL() << "no exception";
    } catch (const SystemException& error) {
        EXPECT_STREQ(error.what(), "cannot handle signal 9: Invalid argument");
    }
}

/// Logs when the process ends, after all that is local to the main thread is gone.
struct LateLogger {
    ~LateLogger() { KARST_LOG(Logger::get("late"), LOG_WARN, "the end"); }
};

TEST(ThreadDeathTest, loggingWhileTheProcessEndsStillWorks) {
    Logger::logToStandardError();
    EXPECT_EXIT(
        {
            static const LateLogger late;
            KARST_LOG(Logger::get("late"), LOG_WARN, "the beginning");
            std::exit(0);
        },
        testing::ExitedWithCode(0), "\\[main\\] late.*the beginning\n.*\\[ending\\] late.*the end");
}

} // namespace
