#include "store/CacheSnapshot.h"

#include "StoreFixture.h"

#include <boost/make_shared.hpp>

#include <algorithm>
#include <array>
#include <cstddef>
#include <filesystem>
#include <thread>

#include <sys/stat.h>

using nis::BadSnapshotFile;
using nis::CacheSnapshot;
using nis::FileOpenFailed;
using nis::FileReadFailed;
using nis::FileWriteFailed;
using nis::MapEntry;
using std::string_literals::operator""s;

namespace {

class CacheSnapshotTest : public test::StoreFixture {
protected:
    static constexpr const char* FILE = "dom:hosts.byname:dc1:42.snap";

    static boost::shared_ptr<CacheSnapshot> makeSnapshot(const test::Entries& entries,
                                                         std::uint32_t order = 42) {
        return boost::make_shared<CacheSnapshot>(boost::make_shared<test::FakeMap>(entries, order),
                                                 "dom", "dc1");
    }
    static test::Entries read(const boost::shared_ptr<CacheSnapshot>& snapshot) {
        test::Entries found;
        const auto iterator = CacheSnapshot::getIterator(snapshot);
        for (MapEntry entry = **iterator; !entry.key.empty(); entry = *++*iterator) {
            EXPECT_TRUE(found.emplace(entry.key, entry.value).second);
        }
        return found;
    }
    /// The file of a snapshot of these entries.
    static std::string fileOf(const test::Entries& entries) {
        makeSnapshot(entries)->preserveOnClose();
        return test::readFile(FILE);
    }
    static std::string badSnapshot(const std::string& bytes) {
        test::writeFile("x.snap", bytes);
        std::string arg;
        const std::string text =
            refusal<BadSnapshotFile>([] { CacheSnapshot snapshot("x.snap"); }, &arg);
        EXPECT_TRUE(text.empty() || arg == "x.snap");
        EXPECT_TRUE(text.empty() || std::filesystem::exists("x.snap")) << "left to the caller";
        return text;
    }
    static std::string with(std::string bytes, std::size_t at, const std::string& what) {
        return bytes.replace(at, what.size(), what);
    }
    static std::string record(const std::string& key, const std::string& value) {
        std::string bytes;
        for (const std::string& text : {key, value}) {
            bytes += static_cast<char>(text.size() & 0xff);
            bytes += static_cast<char>(text.size() >> 8);
            bytes += text;
        }
        return bytes;
    }
};

TEST_F(CacheSnapshotTest, FileHasTheFormByteForByte) {
    const std::string bytes = fileOf({{"a", "1"}, {"bc", ""}});
    std::string expected = "SNAP";
    expected += "\x3c\0\0\0"s;             // file length
    expected += "\x18\0\x1d\0\x2b\0\0\0"s; // offsets of the strings
    expected += "\x2a\0\0\0"s;             // order
    expected += "\x30\0\0\0"s;             // data start
    expected += "\3\0dom\x0c\0hosts.byname\3\0dc1"s;
    expected += "\1\0a\1\0"s + "1\2\0bc\0\0"s;
    EXPECT_EQ(expected, bytes);
    EXPECT_EQ(0x3cU, bytes.size());
}

TEST_F(CacheSnapshotTest, TellsWhatItIsACopyOf) {
    const auto snapshot = makeSnapshot({{"a", "1"}});
    EXPECT_EQ(FILE, snapshot->getFilename());
    EXPECT_EQ("dom", snapshot->getDomain());
    EXPECT_EQ("hosts.byname", snapshot->getMapName());
    EXPECT_EQ("dc1", snapshot->getServer());
    EXPECT_EQ(42U, snapshot->getOrder());
    EXPECT_EQ("hosts.byname", CacheSnapshot::getIterator(snapshot)->getMapName());
    struct stat status {};
    ASSERT_EQ(0, ::stat(FILE, &status));
    EXPECT_EQ(0600U, status.st_mode & 07777);
}

TEST_F(CacheSnapshotTest, ReopensWithAllEntries) {
    test::Entries entries = {{"a\0b"s, "v\0w"s}, {"empty", ""}, {"big", std::string(65535, 'x')}};
    for (int i = 0; i < 5000; ++i) {
        entries["key" + std::to_string(i)] = std::string(static_cast<std::size_t>(i % 300), 'v');
    }
    makeSnapshot(entries, 0xfffffffe)->preserveOnClose();
    const auto snapshot = boost::make_shared<CacheSnapshot>("dom:hosts.byname:dc1:4294967294.snap");
    EXPECT_EQ("dom", snapshot->getDomain());
    EXPECT_EQ("hosts.byname", snapshot->getMapName());
    EXPECT_EQ("dc1", snapshot->getServer());
    EXPECT_EQ(0xfffffffeU, snapshot->getOrder());
    EXPECT_EQ(entries, read(snapshot));
    EXPECT_EQ(entries, read(snapshot)) << "again, with a fresh iterator";
}

TEST_F(CacheSnapshotTest, EmptyMap) {
    const auto snapshot = makeSnapshot({});
    const std::string bytes = test::readFile(FILE);
    EXPECT_EQ(24U + 5 + 14 + 5, bytes.size());
    EXPECT_EQ(bytes.size(), static_cast<unsigned char>(bytes[20]));
    const auto iterator = CacheSnapshot::getIterator(snapshot);
    EXPECT_EQ(MapEntry::NOT_FOUND, **iterator);
    ++*iterator;
    EXPECT_EQ(MapEntry::NOT_FOUND, **iterator);
    EXPECT_EQ("", badSnapshot(bytes));
}

TEST_F(CacheSnapshotTest, IteratorStartsByEitherOperator) {
    const auto snapshot = makeSnapshot({{"a", "1"}, {"b", "2"}});
    const auto iterator = CacheSnapshot::getIterator(snapshot);
    ++*iterator;
    EXPECT_EQ((MapEntry{"a", "1"}), **iterator);
    EXPECT_EQ((MapEntry{"a", "1"}), **iterator);
    ++*iterator;
    EXPECT_EQ((MapEntry{"b", "2"}), **iterator);
    ++*iterator;
    EXPECT_EQ(MapEntry::NOT_FOUND, **iterator);
    ++*iterator;
    EXPECT_EQ(MapEntry::NOT_FOUND, **iterator);
}

TEST_F(CacheSnapshotTest, IteratorsAreIndependent) {
    const auto snapshot = makeSnapshot({{"a", "1"}, {"b", "2"}, {"c", "3"}});
    const auto first = CacheSnapshot::getIterator(snapshot);
    const auto second = CacheSnapshot::getIterator(snapshot);
    EXPECT_EQ("a", (**first).key);
    ++*first;
    ++*first;
    EXPECT_EQ("c", (**first).key);
    EXPECT_EQ("a", (**second).key);
    ++*second;
    EXPECT_EQ("b", (**second).key);
    EXPECT_EQ("c", (**first).key);
}

TEST_F(CacheSnapshotTest, EntriesInMemoryAreShownWithoutACopy) {
    test::Entries entries;
    for (int i = 0; i < 5000; ++i) {
        entries["key" + std::to_string(i)] = std::string(static_cast<std::size_t>(i % 97), 'v');
    }
    entries["large"] = std::string(65000, 'l'); // with its key no window has room for two of these
    entries["larger"] = std::string(65535, 'm');
    const auto iterator = CacheSnapshot::getIterator(makeSnapshot(entries));
    std::array<nis::MapIterator::View, 5> views;
    EXPECT_EQ(iterator->peek(views), 0U) << "nothing has been read yet";
    test::Entries found;
    std::size_t shown = 0;
    MapEntry entry = **iterator;
    while (!entry.key.empty()) {
        EXPECT_TRUE(found.emplace(entry.key, entry.value).second) << entry.key;
        // Now all of them are taken, now the first ones only.
        const std::size_t taken = std::min(iterator->peek(views), 1 + shown % views.size());
        for (std::size_t i = 0; i + 1 < taken; ++i) {
            EXPECT_TRUE(found.emplace(views[i].key, views[i].value).second) << views[i].key;
        }
        if (taken > 0) {
            const nis::MapIterator::View& last = views[taken - 1];
            const MapEntry seen{std::string(last.key), std::string(last.value)};
            shown += taken;
            iterator->skipTo(last);
            entry = shown % 3 == 0 ? **iterator : seen; // the one shown is the current one
            EXPECT_EQ(entry.key, seen.key);
            EXPECT_EQ(entry.value, seen.value);
        } else {
            entry = *++*iterator;
        }
    }
    EXPECT_EQ(found, entries);
    EXPECT_GT(shown, 4900U);
    EXPECT_EQ(iterator->peek(views), 0U) << "the end";
    EXPECT_TRUE((**iterator).key.empty());
    EXPECT_EQ(iterator->peek({}), 0U);
}

TEST_F(CacheSnapshotTest, ManyThreadsReadAtOnce) {
    test::Entries entries;
    for (int i = 0; i < 3000; ++i) {
        entries["key" + std::to_string(i)] = std::string(100, static_cast<char>('a' + i % 26));
    }
    const auto snapshot = makeSnapshot(entries);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] { EXPECT_EQ(entries, read(snapshot)); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST_F(CacheSnapshotTest, MapIsHeldUnderItsReaderLockWhileWritten) {
    const auto map = boost::make_shared<test::FakeMap>(test::Entries{{"a", "1"}, {"b", "2"}});
    const CacheSnapshot snapshot(map, "dom", "dc1");
    EXPECT_TRUE(map->lockHeld);
    EXPECT_EQ(0, map->getReaderWriterLock().readerCount());
}

TEST_F(CacheSnapshotTest, FileGoesWithTheObjectUnlessPreserved) {
    makeSnapshot({{"a", "1"}});
    EXPECT_FALSE(std::filesystem::exists(FILE));
    makeSnapshot({{"a", "1"}})->preserveOnClose();
    EXPECT_TRUE(std::filesystem::exists(FILE));
    CacheSnapshot(FILE).preserveOnClose();
    EXPECT_TRUE(std::filesystem::exists(FILE));
    { const CacheSnapshot again(FILE); }
    EXPECT_FALSE(std::filesystem::exists(FILE));
}

TEST_F(CacheSnapshotTest, IteratorKeepsTheSnapshotAlive) {
    auto snapshot = makeSnapshot({{"a", "1"}, {"b", "2"}});
    auto iterator = CacheSnapshot::getIterator(snapshot);
    snapshot.reset();
    EXPECT_EQ("a", (**iterator).key);
    EXPECT_TRUE(std::filesystem::exists(FILE));
    iterator.reset();
    EXPECT_FALSE(std::filesystem::exists(FILE));
}

TEST_F(CacheSnapshotTest, SuccessorOfTheSameNameIsNotDeletedByItsPredecessor) {
    auto old = makeSnapshot({{"a", "old"}, {"b", "old"}});
    const auto iterator = CacheSnapshot::getIterator(old);
    EXPECT_EQ("old", (**iterator).value);
    const auto fresh = makeSnapshot({{"a", "new"}});
    EXPECT_EQ((test::Entries{{"a", "old"}, {"b", "old"}}), read(old));
    old.reset();
    ++*iterator;
    EXPECT_EQ((MapEntry{"b", "old"}), **iterator);
    EXPECT_EQ((test::Entries{{"a", "new"}}), read(fresh));
    EXPECT_TRUE(std::filesystem::exists(FILE));
}

TEST_F(CacheSnapshotTest, PredecessorGoesWithoutTouchingItsSuccessor) {
    auto old = makeSnapshot({{"a", "old"}});
    const auto fresh = makeSnapshot({{"a", "new"}});
    old.reset();
    EXPECT_TRUE(std::filesystem::exists(FILE));
    fresh->preserveOnClose();
}

TEST_F(CacheSnapshotTest, ReplacesALinkAndNotWhatItPointsTo) {
    test::writeFile("precious", "content");
    std::filesystem::create_symlink("precious", FILE);
    makeSnapshot({{"a", "1"}})->preserveOnClose();
    EXPECT_EQ("content", test::readFile("precious"));
    EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(FILE)));
}

