#include "maps/NisMap.h"

#include "maps/SlowMapIterator.h"
#include "store/CacheSnapshot.h"
#include "unit/maps/MapsFixture.h"

#include <boost/make_shared.hpp>

#include <sys/stat.h>

namespace {

class NisMapTest : public test::MapsFixture {
protected:
    boost::shared_ptr<test::PlainMap> makeMap(const std::string& name = "m") {
        auto map = boost::make_shared<test::PlainMap>(makeCache(name));
        map->cachePut("a", "1", 0);
        map->cachePut("b", "2", 0);
        return map;
    }
    const test::Entries TWO{{"a", "1"}, {"b", "2"}};
};

TEST_F(NisMapTest, TransferMakesASnapshotAndReusesIt) {
    const auto map = makeMap();
    EXPECT_EQ(transfer(*map), TWO);
    const auto snapshots = files(".snap");
    ASSERT_EQ(snapshots.size(), 1U);
    EXPECT_EQ(snapshots[0], "dom:m:dc1:" + std::to_string(map->getOrder()) + ".snap");
    struct stat before {};
    ASSERT_EQ(::stat(snapshots[0].c_str(), &before), 0);
    EXPECT_EQ(transfer(*map), TWO);
    struct stat after {};
    ASSERT_EQ(::stat(snapshots[0].c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino) << "the snapshot was made again";
}

TEST_F(NisMapTest, StaleSnapshotIsMadeAgainBeforeATransfer) {
    const auto map = makeMap();
    transfer(*map);
    const std::string old = files(".snap").at(0);
    map->cachePut("c", "3", 0);
    EXPECT_EQ(transfer(*map), (test::Entries{{"a", "1"}, {"b", "2"}, {"c", "3"}}));
    const auto snapshots = files(".snap");
    ASSERT_EQ(snapshots.size(), 1U);
    EXPECT_NE(snapshots[0], old);
}

TEST_F(NisMapTest, RunningTransferKeepsItsSnapshot) {
    const auto map = makeMap();
    const auto iterator = map->getAll();
    EXPECT_EQ((**iterator).key, "a");
    map->cacheRemove("b", 0);
    map->updateSnapshot();
    EXPECT_EQ((*++*iterator).key, "b");
    EXPECT_EQ(*++*iterator, nis::MapEntry::NOT_FOUND);
}

TEST_F(NisMapTest, TransferWithoutSnapshotWalksTheLiveMap) {
    const auto map = makeMap();
    // A folder of that name keeps the snapshot from being made.
    std::filesystem::create_directory("dom:m:dc1:" + std::to_string(map->getOrder()) + ".snap");
    test::Entries found;
    const std::string log = logOf([&] { found = transfer(*map); });
    EXPECT_EQ(found, TWO);
    EXPECT_NE(log.find("Failed to create efficient snapshot for map 'm': "), std::string::npos);
    EXPECT_NE(log.find("(disk space low?), using inefficient iterator"), std::string::npos);
    EXPECT_EQ(map->getReaderWriterLock().readerCount(), 0);
}

TEST_F(NisMapTest, SlowIteratorHoldsTheReadSideFromFirstAdvanceToEnd) {
    const auto map = makeMap();
    nis::SlowMapIterator iterator(map);
    EXPECT_EQ(map->getReaderWriterLock().readerCount(), 0);
    EXPECT_EQ(iterator.getMapName(), "m");
    EXPECT_EQ((*iterator).key, "a");
    EXPECT_EQ(map->getReaderWriterLock().readerCount(), 1);
    EXPECT_EQ((*iterator).key, "a");
    EXPECT_EQ((*++iterator).key, "b");
    EXPECT_EQ(map->getReaderWriterLock().readerCount(), 1);
    EXPECT_EQ(*++iterator, nis::MapEntry::NOT_FOUND);
    EXPECT_EQ(map->getReaderWriterLock().readerCount(), 0);
    EXPECT_EQ(*++iterator, nis::MapEntry::NOT_FOUND);
}

TEST_F(NisMapTest, SlowIteratorThatIsDroppedLetsGoOfTheLock) {
    const auto map = makeMap();
    {
        nis::SlowMapIterator iterator(map);
        EXPECT_EQ((*iterator).key, "a");
    }
    EXPECT_EQ(map->getReaderWriterLock().readerCount(), 0);
}

TEST_F(NisMapTest, SlowIteratorOfAnEmptyMap) {
    const auto map = boost::make_shared<test::PlainMap>(makeCache("empty"));
    nis::SlowMapIterator iterator(map);
    EXPECT_EQ(*iterator, nis::MapEntry::NOT_FOUND);
    EXPECT_EQ(map->getReaderWriterLock().readerCount(), 0);
    EXPECT_EQ(*++iterator, nis::MapEntry::NOT_FOUND);
}

TEST_F(NisMapTest, AttachTakesOnlyASnapshotOfThisMapAndOrder) {
    const auto map = makeMap();
    const auto other = makeMap("other");
    const auto fitting = boost::make_shared<nis::CacheSnapshot>(map, "dom", "dc1");
    const auto foreign = boost::make_shared<nis::CacheSnapshot>(other, "dom", "dc1");
    map->cachePut("c", "3", 0);
    const std::string stale = logOf([&] { EXPECT_FALSE(map->attachSnapshot(fitting)); });
    EXPECT_NE(stale.find("Map m rejects snapshot '" + fitting->getFilename() + "'"),
              std::string::npos);
    map->cacheRemove("c", 0);
    map->setOrder(fitting->getOrder());
    const std::string name = logOf([&] { EXPECT_FALSE(map->attachSnapshot(foreign)); });
    EXPECT_NE(name.find("Map m rejects snapshot '"), std::string::npos);
    const std::string taken = logOf([&] { EXPECT_TRUE(map->attachSnapshot(fitting)); });
    EXPECT_NE(taken.find("Map m attaches snapshot '" + fitting->getFilename() + "'"),
              std::string::npos);
    EXPECT_EQ(transfer(*map), TWO);
}

TEST_F(NisMapTest, UpdateSnapshotOnlyRefreshesWhatIsThere) {
    const auto map = makeMap();
    map->updateSnapshot();
    EXPECT_TRUE(files(".snap").empty());
    transfer(*map);
    const auto first = files(".snap");
    map->updateSnapshot();
    EXPECT_EQ(files(".snap"), first);
    map->cachePut("c", "3", 0);
    map->updateSnapshot();
    EXPECT_EQ(files(".snap"),
              std::vector<std::string>{"dom:m:dc1:" + std::to_string(map->getOrder()) + ".snap"});
}

TEST_F(NisMapTest, SnapshotThatCannotBeRefreshedIsGone) {
    const auto map = makeMap();
    transfer(*map);
    map->cachePut("c", "3", 0);
    const std::string name = "dom:m:dc1:" + std::to_string(map->getOrder()) + ".snap";
    std::filesystem::create_directory(name);
    const std::string log = logOf([&] { map->updateSnapshot(); });
    EXPECT_NE(log.find("unable to refresh snapshot for map 'm': "), std::string::npos);
    EXPECT_EQ(files(".snap"), std::vector<std::string>{name}) << "only what was in the way";
    std::filesystem::remove(name);
    map->updateSnapshot();
    EXPECT_TRUE(files(".snap").empty());
}

TEST_F(NisMapTest, SnapshotOutlivesTheMapUnlessItIsDiscarded) {
    auto map = makeMap();
    transfer(*map);
    map.reset();
    EXPECT_EQ(files(".snap").size(), 1U);
    EXPECT_EQ(files(".map").size(), 1U);
    auto other = makeMap("other");
    transfer(*other);
    EXPECT_FALSE(other->getDeleteOnClose());
    other->deleteOnClose();
    EXPECT_TRUE(other->getDeleteOnClose());
    other.reset();
    EXPECT_EQ(files(".snap").size(), 1U);
    EXPECT_EQ(files(".map").size(), 1U);
}

TEST_F(NisMapTest, DroppedSnapshotIsGoneAtOnceButForItsReaders) {
    const auto map = makeMap();
    const auto iterator = map->getAll();
    EXPECT_EQ((**iterator).key, "a");
    map->dropSnapshot();
    EXPECT_TRUE(files(".snap").empty());
    EXPECT_EQ((*++*iterator).key, "b");
    map->updateSnapshot();
    EXPECT_EQ(files(".snap").size(), 1U) << "there was one, so it is kept up";
}

} // namespace
