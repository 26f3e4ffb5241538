#include "store/NisCache.h"

#include "StoreFixture.h"

#include <ctime>
#include <filesystem>

#include <sys/stat.h>

using nis::BadCacheFile;
using nis::MapEntry;
using nis::NisCache;
using std::string_literals::operator""s;

namespace {

class NisCacheTest : public test::StoreFixture {
protected:
    static constexpr const char* FILE = "dom:hosts.byname:dc1.map";

    static std::string opening(const std::string& file) {
        std::string arg;
        const std::string text = refusal<BadCacheFile>([&] { NisCache cache(file); }, &arg);
        EXPECT_TRUE(text.empty() || arg == file) << arg;
        return text;
    }
    /// A store file with the records given, in the raw.
    static std::string storeWith(const test::Entries& records) {
        tessa::DBStore store;
        store.open("raw.map", tessa::DB_CREATE, 0600);
        for (const auto& [key, value] : records) {
            store.store(key, value, true);
        }
        return "raw.map";
    }
    static std::string meta(const std::string& name) { return "\xff\0"s + name; }
    static std::string number(std::int64_t value) {
        return {reinterpret_cast<const char*>(&value), sizeof value};
    }
};

TEST_F(NisCacheTest, InternalKeys) {
    EXPECT_EQ("a", NisCache::MakeInternalKey("a", 0));
    EXPECT_EQ("\0\0a\0b"s, NisCache::MakeInternalKey("a\0b"s, 0));
    EXPECT_EQ("\0"s, NisCache::MakeInternalKey("\0"s, 0));
    EXPECT_EQ("a\1b"s, NisCache::MakeInternalKey("a\1b"s, 0));
    EXPECT_EQ("\3\0k"s, NisCache::MakeInternalKey("k", 3));
    EXPECT_EQ("\3\0a\0b"s, NisCache::MakeInternalKey("a\0b"s, 3));
    EXPECT_EQ("\xff\0version"s, NisCache::MakeInternalKey("version", 255));
    EXPECT_EQ("", NisCache::MakeInternalKey("", 0));
    EXPECT_EQ("\2\0"s, NisCache::MakeInternalKey("", 2));
}

TEST_F(NisCacheTest, LayerOfStoredKeys) {
    EXPECT_EQ(0, NisCache::GetLayer(""));
    EXPECT_EQ(0, NisCache::GetLayer("\3"));
    EXPECT_EQ(0, NisCache::GetLayer("\3x"));
    EXPECT_EQ(3, NisCache::GetLayer("\3\0"s));
    EXPECT_EQ(3, NisCache::GetLayer("\3\0k"s));
    EXPECT_EQ(255, NisCache::GetLayer("\xff\0usn"s));
    EXPECT_EQ(0, NisCache::GetLayer("\0\0a\0b"s));
    EXPECT_EQ("k", NisCache::StripLayer("\3\0k"s));
    EXPECT_EQ("a\0b"s, NisCache::StripLayer("\0\0a\0b"s));
    EXPECT_EQ("", NisCache::StripLayer("\3\0"s));
    EXPECT_EQ("ab", NisCache::StripLayer("ab"));
    EXPECT_EQ("a", NisCache::StripLayer("a"));
}

TEST_F(NisCacheTest, NewCacheHoldsItsMetaDataInTheRightForm) {
    makeCache();
    const test::Entries expected = {
        {meta("domain"), "dom"},
        {meta("map name"), "hosts.byname"},
        {meta("server"), "dc1"},
        {meta("zone hierarchy"), "zone\nhierarchy"},
        {meta("target zones"), "target\nzones"},
        {meta("map DN"), "CN=hosts,DC=x"},
        {meta("version"), "\1\0\0\0"s},
    };
    EXPECT_EQ(expected, rawRecords(FILE));
    struct stat status {};
    ASSERT_EQ(0, ::stat(FILE, &status));
    EXPECT_EQ(0600U, status.st_mode & 07777);
}

TEST_F(NisCacheTest, FieldsOfANewCacheAndAfterReopening) {
    {
        const auto cache = makeCache();
        EXPECT_EQ(FILE, cache->getFilename());
        EXPECT_EQ(0U, cache->getOrder());
        EXPECT_EQ(0, cache->getLastUpdateTime());
        EXPECT_EQ(0, cache->getLastCurrentTime());
        EXPECT_EQ(tessa::Int64::ZERO, cache->getHighUSN());
        cache->setHighUSN(1'000'000'000'000);
        cache->setLastUpdateTime(11);
        cache->setLastCurrentTime(12);
        cache->put("a", "1", 0);
        cache->put("b", "1", 2);
    }
    const NisCache cache(FILE);
    EXPECT_EQ("dom", cache.getDomain());
    EXPECT_EQ("hosts.byname", cache.getMapName());
    EXPECT_EQ("dc1", cache.getServer());
    EXPECT_EQ("zone\nhierarchy", cache.getZoneHierarchy());
    EXPECT_EQ("target\nzones", cache.getTargetZone());
    EXPECT_EQ("CN=hosts,DC=x", cache.getMapDN());
    EXPECT_EQ(11, cache.getLastUpdateTime());
    EXPECT_EQ(12, cache.getLastCurrentTime());
    EXPECT_EQ(2U, cache.getOrder());
    EXPECT_EQ(tessa::Int64(1'000'000'000'000), cache.getHighUSN());
}

TEST_F(NisCacheTest, StoredFormOfEntriesAndNumbers) {
    {
        const auto cache = makeCache();
        cache->put("a", "1", 0);
        cache->put("a\0b"s, "2", 0);
        cache->put("k", "3", 3);
        cache->setHighUSN(5);
        cache->setLastUpdateTime(6);
        cache->setLastCurrentTime(7);
    }
    test::Entries raw = rawRecords(FILE);
    EXPECT_EQ("1", raw["a"]);
    EXPECT_EQ("2", raw["\0\0a\0b"s]);
    EXPECT_EQ("3", raw["\3\0k"s]);
    EXPECT_EQ(number(5), raw[meta("usn")]);
    EXPECT_EQ(number(6), raw[meta("last update time")]);
    EXPECT_EQ(number(7), raw[meta("last current time")]);
    EXPECT_EQ(number(3), raw[meta("order")]);
}

TEST_F(NisCacheTest, KeyWithAZeroInSecondPlaceComesBack) {
    const auto cache = makeCache();
    cache->put("a\0b"s, "v", 0);
    EXPECT_EQ((MapEntry{"a\0b"s, "v"}), cache->getFirst(0));
    EXPECT_EQ((MapEntry{"a\0b"s, "v"}), cache->get("a\0b"s, 0));
    EXPECT_EQ(MapEntry::NOT_FOUND, cache->getNext("a\0b"s, 0));
}

TEST_F(NisCacheTest, LayersAreSeparate) {
    const auto cache = makeCache();
    cache->put("k", "three", 3);
    EXPECT_EQ(MapEntry::NOT_FOUND, cache->get("k", 0));
    EXPECT_EQ(MapEntry::NOT_FOUND, cache->getFirst(0));
    EXPECT_EQ((MapEntry{"k", "three"}), cache->getFirst(3));
    EXPECT_EQ((MapEntry{"k", "three"}), cache->get("k", 3));
    EXPECT_EQ(MapEntry::NOT_FOUND, cache->getFirst(2));
    cache->put("k", "zero", 0);
    cache->remove("k", 3);
    EXPECT_EQ((MapEntry{"k", "zero"}), cache->get("k", 0));
    EXPECT_EQ(MapEntry::NOT_FOUND, cache->get("k", 3));
}

TEST_F(NisCacheTest, OneByteKeysAreInLayerZero) {
    const auto cache = makeCache();
    test::Entries expected;
    for (int byte = 0; byte < 256; ++byte) {
        expected[std::string(1, static_cast<char>(byte))] = "v";
        cache->put(std::string(1, static_cast<char>(byte)), "v", 0);
    }
    EXPECT_EQ(expected, layer(*cache, 0));
}

TEST_F(NisCacheTest, LastLayerWalksTheMetaData) {
    const auto cache = makeCache();
    cache->put("entry", "v", 0);
    test::Entries found = layer(*cache, 255);
    EXPECT_EQ(8U, found.size()) << "the seven of a new cache, and the order";
    EXPECT_EQ("dom", found["domain"]);
    EXPECT_EQ("hosts.byname", found["map name"]);
    EXPECT_EQ(number(1), found["order"]);
}

TEST_F(NisCacheTest, EmptyValueIsAnEntry) {
    const auto cache = makeCache();
    cache->put("a", "", 0);
    cache->put("b", "v", 0);
    EXPECT_EQ((MapEntry{"a", ""}), cache->get("a", 0));
    EXPECT_EQ((test::Entries{{"a", ""}, {"b", "v"}}), layer(*cache, 0));
}

TEST_F(NisCacheTest, EmptyKeysDoNoHarm) {
    const auto cache = makeCache();
    cache->put("", "v", 0);
    cache->put("", "v", 3);
    cache->put("k", "v", 3);
    EXPECT_EQ((test::Entries{{"k", "v"}}), layer(*cache, 3));
    EXPECT_EQ(test::Entries{}, layer(*cache, 0));
    cache->put("k", "v", 0);
    EXPECT_EQ((test::Entries{{"k", "v"}}), layer(*cache, 0));
    cache->remove("", 0);
    cache->remove("", 3);
    EXPECT_EQ(MapEntry::NOT_FOUND, cache->get("", 0));
}

TEST_F(NisCacheTest, EveryChangeMovesTheOrder) {
    const auto cache = makeCache();
    cache->put("a", "1", 0);
    cache->put("a", "1", 0); // the same again
    cache->remove("a", 0);
    cache->remove("a", 0); // not there
    EXPECT_EQ(4U, cache->getOrder());
    cache->setLastUpdateTime(5);
    cache->setHighUSN(5);
    EXPECT_EQ(4U, cache->getOrder());
}

TEST_F(NisCacheTest, SetOrderIsStoredInFourBytesAndReadsAsZero) {
    {
        const auto cache = makeCache();
        cache->put("a", "1", 0);
        cache->setOrder(7);
        EXPECT_EQ(7U, cache->getOrder());
    }
    EXPECT_EQ("\7\0\0\0"s, rawRecords(FILE)[meta("order")]);
    {
        NisCache cache(FILE);
        EXPECT_EQ(0U, cache.getOrder());
        cache.setOrder(7);
        cache.put("b", "1", 0);
        EXPECT_EQ(8U, cache.getOrder());
    }
    EXPECT_EQ(number(8), rawRecords(FILE)[meta("order")]);
    EXPECT_EQ(8U, NisCache(FILE).getOrder());
}

TEST_F(NisCacheTest, ZeroMeansNowForTheUpdateTimeOnly) {
    const auto cache = makeCache();
    const std::time_t before = std::time(nullptr);
    cache->setLastUpdateTime(0);
    EXPECT_GE(cache->getLastUpdateTime(), before);
    EXPECT_LE(cache->getLastUpdateTime(), std::time(nullptr));
    cache->setLastCurrentTime(5);
    cache->setLastCurrentTime(0);
    EXPECT_EQ(0, cache->getLastCurrentTime());
    EXPECT_EQ(number(0), layer(*cache, 255)["last current time"]);
}

TEST_F(NisCacheTest, TakenNamesGetANumber) {
    const auto first = makeCache();
    const auto second = makeCache();
    EXPECT_EQ("dom:hosts.byname:dc1.1.map", second->getFilename());
    test::writeFile("dom:hosts.byname:dc1.2.map", "");
    test::writeFile("dom:hosts.byname:dc1.3.map-journal", "");
    std::filesystem::create_symlink("nowhere", "dom:hosts.byname:dc1.4.map");
    EXPECT_EQ("dom:hosts.byname:dc1.5.map", makeCache()->getFilename());
    EXPECT_EQ("dom:passwd.byname:dc1.map",
              NisCache::MakeCacheFilename("dom", "passwd.byname", "dc1", 0));
    EXPECT_EQ("dom:passwd.byname:dc1.7.map",
              NisCache::MakeCacheFilename("dom", "passwd.byname", "dc1", 7));
}

TEST_F(NisCacheTest, WhatIsACacheFile) {
    for (const char* name : {".map", "a.map", "a.snap", "a.map-journal", "map"}) {
        test::writeFile(name, "");
    }
    EXPECT_FALSE(NisCache::IsCacheFile(".map"));
    EXPECT_TRUE(NisCache::IsCacheFile("a.map"));
    EXPECT_FALSE(NisCache::IsCacheFile("b.map"));
    EXPECT_FALSE(NisCache::IsCacheFile("a.snap"));
    EXPECT_FALSE(NisCache::IsCacheFile("a.map-journal"));
    EXPECT_FALSE(NisCache::IsCacheFile("map"));
    EXPECT_FALSE(NisCache::IsCacheFile(""));
}

TEST_F(NisCacheTest, UnsafeNamesAreRefusedAndNamed) {
    for (const std::string& name : {"../x"s, "a/b"s, ""s, "."s, ".."s, "a\0b"s,
                                    std::string(201, 'x'), std::string(300, 'x')}) {
        std::string arg;
        const std::string log = logOf([&] {
            EXPECT_EQ("unsafe name", refusal<BadCacheFile>([&] { makeCache(name); }, &arg));
        });
        EXPECT_EQ("dom:" + name + ":dc1", arg);
        EXPECT_NE(std::string::npos, log.find("Map cache 'dom:")) << log;
        EXPECT_EQ("unsafe name", refusal<BadCacheFile>([&] { makeCache("hosts", name); }));
    }
    EXPECT_NE(std::string::npos, logOf([] {
                                     refusal<BadCacheFile>([] { makeCache("a/\nforged"); });
                                 }).find("dom:a/\\x0aforged:dc1"));
    EXPECT_TRUE(std::filesystem::is_empty("."));
}

TEST_F(NisCacheTest, CreatingWhereNothingCanBeWritten) {
    std::filesystem::create_directory("gone");
    std::filesystem::current_path("gone");
    std::filesystem::remove("../gone");
    std::string arg;
    EXPECT_EQ("Failed to open NisCache", refusal<BadCacheFile>([] { makeCache(); }, &arg));
    EXPECT_EQ(FILE, arg);
}

TEST_F(NisCacheTest, OpeningRefusesEachFlawWithItsText) {
    EXPECT_EQ("Failed to open NisCache", opening("missing.map"));
    test::writeFile("empty.map", "");
    EXPECT_EQ("Failed to open NisCache", opening("empty.map"));
    test::writeFile("text.map", std::string(9000, 'x'));
    EXPECT_EQ("Failed to open NisCache", opening("text.map"));
    EXPECT_EQ("NisCache is not intact", opening(storeWith({})));
    std::filesystem::remove("raw.map");
    EXPECT_EQ("Cache file version is too old", opening(storeWith({{"a", "b"}})));
    std::filesystem::remove("raw.map");
    EXPECT_EQ("Cache file version is too old", opening(storeWith({{meta("version"), ""}})));
    std::filesystem::remove("raw.map");
    EXPECT_EQ("Incorrect version", opening(storeWith({{meta("version"), "\2\0\0\0"s}})));
    std::filesystem::remove("raw.map");
    EXPECT_EQ("Cache file version unreadable", opening(storeWith({{meta("version"), "\1\0\0"s}})));
    std::filesystem::remove("raw.map");
    EXPECT_EQ("", opening(storeWith({{meta("version"), "\1\0\0\0"s}})));
}

TEST_F(NisCacheTest, EmptyStoreIsNamedInTheLog) {
    const std::string file = storeWith({});
    const std::string log = logOf([&] { opening(file); });
    EXPECT_NE(std::string::npos, log.find("Attempt to load empty database")) << log;
}

TEST_F(NisCacheTest, MissingMetaDataReadsAsEmptyAndNumbersNeedEightBytes) {
    const NisCache cache(storeWith({{meta("version"), "\1\0\0\0"s},
                                    {meta("order"), "\7\0\0\0"s},
                                    {meta("usn"), "123456789"},
                                    {meta("last update time"), ""},
                                    {meta("last current time"), number(9)}}));
    EXPECT_EQ("", cache.getDomain());
    EXPECT_EQ("", cache.getMapName());
    EXPECT_EQ("", cache.getTargetZone());
    EXPECT_EQ(0U, cache.getOrder());
    EXPECT_EQ(tessa::Int64::ZERO, cache.getHighUSN());
    EXPECT_EQ(0, cache.getLastUpdateTime());
    EXPECT_EQ(9, cache.getLastCurrentTime());
}

TEST_F(NisCacheTest, StoreOfAnotherFormatIsRefused) {
    makeCache();
    std::string bytes = test::readFile(FILE);
    bytes[63] = 9;
    test::writeFile(FILE, bytes);
    EXPECT_EQ("Failed to open NisCache", opening(FILE));
}

TEST_F(NisCacheTest, FileStaysUnlessToBeDeletedOnClose) {
    makeCache();
    EXPECT_TRUE(std::filesystem::exists(FILE));
    const std::string log = logOf([] {
        auto cache = boost::make_shared<NisCache>(FILE);
        cache->put("a", "b", 0);
        cache->deleteOnClose();
        EXPECT_TRUE(std::filesystem::exists(FILE));
    });
    EXPECT_TRUE(std::filesystem::is_empty("."));
    EXPECT_NE(std::string::npos, log.find("Destructing map cache 'hosts.byname' for server dc1"))
        << log;
}

TEST_F(NisCacheTest, ClosedStoreFailsWithTheOperationsText) {
    const auto cache = makeCache();
    cache->put("a", "1", 0);
    tessa::DBStoreInterface::closeAll();
    std::string arg;
    EXPECT_EQ("storing to", refusal<BadCacheFile>([&] { cache->put("a", "2", 0); }, &arg));
    EXPECT_EQ(FILE, arg);
    EXPECT_EQ("storing to", refusal<BadCacheFile>([&] { cache->setOrder(9); }));
    EXPECT_EQ("storing to", refusal<BadCacheFile>([&] { cache->setHighUSN(9); }));
    EXPECT_EQ("storing to", refusal<BadCacheFile>([&] { cache->setLastUpdateTime(9); }));
    EXPECT_EQ("storing to", refusal<BadCacheFile>([&] { cache->setLastCurrentTime(9); }));
    EXPECT_EQ("fetching from", refusal<BadCacheFile>([&] { cache->get("a", 0); }));
    EXPECT_EQ("remove from", refusal<BadCacheFile>([&] { cache->remove("a", 0); }));
    EXPECT_EQ("getFirst or getNext from", refusal<BadCacheFile>([&] { cache->getFirst(0); }));
    EXPECT_EQ("getNext from", refusal<BadCacheFile>([&] { cache->getNext("a", 0); }));
    EXPECT_EQ("storing to", refusal<BadCacheFile>([&] { NisCache::Batch batch(*cache); }));
    EXPECT_EQ(1U, cache->getOrder()) << "a failed write leaves the fields alone";
    EXPECT_EQ(tessa::Int64::ZERO, cache->getHighUSN());
    EXPECT_EQ(0, cache->getLastUpdateTime());
    EXPECT_EQ(0, cache->getLastCurrentTime());
}

TEST_F(NisCacheTest, LargeRecordsAndManyLayers) {
    {
        const auto cache = makeCache();
        for (unsigned n = 0; n < 255; ++n) {
            cache->put(std::string(1 + n * 4, 'k'), std::string(n * 100, '\0'),
                       static_cast<unsigned char>(n));
        }
        cache->put("big", std::string(200'000, 'x'), 0);
    }
    const NisCache cache(FILE);
    for (unsigned n = 1; n < 255; ++n) {
        EXPECT_EQ((test::Entries{{std::string(1 + n * 4, 'k'), std::string(n * 100, '\0')}}),
                  layer(cache, static_cast<unsigned char>(n)));
    }
    EXPECT_EQ(200'000U, cache.get("big", 0).value.size());
}

} // namespace