TEST_F(CacheSnapshotTest, WhatIsASnapshotFile) {
    for (const char* name : {".snap", "a.snap", "a.map"}) {
        test::writeFile(name, "");
    }
    EXPECT_FALSE(CacheSnapshot::IsCacheSnapshotFile(".snap"));
    EXPECT_TRUE(CacheSnapshot::IsCacheSnapshotFile("a.snap"));
    EXPECT_FALSE(CacheSnapshot::IsCacheSnapshotFile("b.snap"));
    EXPECT_FALSE(CacheSnapshot::IsCacheSnapshotFile("a.map"));
    EXPECT_FALSE(CacheSnapshot::IsCacheSnapshotFile("snap"));
}

TEST_F(CacheSnapshotTest, WritesStringsCutToSixteenBitsOfLength) {
    std::ofstream file("strings", std::ios::binary);
    EXPECT_EQ(0, nis::write(file, "abc"));
    EXPECT_EQ(5, nis::write(file, std::string(65536, 'x')));
    EXPECT_EQ(7, nis::write(file, std::string(65536 + 3, 'y')));
    file.close();
    EXPECT_EQ("\3\0abc\0\0\3\0yyy"s, test::readFile("strings"));

    const test::Entries entries = {{"a", std::string(65536 + 2, 'x')}, {"b", "2"}};
    EXPECT_EQ((test::Entries{{"a", "xx"}, {"b", "2"}}), read(makeSnapshot(entries)));
}

