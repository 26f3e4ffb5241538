#include "StoreFixture.h"
#include "store/NisCache.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <random>
#include <thread>

#include <sys/wait.h>
#include <unistd.h>

using nis::BadCacheFile;
using nis::MapEntry;
using nis::NisCache;

namespace {

class NisCacheBatchTest : public test::StoreFixture {
protected:
    static constexpr const char* FILE = "dom:hosts.byname:dc1.map";
    static constexpr int ENTRIES = 100;

    /// One update pass: every entry gets the pass's number, then the high USN does.
    static void pass(NisCache& cache, int number) {
        NisCache::Batch batch(cache);
        for (int i = 0; i < ENTRIES; ++i) {
            cache.put("k" + std::to_string(i), std::to_string(number), 0);
        }
        cache.setHighUSN(number);
        batch.commit();
    }
};

TEST_F(NisCacheBatchTest, OrderCountsEveryChangeAndIsStored) {
    {
        const auto cache = makeCache();
        cache->put("a", "1", 0);
        pass(*cache, 1);
        EXPECT_EQ(1U + ENTRIES, cache->getOrder());
    }
    EXPECT_EQ(1U + ENTRIES, NisCache(FILE).getOrder());
}

TEST_F(NisCacheBatchTest, SetOrderWithinABatchKeepsItsWidth) {
    {
        const auto cache = makeCache();
        NisCache::Batch batch(*cache);
        cache->put("a", "1", 0);
        cache->setOrder(7);
    }
    EXPECT_EQ(0U, NisCache(FILE).getOrder());
    {
        NisCache cache(FILE);
        const NisCache::Batch batch(cache);
        cache.setOrder(7);
        cache.put("a", "1", 0);
    }
    EXPECT_EQ(8U, NisCache(FILE).getOrder());
}

TEST_F(NisCacheBatchTest, BatchesNestAndReadersSeeEachWrite) {
    const auto cache = makeCache();
    {
        NisCache::Batch outer(*cache);
        cache->put("a", "1", 0);
        {
            NisCache::Batch inner(*cache);
            cache->put("b", "1", 0);
            inner.commit();
            inner.commit();
        }
        EXPECT_EQ((MapEntry{"a", "1"}), cache->get("a", 0));
        EXPECT_EQ((MapEntry{"b", "1"}), cache->getNext("a", 0));
        cache->put("c", "1", 0);
    }
    EXPECT_EQ(3U, cache->getOrder());
}

TEST_F(NisCacheBatchTest, ClosingTheStoresCommitsThePassWithItsOrder) {
    const auto cache = makeCache();
    EXPECT_EQ("", logOf([&] {
                  const NisCache::Batch batch(*cache);
                  cache->put("a", "1", 0);
                  cache->put("b", "1", 0);
                  tessa::DBStoreInterface::closeAll();
              }));
    const NisCache again(FILE);
    EXPECT_EQ(2U, again.getOrder());
    EXPECT_EQ("1", again.get("b", 0).value);
}

TEST_F(NisCacheBatchTest, ThreadsReadDuringPasses) {
    const auto cache = makeCache();
    pass(*cache, 1);
    std::atomic<bool> stop{false};
    std::atomic<long> walks{0};
    std::vector<std::thread> readers;
    for (int t = 0; t < 3; ++t) {
        readers.emplace_back([&] {
            do {
                EXPECT_EQ(std::size_t{ENTRIES}, layer(*cache, 0).size());
                EXPECT_FALSE(cache->get("k7", 0).key.empty());
                EXPECT_GE(cache->getOrder(), std::uint64_t{ENTRIES});
                EXPECT_GT(cache->getHighUSN(), tessa::Int64::ZERO);
                EXPECT_GE(cache->getLastCurrentTime(), 0);
                ++walks;
            } while (!stop);
        });
    }
    for (int number = 2; number < 20 || walks < 10; ++number) {
        pass(*cache, number);
        cache->setLastCurrentTime(number);
    }
    stop = true;
    for (std::thread& reader : readers) {
        reader.join();
    }
}

/// Passes until killed, each told through the pipe when it is complete.
[[noreturn]] void runPasses(const char* file, int out, void (*pass)(NisCache&, int)) {
    NisCache cache(file);
    for (int number = static_cast<int>(cache.getHighUSN().value()) + 1;; ++number) {
        pass(cache, number);
        cache.setLastCurrentTime(number);
        if (::write(out, &number, sizeof number) != sizeof number) {
            ::_exit(1);
        }
    }
}

TEST_F(NisCacheBatchTest, KilledProcessLeavesTheStateOfAWholePass) {
    makeCache();
    std::mt19937 random(11);
    for (int round = 0; round < 50; ++round) {
        int ends[2];
        ASSERT_EQ(0, ::pipe(ends));
        const pid_t child = ::fork();
        if (child == 0) {
            ::close(ends[0]);
            runPasses(FILE, ends[1], &NisCacheBatchTest::pass);
        }
        ::close(ends[1]);
        int told = 0;
        for (unsigned i = 0; i < 1 + random() % 4; ++i) {
            ASSERT_EQ(ssize_t{sizeof told}, ::read(ends[0], &told, sizeof told));
        }
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000));
        ASSERT_EQ(0, ::kill(child, SIGKILL));
        int status = 0;
        ASSERT_EQ(child, ::waitpid(child, &status, 0));
        while (::read(ends[0], &told, sizeof told) == ssize_t{sizeof told}) {
        }
        ::close(ends[0]);

        const NisCache cache(FILE);
        const auto usn = cache.getHighUSN().value();
        EXPECT_TRUE(usn == told || usn == told + 1) << usn << " " << told;
        EXPECT_TRUE(cache.getLastCurrentTime() == usn || cache.getLastCurrentTime() == usn - 1);
        EXPECT_EQ(static_cast<std::uint64_t>(usn * ENTRIES), cache.getOrder());
        const test::Entries entries = layer(cache, 0);
        ASSERT_EQ(std::size_t{ENTRIES}, entries.size());
        for (const auto& [key, value] : entries) {
            ASSERT_EQ(std::to_string(usn), value) << key;
        }
    }
}

} // namespace
