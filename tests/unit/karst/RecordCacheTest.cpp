#include "RecordCache.h"

#include "support/TempFolder.h"

#include <karst/DBStore.h>
#include <karst/Exceptions.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace tessa;

std::string valueOf(const RecordCache& cache, RecordCache::Owner owner, const std::string& key) {
    const RecordCache::Finding found = cache.find(owner, key);
    return !found.known ? "(unknown)" : found.present ? found.value.toString() : "(absent)";
}

TEST(RecordCacheTest, KnowsWhatWasInsertedUnderTheOwner) {
    RecordCache cache(1 << 20);
    EXPECT_EQ(valueOf(cache, 1, "a"), "(unknown)");
    cache.insert(1, "a", {}, "one");
    cache.insert(2, "a", {}, "two");
    cache.insert(1, "", {}, "");
    EXPECT_EQ(valueOf(cache, 1, "a"), "one");
    EXPECT_EQ(valueOf(cache, 2, "a"), "two");
    EXPECT_EQ(valueOf(cache, 3, "a"), "(unknown)");
    EXPECT_EQ(valueOf(cache, 1, ""), "") << "an empty record is a record";
    cache.insert(1, "a", {}, "three");
    EXPECT_EQ(valueOf(cache, 1, "a"), "three");
    cache.forget(1, "a");
    cache.forget(1, "never there");
    EXPECT_EQ(valueOf(cache, 1, "a"), "(unknown)");
    EXPECT_EQ(valueOf(cache, 2, "a"), "two");
}

TEST(RecordCacheTest, KnowsWhatIsNotThereAndWhatFollows) {
    RecordCache cache(1 << 20);
    cache.insertAbsent(1, "a");
    EXPECT_EQ(valueOf(cache, 1, "a"), "(absent)");
    cache.insert(1, "a", "b", "value of b");
    const RecordCache::Finding found = cache.find(1, "a");
    EXPECT_EQ(found.key.toString(), "b");
    EXPECT_EQ(found.value.toString(), "value of b");
}

TEST(RecordCacheTest, KeepsWithinItsMemory) {
    constexpr std::size_t MEMORY = 1 << 20;
    RecordCache cache(MEMORY);
    const std::string value(200, 'v');
    for (int i = 0; i < 50'000; ++i) {
        cache.insert(1, std::to_string(i), {}, value);
        ASSERT_EQ(valueOf(cache, 1, std::to_string(i)), value);
    }
    EXPECT_LE(cache.memory(), MEMORY);
    EXPECT_GT(cache.memory(), MEMORY / 4);
}

TEST(RecordCacheTest, PrefersWhatIsAskedForToWhatIsReadAhead) {
    RecordCache cache(1 << 20);
    cache.insert(1, "often", {}, "asked for");
    for (int i = 0; i < 100'000; ++i) {
        const std::string key = std::to_string(i);
        cache.insert(2, key, key + "+", "walked once");
        cache.find(2, key);
        ASSERT_EQ(valueOf(cache, 1, "often"), "asked for") << i;
    }
}

TEST(RecordCacheTest, WhatIsAskedForAgainStaysWhileOthersPass) {
    RecordCache cache(1 << 20);
    std::vector<std::string> often;
    for (int i = 0; i < 500; ++i) {
        often.push_back("often " + std::to_string(i));
        cache.insert(1, often.back(), {}, "value of " + often.back());
    }
    for (int round = 0; round < 200; ++round) {
        for (const std::string& key : often) {
            ASSERT_EQ(valueOf(cache, 1, key), "value of " + key) << round;
        }
        for (int i = 0; i < 100; ++i) {
            cache.insert(2, std::to_string(round * 100 + i), {}, "asked for never");
        }
    }
    EXPECT_LE(cache.memory(), std::size_t{1} << 20);
}

/// Replaced, forgotten and evicted records in any order: what is found is what was put last.
TEST(RecordCacheTest, NeverFindsWhatWasReplacedOrForgotten) {
    RecordCache cache(1 << 18);
    std::mt19937 random(1); // NOLINT: the same in every run
    std::vector<std::string> last(300);
    for (int i = 0; i < 100'000; ++i) {
        const std::size_t number = random() % last.size();
        const std::string key = "key " + std::to_string(number);
        switch (random() % 8) {
        case 0:
            cache.forget(1, key);
            last[number].clear();
            break;
        case 1:
            cache.insertAbsent(1, key);
            last[number] = "(absent)";
            break;
        case 2:
        case 3:
            last[number] = std::string(random() % 700, 'v') + std::to_string(i);
            cache.insert(1, key, {}, last[number]);
            break;
        default: {
            const std::string found = valueOf(cache, 1, key);
            ASSERT_TRUE(found == "(unknown)" || found == last[number]) << key;
        }
        }
    }
}