TEST_F(CacheSnapshotTest, KeyThatWouldEndTheMapIsNotWritten) {
    EXPECT_EQ("write to snapshot failed", refusal<FileWriteFailed>([] {
                  makeSnapshot({{"a", "1"}, {std::string(65536, 'k'), "2"}, {"z", "3"}});
              }));
    EXPECT_TRUE(std::filesystem::is_empty("."));
}

TEST_F(CacheSnapshotTest, UnsafeOrTooLongNamesAreRefused) {
    struct Names {
        std::string domain;
        std::string map;
        std::string server;
    };
    const std::string part(100, 'x');
    for (const Names& names : {Names{"../d", "m", "s"}, Names{"d", "a/b", "s"}, Names{"d", "m", ""},
                               Names{"d", "m\0"s, "s"}, Names{part, part, std::string(40, 'x')}}) {
        const auto map = boost::make_shared<test::FakeMap>(test::Entries{}, 1U, names.map);
        EXPECT_EQ("snapshot create failed",
                  refusal<FileOpenFailed>([&] { CacheSnapshot(map, names.domain, names.server); }));
    }
    EXPECT_TRUE(std::filesystem::is_empty("."));
}

TEST_F(CacheSnapshotTest, FolderThatCannotBeWritten) {
    std::filesystem::create_directory("gone");
    std::filesystem::current_path("gone");
    std::filesystem::remove("../gone");
    const std::string log = logOf([] {
        EXPECT_EQ("snapshot create failed", refusal<FileOpenFailed>([] { makeSnapshot({}); }));
    });
    EXPECT_NE(std::string::npos, log.find("Failed to open snapshot file '" + std::string(FILE) +
                                          "' for writing (disk space low?)"))
        << log;
}

