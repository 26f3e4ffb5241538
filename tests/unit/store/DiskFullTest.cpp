// What happens when the file system has no more room. Mounts a small one, so needs a private
// system.
#include "StoreFixture.h"
#include "store/CacheSnapshot.h"
#include "store/NisCache.h"

#include <karst/Exceptions.h>

#include <boost/make_shared.hpp>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

using nis::BadCacheFile;
using nis::CacheSnapshot;
using nis::NisCache;
using tessa::DBException;
using tessa::DBStore;

namespace {

class DiskFullTest : public test::StoreFixture {
protected:
    void SetUp() override {
        std::filesystem::create_directory("small");
        ASSERT_EQ(0, ::mount("tmpfs", "small", "tmpfs", 0, "size=256k")) << std::strerror(errno);
        m_mounted = true;
        std::filesystem::current_path("small");
    }
    ~DiskFullTest() override {
        if (m_mounted) {
            std::filesystem::current_path(m_folder.path());
            EXPECT_EQ(0, ::umount2("small", MNT_DETACH)) << std::strerror(errno);
        }
    }
    /// Leaves about `pages` pages of room.
    static void fillUp(unsigned pages) {
        const int file = ::open("ballast", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        ASSERT_GE(file, 0);
        const std::string page(4096, 'b');
        while (::write(file, page.data(), page.size()) == ssize_t{4096}) {
        }
        ASSERT_EQ(ENOSPC, errno);
        struct stat status {};
        ASSERT_EQ(0, ::fstat(file, &status));
        ASSERT_EQ(0, ::ftruncate(file, status.st_size - static_cast<off_t>(pages) * 4096));
        ::close(file);
    }
    static void makeRoom() { std::filesystem::remove("ballast"); }

    static test::Entries contents(const DBStore& store) {
        test::Entries found;
        const auto iterator = store.getIterator();
        while (iterator->hasNext()) {
            const std::string value = iterator->next().toString();
            found[iterator->key()] = value;
        }
        return found;
    }
    static std::string key(int i) { return "key" + std::to_string(i); }

    bool m_mounted = false;
};

TEST_F(DiskFullTest, SingleWritesFailWithoutHarm) {
    test::Entries model;
    DBStore store;
    store.open("s.map", tessa::DB_CREATE, 0600);
    std::string text;
    for (int i = 0; text.empty() && i < 1000; ++i) {
        try {
            store.store(key(i), std::string(1000, 'x'), true);
            model[key(i)] = std::string(1000, 'x');
        } catch (const DBException& e) {
            text = e.what();
        }
    }
    EXPECT_NE(std::string::npos, text.find("'s.map': ")) << text;
    EXPECT_NE(std::string::npos, text.find("full")) << text;
    EXPECT_EQ(model, contents(store));
    store.checkStructure();
    store.close();
    store.open("s.map", tessa::DB_OPEN, 0600);
    store.checkStructure();
    EXPECT_EQ(model, contents(store));
}

TEST_F(DiskFullTest, BatchThatDoesNotFitIsGivenUpAsAWhole) {
    DBStore store;
    store.open("s.map", tessa::DB_CREATE, 0600);
    store.store(key(0), std::string("before"), true);
    {
        DBStore::Batch batch(store);
        // Fits into the cache, so it is the commit that fails.
        for (int i = 0; i < 200; ++i) {
            store.store(key(i), std::string(1000, 'x'), true);
        }
        EXPECT_THROW(batch.commit(), DBException);
    }
    EXPECT_EQ(1U, store.rollbackCount());
    EXPECT_EQ((test::Entries{{key(0), "before"}}), contents(store));
    store.checkStructure();
    store.store(key(1), std::string("after"), true);
    store.checkStructure();
}

TEST_F(DiskFullTest, WritesAfterALossFailUntilTheBatchEnds) {
    DBStore store;
    store.open("s.map", tessa::DB_CREATE, 0600);
    store.store(key(0), std::string("before"), true);
    int failed = 0;
    int written = 0;
    {
        DBStore::Batch batch(store);
        for (int i = 0; i < 12000; ++i) { // more than the cache, so it spills to the file
            try {
                store.store(key(i), std::string(1000, 'x'), true);
                ++written;
                EXPECT_EQ(0, failed) << "a write after a loss";
            } catch (const DBException&) {
                ++failed;
            }
        }
        EXPECT_GT(failed, 0);
        EXPECT_EQ("before", store.fetch(key(0)).toString()) << "readers go on";
        EXPECT_THROW(store.remove(key(0)), DBException);
        EXPECT_THROW(DBStore::Batch(store).commit(), DBException);
        EXPECT_THROW(batch.commit(), DBException);
    }
    EXPECT_GT(written, 0);
    EXPECT_EQ(1U, store.rollbackCount());
    EXPECT_EQ((test::Entries{{key(0), "before"}}), contents(store));
    store.store(key(1), std::string("after"), true);
    store.close();
    store.open("s.map", tessa::DB_OPEN, 0600);
    store.checkStructure();
    EXPECT_EQ((test::Entries{{key(0), "before"}, {key(1), "after"}}), contents(store));
}

TEST_F(DiskFullTest, CacheGoesBackToTheStateBeforeThePassAndMovesItsOrderOn) {
    std::string file;
    {
        const auto cache = makeCache();
        file = cache->getFilename();
        cache->put("a", "1", 0);
        cache->setHighUSN(10);
        cache->setLastUpdateTime(100);
        std::uint64_t lost = 0;
        {
            NisCache::Batch batch(*cache);
            for (int i = 0; i < 200; ++i) {
                cache->put(key(i), std::string(1000, 'x'), 0);
            }
            cache->setHighUSN(20);
            cache->setLastUpdateTime(200);
            lost = cache->getOrder();
            std::string arg;
            EXPECT_EQ("storing to", refusal<BadCacheFile>([&] { batch.commit(); }, &arg));
            EXPECT_EQ(file, arg);
        }
        EXPECT_EQ(tessa::Int64(10), cache->getHighUSN());
        EXPECT_EQ(100, cache->getLastUpdateTime());
        EXPECT_EQ(lost + 1, cache->getOrder());
        EXPECT_EQ((test::Entries{{"a", "1"}}), layer(*cache, 0));
    }
    const NisCache again(file);
    EXPECT_EQ(202U, again.getOrder()) << "stored, too";
    EXPECT_EQ(tessa::Int64(10), again.getHighUSN());
}

TEST_F(DiskFullTest, LossWithinAPassIsToldAtItsEnd) {
    const auto cache = makeCache();
    cache->put("a", "1", 0);
    const std::string log = logOf([&] {
        const NisCache::Batch batch(*cache);
        int failed = 0;
        for (int i = 0; i < 12000; ++i) {
            failed += refusal<BadCacheFile>([&] {
                          cache->put(key(i), std::string(1000, 'x'), 0);
                      }).empty()
                          ? 0
                          : 1;
        }
        EXPECT_GT(failed, 0);
        EXPECT_EQ("storing to", refusal<BadCacheFile>([&] { cache->setHighUSN(20); }));
    });
    EXPECT_NE(std::string::npos, log.find("Changes of map cache 'hosts.byname' for server dc1"))
        << log.substr(0, 2000);
    EXPECT_EQ(tessa::Int64::ZERO, cache->getHighUSN());
    EXPECT_EQ((test::Entries{{"a", "1"}}), layer(*cache, 0));
    const std::uint64_t order = cache->getOrder();
    cache->put("b", "2", 0);
    EXPECT_EQ(order + 1, cache->getOrder());
}

TEST_F(DiskFullTest, CacheThatCannotBeMadeLeavesNoFile) {
    fillUp(1);
    std::string arg;
    const std::string text = refusal<BadCacheFile>([] { makeCache(); }, &arg);
    EXPECT_TRUE(text == "Failed to open NisCache" || text == "storing to") << text;
    EXPECT_EQ("dom:hosts.byname:dc1.map", arg);
    EXPECT_FALSE(std::filesystem::exists(arg));
    EXPECT_FALSE(std::filesystem::exists(arg + "-journal"));
    makeRoom();
    EXPECT_EQ("dom:hosts.byname:dc1.map", makeCache()->getFilename());
}

TEST_F(DiskFullTest, CacheCanBeReadButNotWrittenUntilThereIsRoom) {
    std::string file;
    {
        const auto cache = makeCache();
        file = cache->getFilename();
        cache->put("a", "1", 0);
        cache->setHighUSN(10);
    }
    fillUp(0);
    NisCache cache(file);
    EXPECT_EQ("storing to", refusal<BadCacheFile>([&] { cache.put("a", "2", 0); }));
    EXPECT_EQ("storing to", refusal<BadCacheFile>([&] { cache.setHighUSN(20); }));
    EXPECT_EQ("1", cache.get("a", 0).value);
    EXPECT_EQ(1U, cache.getOrder());
    EXPECT_EQ(tessa::Int64(10), cache.getHighUSN());
    makeRoom();
    cache.put("a", "2", 0);
    EXPECT_EQ("2", cache.get("a", 0).value);
    EXPECT_EQ(2U, cache.getOrder());
}

TEST_F(DiskFullTest, SnapshotThatDoesNotFitLeavesNoFile) {
    test::Entries entries;
    for (int i = 0; i < 2000; ++i) {
        entries[key(i)] = std::string(200, 'v');
    }
    const auto map = boost::make_shared<test::FakeMap>(entries);
    const std::string log = logOf([&] {
        EXPECT_EQ("write to snapshot failed", refusal<nis::FileWriteFailed>([&] {
                      CacheSnapshot snapshot(map, "dom", "dc1");
                  }));
    });
    EXPECT_NE(std::string::npos, log.find("Failed while writing data to snapshot file "
                                          "'dom:hosts.byname:dc1:42.snap' (disk space low?)"))
        << log;
    EXPECT_TRUE(std::filesystem::is_empty("."));
    EXPECT_EQ(0, map->getReaderWriterLock().readerCount());
}

TEST_F(DiskFullTest, SmallSnapshotThatDoesNotFitLeavesNoFile) {
    fillUp(0);
    const auto map = boost::make_shared<test::FakeMap>(test::Entries{{"a", "1"}});
    const std::string log = logOf([&] {
        EXPECT_EQ("write to snapshot failed", refusal<nis::FileWriteFailed>([&] {
                      CacheSnapshot snapshot(map, "dom", "dc1");
                  }));
    });
    EXPECT_NE(std::string::npos, log.find("Failed while writing header fix-ups")) << log;
    EXPECT_FALSE(std::filesystem::exists("dom:hosts.byname:dc1:42.snap"));
}

} // namespace
