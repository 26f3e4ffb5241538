#include "karst/ReaderWriterLock.h"

#include "Eventually.h"
#include "karst/Thread.h"
#include "support/TempFolder.h"

#include <gtest/gtest.h>

#include <atomic>
#include <list>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include <unistd.h>

using namespace tessa;
using test::eventually;

namespace {

/// Runs the body on another thread to its end.
void elsewhere(const std::function<void()>& body) {
    Thread thread;
    thread.start("elsewhere", body);
}

/// Threads that queue up at a lock one after the other, and note the order in which they get in.
class Queue {
public:
    explicit Queue(ReaderWriterLock& lock) : m_lock(lock) {}

    /// Returns when the new thread sleeps at the lock.
    void add(char name, bool writes) {
        std::atomic<pid_t> number{0};
        m_threads.emplace_back().start(std::string(1, name), [this, name, writes, &number] {
            number = ::gettid();
            if (writes) {
                const WriterLock inside(m_lock);
                note(name);
            } else {
                const ReaderLock inside(m_lock);
                note(name);
            }
        });
        int asleep = 0;
        EXPECT_TRUE(eventually([&] {
            asleep = number != 0 && sleeps(number) ? asleep + 1 : 0;
            return asleep == 5; // not just for a moment on the way to the lock
        }));
    }
    /// After all have left.
    std::string order() {
        m_threads.clear();
        return m_order;
    }

private:
    static bool sleeps(pid_t number) {
        const std::string stat =
            test::readFile("/proc/self/task/" + std::to_string(number) + "/stat");
        const std::size_t name = stat.rfind(") ");
        return name != std::string::npos && stat.compare(name + 2, 1, "S") == 0;
    }
    void note(char name) {
        const std::lock_guard<std::mutex> guard(m_mutex);
        m_order += name;
    }