TEST_F(CacheSnapshotTest, MapThatFailsLeavesNoFile) {
    struct Failing : test::FakeMap {
        using FakeMap::FakeMap;
        MapEntry getNext(const std::string&) const override {
            NIS_THROW(nis::BadCacheFile, "getNext from", "x.map");
        }
    };
    EXPECT_EQ(
        "getNext from", refusal<nis::BadCacheFile>([] {
            CacheSnapshot(boost::make_shared<Failing>(test::Entries{{"a", "1"}}), "dom", "dc1");
        }));
    EXPECT_TRUE(std::filesystem::is_empty("."));
}

TEST_F(CacheSnapshotTest, LogsItsLife) {
    const std::string log = logOf([] { makeSnapshot({{"a", "1"}, {"b", "2"}}); });
    for (const char* line :
         {"Creating CacheSnapshot for map hosts.byname, order = 42",
          "Created snapshot file 'dom:hosts.byname:dc1:42.snap'. HeaderLen=24, fileLength=60, 2 "
          "records",
          "Destructing CacheSnapshot 'dom:hosts.byname:dc1:42.snap' for map hosts.byname, order = "
          "42",
          "unlinking CacheSnapshot file 'dom:hosts.byname:dc1:42.snap'"}) {
        EXPECT_NE(std::string::npos, log.find(line)) << line << "\n" << log;
    }
}

