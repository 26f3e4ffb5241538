#include "karst/Mutex.h"

#include "karst/Thread.h"

#include <gtest/gtest.h>

#include <vector>

using namespace tessa;
using namespace std::chrono_literals;

namespace {

bool anotherThreadCanLock(Mutex& mutex) {
    bool taken = false;
    Thread thread;
    thread.start("other", [&] {
        taken = mutex.try_lock();
        if (taken) {
            mutex.unlock();
        }
    });
    thread.join();
    return taken;
}

TEST(MutexTest, excludesOtherThreads) {
    Mutex mutex;
    EXPECT_TRUE(anotherThreadCanLock(mutex));
    {
        const Lock lock(mutex);
        EXPECT_FALSE(anotherThreadCanLock(mutex));
    }
    EXPECT_TRUE(anotherThreadCanLock(mutex));
}

TEST(MutexTest, holderMayTakeItAgain) {
    Mutex mutex;
    mutex.lock();
    mutex.lock();
    const bool third = mutex.try_lock();
    ASSERT_TRUE(third);
    mutex.unlock();
    mutex.unlock();
    EXPECT_FALSE(anotherThreadCanLock(mutex)) << "held once still";
    mutex.unlock();
    EXPECT_TRUE(anotherThreadCanLock(mutex));
}

TEST(MutexTest, waitEndsWithTheTime) {
    Mutex mutex;
    const Lock lock(mutex);
    const auto deadline = std::chrono::steady_clock::now() + 20ms;
    while (mutex.wait(20ms)) {
        // A spurious wake-up is allowed.
    }
    EXPECT_GE(std::chrono::steady_clock::now(), deadline);
    EXPECT_FALSE(anotherThreadCanLock(mutex)) << "held again after the wait";
}

TEST(MutexTest, waitGivesTheMutexUpAndEndsWithANotification) {
    Mutex mutex;
    bool ready = false;
    Thread thread;
    {
        const Lock lock(mutex);
        thread.start("notifier", [&] {
            const Lock inner(mutex);
            ready = true;
            mutex.notifyAll();
        });
        const auto deadline = std::chrono::steady_clock::now() + 60s;
        while (!ready && std::chrono::steady_clock::now() < deadline) {
            mutex.wait(1s);
        }
        EXPECT_TRUE(ready);
    }
}

TEST(MutexTest, guardsACounter) {
    Mutex mutex;
    int count = 0;
    {
        std::vector<Thread> threads(4);
        for (auto& thread : threads) {
            thread.start("count", [&] {
                for (int i = 0; i < 1000; ++i) {
                    const Lock lock(mutex);
                    ++count;
                }
            });
        }
    }
    EXPECT_EQ(count, 4000);
}

TEST(MutexTest, KnowsHowOftenItsHolderHasTakenIt) {
    Mutex mutex;
    const Lock once(mutex);
    EXPECT_EQ(mutex.depth(), 1);
    {
        const Lock twice(mutex);
        EXPECT_EQ(mutex.depth(), 2);
    }
    static_cast<void>(mutex.wait(std::chrono::milliseconds(1)));
    EXPECT_EQ(mutex.depth(), 1) << "held again after a wait";
    ASSERT_TRUE(mutex.try_lock());
    EXPECT_EQ(mutex.depth(), 2);
    mutex.unlock();
}

} // namespace