TEST(RecordCacheTest, LargeRecordsAreNotKept) {
    RecordCache cache(1 << 20);
    cache.insert(1, "a", {}, "small");
    cache.insert(1, "a", {}, std::string(RecordCache::LARGEST + 1, 'x'));
    EXPECT_EQ(valueOf(cache, 1, "a"), "(unknown)") << "nor is the one before";
    cache.insert(1, std::string(RecordCache::LARGEST, 'k'), {}, {});
    EXPECT_EQ(valueOf(cache, 1, std::string(RecordCache::LARGEST, 'k')), "");
    RecordCache tiny(64);
    tiny.insert(1, "a", {}, "larger than a shard");
    EXPECT_EQ(valueOf(tiny, 1, "a"), "(unknown)");
}

/// A store whose reads come from the cache wherever they can.
class CachedStoreTest : public testing::Test {
protected:
    CachedStoreTest() { m_store.open((m_folder.path() / "store").string(), DB_CREATE, 0600); }
    std::string get(const std::string& key) const {
        const DBItem item = m_store.fetch(key);
        return item.present() ? item.toString() : "(absent)";
    }
    std::string walk() const {
        std::string keys;
        DBStore::Record record = m_store.seek(std::string(), false);
        for (; record.found; record = m_store.seek(record.key, false)) {
            keys += record.key + "=" + record.value + " ";
        }
        return keys;
    }

    test::TempFolder m_folder;
    DBStore m_store;
};

TEST_F(CachedStoreTest, ReadsSeeEveryWriteAtOnce) {
    EXPECT_EQ(get("a"), "(absent)");
    EXPECT_EQ(walk(), "");
    m_store.store(std::string("a"), std::string("1"), false);
    EXPECT_EQ(get("a"), "1");
    EXPECT_EQ(walk(), "a=1 ");
    m_store.store(std::string("c"), std::string("3"), false);
    m_store.store(std::string("b"), std::string("2"), false);
    EXPECT_EQ(walk(), "a=1 b=2 c=3 ");
    m_store.store(std::string("a"), std::string("11"), true);
    EXPECT_EQ(get("a"), "11");
    EXPECT_EQ(walk(), "a=11 b=2 c=3 ");
    m_store.remove(std::string("b"));
    EXPECT_EQ(get("b"), "(absent)");
    EXPECT_EQ(walk(), "a=11 c=3 ");
    EXPECT_THROW(m_store.store(std::string("a"), std::string("no"), false), DBException);
    EXPECT_EQ(get("a"), "11");
}

TEST_F(CachedStoreTest, BatchThatIsGivenUpTakesBackWhatReadersSaw) {
    m_store.store(std::string("a"), std::string("old"), false);
    EXPECT_EQ(get("a"), "old");
    m_store.beforeCommit([] { throw DBException("given up", "here"); });
    {
        DBStore::Batch batch(m_store);
        m_store.store(std::string("a"), std::string("new"), true);
        m_store.store(std::string("b"), std::string("new"), true);
        EXPECT_EQ(get("a"), "new");
        EXPECT_EQ(walk(), "a=new b=new ");
        EXPECT_THROW(batch.commit(), DBException);
    }
    EXPECT_EQ(get("a"), "old");
    EXPECT_EQ(get("b"), "(absent)");
    EXPECT_EQ(walk(), "a=old ");
}

TEST_F(CachedStoreTest, StepOfSeveralOperationsIsSeenAsOne) {
    m_store.store(std::string("a"), std::string("1"), false);
    std::atomic<bool> inStep{false};
    std::atomic<bool> asked{false};
    std::thread reader;
    {
        const Lock step(m_store.mutex());
        m_store.remove(std::string("a"));
        EXPECT_EQ(get("a"), "(absent)");
        EXPECT_EQ(walk(), "");
        reader = std::thread([&] {
            asked = true;
            EXPECT_EQ(get("a"), "2");
            EXPECT_EQ(walk(), "a=2 ");
            EXPECT_FALSE(inStep);
        });
        inStep = true;
        while (!asked) {
            std::this_thread::yield();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20)); // time to go wrong in
        m_store.store(std::string("a"), std::string("2"), false);
        inStep = false;
    }
    reader.join();
}

TEST_F(CachedStoreTest, ClosedStoreAnswersNothing) {
    m_store.store(std::string("a"), std::string("1"), false);
    EXPECT_EQ(get("a"), "1");
    EXPECT_EQ(walk(), "a=1 ");
    m_store.close();
    EXPECT_THROW(get("a"), DBException);
    EXPECT_THROW(walk(), DBException);
}

TEST_F(CachedStoreTest, ReadersNeverSeeAValueGoBack) {
    m_store.store(std::string("n"), std::string("0"), false);
    std::atomic<bool> done{false};
    std::vector<std::thread> readers;
    for (int i = 0; i < 2; ++i) {
        readers.emplace_back([&] {
            int last = 0;
            while (!done) {
                const int now = std::stoi(get("n"));
                ASSERT_GE(now, last);
                last = now;
                const DBStore::Record first = m_store.seek(std::string(), false);
                ASSERT_GE(std::stoi(first.value), last);
                last = std::stoi(first.value);
            }
        });
    }
    for (int n = 1; n <= 5000; ++n) {
        m_store.store(std::string("n"), std::to_string(n), true);
    }
    done = true;
    for (std::thread& reader : readers) {
        reader.join();
    }
}

} // namespace