TEST_F(CacheSnapshotTest, OpeningWhatIsNotThereOrTooShort) {
    EXPECT_EQ("snapshot open failed",
              refusal<FileOpenFailed>([] { CacheSnapshot snapshot("missing.snap"); }));
    for (const std::string& bytes : {""s, "SNAP"s, std::string(23, 'x')}) {
        test::writeFile("x.snap", bytes);
        const std::string log = logOf([] {
            EXPECT_EQ("snapshot header read failed",
                      refusal<FileReadFailed>([] { CacheSnapshot snapshot("x.snap"); }));
        });
        EXPECT_NE(std::string::npos,
                  log.find("Failed while reading header from snapshot file 'x.snap'"));
    }
    std::filesystem::create_directory("d.snap");
    EXPECT_EQ("snapshot header read failed",
              refusal<FileReadFailed>([] { CacheSnapshot snapshot("d.snap"); }));
    ASSERT_EQ(0, ::mkfifo("p.snap", 0600));
    EXPECT_EQ("snapshot header read failed",
              refusal<FileReadFailed>([] { CacheSnapshot snapshot("p.snap"); }));
    std::filesystem::create_symlink("x.snap", "l.snap");
    EXPECT_EQ("snapshot open failed",
              refusal<FileOpenFailed>([] { CacheSnapshot snapshot("l.snap"); }));
}

TEST_F(CacheSnapshotTest, OpeningRefusesEachFlawWithItsText) {
    const std::string good = fileOf({{"a", "1"}, {"b", "22"}});
    EXPECT_EQ("Bad magic number", badSnapshot(with(good, 0, "snap")));
    EXPECT_EQ("Bad magic number", badSnapshot(with(good, 3, "Q")));
    EXPECT_EQ("Bad magic number", badSnapshot(std::string(24, '\0')));
    constexpr const char* OFFSETS = "Corrupt header in snapshot (string offsets)";
    EXPECT_EQ(OFFSETS, badSnapshot(with(good, 9, "\xff")));
    EXPECT_EQ(OFFSETS, badSnapshot(with(good, 11, "\xff")));
    EXPECT_EQ(OFFSETS, badSnapshot(with(good, 13, "\xff")));
    EXPECT_EQ(OFFSETS, badSnapshot(with(good, 20, "\0"s))) << "data start before the strings";
    EXPECT_EQ(OFFSETS, badSnapshot(with(good, 20, "\x36"))) << "data start at the second record";
    EXPECT_EQ(OFFSETS, badSnapshot(with(good, 10, "\x18"))) << "map name where the domain is";
    EXPECT_EQ(OFFSETS, badSnapshot(with(good, 14, "x")));
    EXPECT_EQ(OFFSETS, badSnapshot(with(good, 23, "x")));
    constexpr const char* LENGTH = "Corrupt header in snapshot (file length)";
    EXPECT_EQ(LENGTH, badSnapshot(good.substr(0, good.size() - 1)));
    EXPECT_EQ(LENGTH, badSnapshot(good + "x"));
    EXPECT_EQ(LENGTH, badSnapshot(good.substr(0, 24)));
    constexpr const char* STRINGS = "snapshot read failed string failed";
    const std::string log = logOf([&] {
        EXPECT_EQ(STRINGS, badSnapshot(with(good, 25, "\xff"))) << "domain longer than the file";
    });
    EXPECT_NE(std::string::npos, log.find("Failure while reading from 'x.snap' @ 24")) << log;
    EXPECT_NE(std::string::npos,
              log.find("Failed while reading header strings from snapshot file 'x.snap'"));
}