    ReaderWriterLock& m_lock;
    std::mutex m_mutex;
    std::string m_order; ///< guarded by m_mutex
    std::list<Thread> m_threads;
};

TEST(ReaderWriterLockTest, readersShare) {
    ReaderWriterLock lock;
    const ReaderLock mine(lock);
    elsewhere([&] {
        const ReaderLock theirs(lock);
        EXPECT_EQ(lock.readerCount(), 2);
        EXPECT_TRUE(lock.holdsReaderLock());
    });
    EXPECT_EQ(lock.readerCount(), 1);
}

TEST(ReaderWriterLockTest, tellsWhatTheCallingThreadHolds) {
    ReaderWriterLock lock;
    EXPECT_FALSE(lock.holdsReaderLock());
    EXPECT_FALSE(lock.holdsWriterLock());
    {
        const WriterLock writer(lock);
        EXPECT_TRUE(lock.holdsWriterLock());
        EXPECT_FALSE(lock.holdsReaderLock());
        EXPECT_EQ(lock.readerCount(), 0);
        elsewhere([&] { EXPECT_FALSE(lock.holdsWriterLock()); });
    }
    EXPECT_FALSE(lock.holdsWriterLock());
    const ReaderLock reader(lock);
    EXPECT_TRUE(lock.holdsReaderLock());
    elsewhere([&] { EXPECT_FALSE(lock.holdsReaderLock()); });
}

TEST(ReaderWriterLockTest, readSideIsCountedForEachTime) {
    ReaderWriterLock lock;
    lock.lockRead();
    lock.lockRead();
    EXPECT_EQ(lock.readerCount(), 2);
    lock.unlockRead();
    EXPECT_EQ(lock.readerCount(), 1);
    EXPECT_TRUE(lock.holdsReaderLock());
    lock.unlockRead();
    EXPECT_EQ(lock.readerCount(), 0);
    EXPECT_FALSE(lock.holdsReaderLock());
}

TEST(ReaderWriterLockTest, writerMayTakeBothSidesAgain) {
    ReaderWriterLock lock;
    lock.lockWrite();
    lock.lockWrite();
    lock.lockRead();
    EXPECT_TRUE(lock.holdsReaderLock());
    lock.lockWrite(); // holds the read side as well, but it is the writer
    lock.unlockWrite();
    lock.unlockRead();
    lock.unlockWrite();
    EXPECT_TRUE(lock.holdsWriterLock());
    lock.unlockWrite();
    EXPECT_FALSE(lock.holdsWriterLock());
    elsewhere([&] { const WriterLock writer(lock); });
}

TEST(ReaderWriterLockTest, writerThatReadsStaysReaderWhenItStopsWriting) {
    ReaderWriterLock lock;
    std::atomic<bool> written{false};
    lock.lockWrite();
    lock.lockRead();
    Thread writer;
    writer.start("writer", [&] {
        const WriterLock inside(lock);
        written = true;
    });
    lock.unlockWrite();
    EXPECT_TRUE(lock.holdsReaderLock());
    elsewhere([&] { const ReaderLock reader(lock); });
    EXPECT_FALSE(written) << "the read side still keeps writers out";
    lock.unlockRead();
    writer.join();
    EXPECT_TRUE(written);
}

TEST(ReaderWriterLockTest, readerCannotBecomeWriter) {
    ReaderWriterLock lock;
    {
        const ReaderLock reader(lock);
        EXPECT_THROW(lock.lockWrite(), std::logic_error);
        EXPECT_TRUE(lock.holdsReaderLock());
        EXPECT_FALSE(lock.holdsWriterLock());
    }
    const WriterLock writer(lock); // the refusal left nothing behind
    EXPECT_TRUE(lock.holdsWriterLock());
}

TEST(ReaderWriterLockTest, releaseOfWhatIsNotHeldIsRefused) {
    ReaderWriterLock lock;
    EXPECT_THROW(lock.unlockRead(), std::logic_error);
    EXPECT_THROW(lock.unlockWrite(), std::logic_error);
    {
        const WriterLock writer(lock);
        EXPECT_THROW(lock.unlockRead(), std::logic_error);
        elsewhere([&] { EXPECT_THROW(lock.unlockWrite(), std::logic_error); });
        EXPECT_TRUE(lock.holdsWriterLock());
    }
    {
        const ReaderLock reader(lock);
        elsewhere([&] { EXPECT_THROW(lock.unlockRead(), std::logic_error); });
        EXPECT_EQ(lock.readerCount(), 1);
    }
    const WriterLock writer(lock);
}

TEST(ReaderWriterLockTest, writerWaitsForReaders) {
    ReaderWriterLock lock;
    std::atomic<bool> written{false};
    Thread writer;
    {
        const ReaderLock reader(lock);
        writer.start("writer", [&] {
            const WriterLock inside(lock);
            written = true;
        });
        for (int i = 0; i < 20; ++i) {
            std::this_thread::yield();
            ASSERT_FALSE(written);
        }
    }
    EXPECT_TRUE(eventually([&] { return written.load(); }));
}

TEST(ReaderWriterLockTest, readerWaitsForWriter) {
    ReaderWriterLock lock;
    std::atomic<bool> read{false};
    Thread reader;
    {
        const WriterLock writer(lock);
        reader.start("reader", [&] {
            const ReaderLock inside(lock);
            read = true;
        });
        for (int i = 0; i < 20; ++i) {
            std::this_thread::yield();
            ASSERT_FALSE(read);
        }
        EXPECT_EQ(lock.readerCount(), 0);
    }
    EXPECT_TRUE(eventually([&] { return read.load(); }));
}

TEST(ReaderWriterLockTest, slowReaderWithAWaitingWriterDoesNotStopOthers) {
    ReaderWriterLock lock;
    std::atomic<bool> written{false};
    Thread writer;
    {
        const ReaderLock slow(lock);
        writer.start("writer", [&] {
            const WriterLock inside(lock);
            written = true;
        });
        // The slow reader never leaves before the others are through, many turns of the writer
        // long.
        elsewhere([&] {
            const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(700);
            int reads = 0;
            while (reads < 100 || std::chrono::steady_clock::now() < end) {
                const ReaderLock reader(lock);
                ++reads;
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
        EXPECT_FALSE(written);
    }
    EXPECT_TRUE(eventually([&] { return written.load(); }));
}

TEST(ReaderWriterLockTest, readerInsideMayReenterWhileWritersWait) {
    ReaderWriterLock lock;
    std::atomic<int> written{0};
    std::vector<Thread> writers(2);
    {
        const ReaderLock outer(lock);
        for (auto& writer : writers) {
            writer.start("writer", [&] {
                const WriterLock inside(lock);
                ++written;
            });
        }
        // A thread outside is held back at some moment: then a writer is having its turn.
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(300);
        while (std::chrono::steady_clock::now() < end) {
            const ReaderLock inner(lock);
            const ReaderLock innermost(lock);
            ASSERT_EQ(lock.readerCount(), 3);
        }
        EXPECT_EQ(written, 0);
    }
    EXPECT_TRUE(eventually([&] { return written == 2; }));
}

TEST(ReaderWriterLockTest, steadyReadersDoNotStarveAWriter) {
    ReaderWriterLock lock;
    std::atomic<bool> stop{false};
    std::vector<Thread> readers(3);
    for (auto& reader : readers) {
        reader.start("reader", [&] {
            while (!stop) {
                const ReaderLock inside(lock);
                std::this_thread::sleep_for(std::chrono::microseconds(500));
            }
        });
    }
    int writes = 0;
    for (; writes < 50; ++writes) {
        const WriterLock inside(lock);
        EXPECT_EQ(lock.readerCount(), 0);
    }
    stop = true;
    EXPECT_EQ(writes, 50);
}

TEST(ReaderWriterLockTest, steadyWritersDoNotStarveAReader) {
    ReaderWriterLock lock;
    std::atomic<bool> stop{false};
    std::vector<Thread> writers(3);
    for (auto& writer : writers) {
        writer.start("writer", [&] {
            while (!stop) {
                const WriterLock inside(lock);
                std::this_thread::sleep_for(std::chrono::microseconds(500));
            }
        });
    }
    int reads = 0;
    for (; reads < 50; ++reads) {
        const ReaderLock inside(lock);
        EXPECT_FALSE(lock.holdsWriterLock());
    }
    stop = true;
    EXPECT_EQ(reads, 50);
}

TEST(ReaderWriterLockTest, readersThatWaitGoInBeforeTheNextWriter) {
    for (int round = 0; round < 10; ++round) {
        ReaderWriterLock lock;
        Queue queue(lock);
        lock.lockWrite();
        queue.add('w', true);
        queue.add('r', false);
        queue.add('r', false);
        lock.unlockWrite();
        ASSERT_EQ(queue.order(), "rrw");
    }
}

TEST(ReaderWriterLockTest, writersGoInInTheOrderOfTheirAsking) {
    for (int round = 0; round < 5; ++round) {
        ReaderWriterLock lock;
        Queue queue(lock);
        lock.lockRead();
        for (const char name : {'1', '2', '3', '4'}) {
            queue.add(name, true);
        }
        lock.unlockRead();
        ASSERT_EQ(queue.order(), "1234");
    }
}

/// Two numbers that are equal whenever no writer is between its two steps. Plain integers, so that
/// the thread sanitizer sees any hole in the lock.
struct Guarded {
    ReaderWriterLock lock;
    long first = 0;
    long second = 0;

    bool consistent() {
        const ReaderLock reader(lock);
        const bool same = first == second;
        const ReaderLock again(lock);
        return same && first == second;
    }
    void change() {
        const WriterLock writer(lock);
        ++first;
        const ReaderLock reader(lock);
        const WriterLock again(lock);
        ++second;
    }
};

TEST(ReaderWriterLockTest, stress) {
    constexpr int ROUNDS = 300;
    constexpr int THREADS = 4;
    Guarded data;
    std::atomic<int> broken{0};
    {
        std::vector<Thread> threads(std::size_t{THREADS} * 2);
        for (std::size_t i = 0; i < threads.size(); ++i) {
            const bool writes = i % 2 == 0;
            threads[i].start(writes ? "writer" : "reader", [&, writes] {
                for (int round = 0; round < ROUNDS; ++round) {
                    if (writes) {
                        data.change();
                    } else if (!data.consistent()) {
                        ++broken;
                    }
                }
            });
        }
    }
    EXPECT_EQ(broken, 0);
    EXPECT_EQ(data.first, ROUNDS * THREADS);
    EXPECT_EQ(data.second, ROUNDS * THREADS);
    EXPECT_EQ(data.lock.readerCount(), 0);
    EXPECT_FALSE(data.lock.holdsWriterLock());
}

} // namespace