TEST_F(CacheSnapshotTest, OpeningRefusesRecordsThatDoNotFillTheFile) {
    const std::string good = fileOf({{"a", "1"}, {"b", "22"}});
    constexpr const char* RECORD = "Corrupt record in snapshot";
    const std::size_t data = 48;
    EXPECT_EQ(RECORD, badSnapshot(with(good, data, "\0"s))) << "empty key in the middle";
    EXPECT_EQ(RECORD, badSnapshot(with(good, data, "\2"s)));
    EXPECT_EQ(RECORD, badSnapshot(with(good, data + 1, "\x7f"))) << "key beyond the end";
    EXPECT_EQ(RECORD, badSnapshot(with(good, data + 4, "\xff"))) << "value beyond the end";
    const auto enlarged = [&](const std::string& more) {
        std::string bytes = good + more;
        bytes[4] = static_cast<char>(bytes.size());
        return bytes;
    };
    EXPECT_EQ("", badSnapshot(enlarged(record("c", ""))));
    EXPECT_EQ(RECORD, badSnapshot(enlarged("\1")));
    EXPECT_EQ(RECORD, badSnapshot(enlarged("\1\0c"s))) << "no value";
    EXPECT_EQ(RECORD, badSnapshot(enlarged("\1\0c\1\0"s)));
    EXPECT_EQ(RECORD, badSnapshot(enlarged("\0\0\0\0"s)));
}

TEST_F(CacheSnapshotTest, OpeningRefusesBlocksThatNeverReachedTheDisk) {
    std::string bytes = fileOf({{"a", std::string(20000, 'v')}, {"b", "2"}});
    EXPECT_EQ("", badSnapshot(bytes));
    EXPECT_EQ("Corrupt record in snapshot",
              badSnapshot(with(bytes, 8192, std::string(4096, '\0'))));
    bytes = fileOf({{"a", std::string(20000, 'v')}});
    EXPECT_EQ("Corrupt record in snapshot",
              badSnapshot(with(bytes, 16384, std::string(bytes.size() - 16384, '\0'))));
}

TEST_F(CacheSnapshotTest, FileCutWhileItIsReadIsAnError) {
    test::Entries entries;
    for (int i = 0; i < 5000; ++i) {
        entries["key" + std::to_string(i)] = std::string(100, 'v');
    }
    const auto snapshot = makeSnapshot(entries);
    const auto iterator = CacheSnapshot::getIterator(snapshot);
    EXPECT_EQ("key0", (**iterator).key);
    std::filesystem::resize_file(FILE, 70000);
    std::string arg;
    const std::string log = logOf([&] {
        EXPECT_EQ("Reading from snapshot", refusal<FileReadFailed>(
                                               [&] {
                                                   while (!(**iterator).key.empty()) {
                                                       ++*iterator;
                                                   }
                                               },
                                               &arg));
    });
    EXPECT_EQ(FILE, arg);
    EXPECT_NE(std::string::npos, log.find("Failure while reading from '" + arg + "' @ "));
}

} // namespace
