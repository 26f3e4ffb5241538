#include "maps/DataHorde.h"

#include "maps/IntrinsicADNisMap.h"
#include "unit/maps/MapsFixture.h"

#include <sys/mount.h>
#include <unistd.h>

namespace {

using nis::DataHorde;
using test::Entries;

class DataHordeTest : public test::MapsFixture {
protected:
    const DataHorde::Identity m_identity{"passwd", "dom", ".GLOBAL", "hierarchy", "zone"};

    static boost::shared_ptr<nis::NisCache> create(DataHorde& horde) {
        return horde.createNisCache("passwd", "dom", ".GLOBAL", "hierarchy", "zone", 7, 99);
    }
    static std::string checksumOf(const std::vector<std::array<std::string, 3>>& records,
                                  const DataHorde::Identity& identity) {
        DataHorde horde("base", identity);
        for (const auto& [name, id, line] : records) {
            horde.add(name, id, line);
        }
        return horde.getChecksum();
    }
};

TEST_F(DataHordeTest, ChecksumOfABlock) {
    // Ten bytes: 10, a word, 6, a word, 2 and the two bytes left.
    const char bytes[] = {1, 0, 0, 0, 2, 0, 0, 0, 3, 1};
    EXPECT_EQ(DataHorde::addToChecksum(5, bytes, 10), 5U + 10 + 1 + 6 + 2 + 2 + 3 + 256);
    EXPECT_EQ(DataHorde::addToChecksum(5, bytes, 0), 5U);
    EXPECT_EQ(DataHorde::addToChecksum(0, bytes, 4), 4U + 1);
    EXPECT_EQ(DataHorde::addToChecksum(0, bytes, 5), 5U + 1 + 1 + 2);
    const unsigned char high[] = {0xff, 0xff, 0xff, 0xff};
    EXPECT_EQ(DataHorde::addToChecksum(0, high, 4), 3U) << "sums wrap";
    EXPECT_EQ(DataHorde::addToChecksum(0, high, 1), 1U + 255) << "bytes are not signed";
}

TEST_F(DataHordeTest, SameRecordsGiveTheSameChecksum) {
    const auto sum = checksumOf({{"a", "1", "line a"}, {"b", "2", "line b"}}, m_identity);
    EXPECT_EQ(checksumOf({{"a", "1", "line a"}, {"b", "2", "line b"}}, m_identity), sum);
    EXPECT_NE(checksumOf({{"a", "1", "line a"}}, m_identity), sum);
    EXPECT_NE(checksumOf({{"a", "1", "line a"}, {"b", "2", "line c"}}, m_identity), sum);
}

TEST_F(DataHordeTest, DigestSeesWhatTheSumDoesNot) {
    const auto both = [this](const std::vector<std::array<std::string, 3>>& records) {
        DataHorde horde("base", m_identity);
        for (const auto& [name, id, line] : records) {
            horde.add(name, id, line);
        }
        return std::make_pair(horde.getChecksum(), horde.getDigest());
    };
    const auto plain = both({{"a", "1", "sh"}, {"b", "2", "ok"}});
    const auto swapped = both({{"a", "1", "ok"}, {"b", "2", "sh"}});
    EXPECT_EQ(plain.first, swapped.first);
    EXPECT_NE(plain.second, swapped.second);
    EXPECT_NE(both({{"ab", "c", "d"}}).second, both({{"a", "bc", "d"}}).second);
    EXPECT_EQ(both({{"a", "1", "sh"}, {"b", "2", "ok"}}), plain);
}

TEST_F(DataHordeTest, ChecksumAsText) {
    // One record: count 1 is 4 + 1, "a" 1 + 'a', "7" 1 + '7', "l" 1 + 'l'.
    const int sum = 4 + 1 + 1 + 'a' + 1 + '7' + 1 + 'l';
    char text[16];
    std::snprintf(text, sizeof text, "%x", static_cast<unsigned>(sum));
    EXPECT_EQ(checksumOf({{"a", "7", "l"}}, m_identity), text);
    EXPECT_EQ(checksumOf({}, m_identity), "0");
    // A sum whose top bit is set is a negative number.
    EXPECT_EQ(checksumOf({{"a", "7", std::string("\0\0\0\x80", 4)}}, m_identity).front(), '-')
        << "no negative sum";
}

TEST_F(DataHordeTest, RecordsComeBackAsACache) {
    DataHorde horde("base", m_identity);
    EXPECT_FALSE(std::filesystem::exists("base.temp")) << "the file has no name";
    horde.add("ines", "1001", "ines:x");
    horde.add("tomas", "1002", "tomas:x");
    horde.add("twin", "1002", "twin:x");
    const std::string sum = horde.getChecksum();
    const auto cache = create(horde);
    EXPECT_EQ(layer(*cache, 0),
              (Entries{{"ines", "ines:x"}, {"tomas", "tomas:x"}, {"twin", "twin:x"}}));
    EXPECT_EQ(layer(*cache, 1), (Entries{{"1001", "ines:x"}, {"1002", "twin:x"}}));
    EXPECT_EQ(layer(*cache, 2), (Entries{{"checksum", sum}}));
    EXPECT_EQ(layer(*cache, 3), (Entries{{"digest", horde.getDigest()}}));
    EXPECT_EQ(cache->getOrder(), 7U);
    EXPECT_EQ(cache->getLastCurrentTime(), 99);
    EXPECT_GT(cache->getLastUpdateTime(), 0);
    EXPECT_EQ(cache->getServer(), ".GLOBAL");
    EXPECT_EQ(cache->getZoneHierarchy(), "hierarchy");
    EXPECT_EQ(cache->getHighUSN(), tessa::Int64::ZERO) << "not in service yet";
}

TEST_F(DataHordeTest, OversizedTextsAreCutToTheirLengthModulo65536) {
    DataHorde horde("base", m_identity);
    horde.add("long", "1", std::string(65536 + 3, 'x'));
    horde.add("exact", "2", std::string(65535, 'y'));
    horde.add("after", "3", "z");
    const auto cache = create(horde);
    EXPECT_EQ(cache->get("long", 0).value, "xxx");
    EXPECT_EQ(cache->get("exact", 0).value, std::string(65535, 'y'));
    EXPECT_EQ(cache->get("after", 0).value, "z");
}

TEST_F(DataHordeTest, DisabledHordeWritesStraightIntoANewCache) {
    for (const char* word : {"no", "No", "NO", "false", "0"}) {
        configure({{"nisd.datahorde.enable", word}});
        boost::shared_ptr<nis::NisCache> cache;
        {
            DataHorde horde("nosuchfolder/base", m_identity);
            EXPECT_TRUE(horde.isDirect()) << word;
            horde.add("ines", "1001", "ines:x");
            EXPECT_EQ(horde.recordCount(), 1U);
            EXPECT_EQ(refusal<nis::NisException>([&] { horde.getChecksum(); }), "checksum");
            cache = create(horde);
        }
        EXPECT_EQ(layer(*cache, 0), (Entries{{"ines", "ines:x"}}));
        EXPECT_EQ(layer(*cache, 1), (Entries{{"1001", "ines:x"}}));
        EXPECT_EQ(layer(*cache, 2), Entries{});
        EXPECT_EQ(cache->getOrder(), 7U);
    }
    for (const char* word : {"yes", "maybe", ""}) {
        configure({{"nisd.datahorde.enable", word}});
        EXPECT_FALSE(DataHorde("base", m_identity).isDirect()) << word;
    }
}

TEST_F(DataHordeTest, UntakenCacheLeavesNoFile) {
    configure({{"nisd.datahorde.enable", "no"}});
    {
        DataHorde horde("base", m_identity);
        horde.add("ines", "1001", "ines:x");
        EXPECT_EQ(files(".map").size(), 1U);
    }
    EXPECT_TRUE(files(".map").empty());
}

TEST_F(DataHordeTest, TemporaryFileThatCannotBeMade) {
    const std::string log = logOf([&] {
        EXPECT_EQ(refusal<nis::FileOpenFailed>([&] { DataHorde("nosuchfolder/base", m_identity); }),
                  "creating data horde");
    });
    EXPECT_NE(log.find("Failed to open temporary file 'nosuchfolder/base.temp' (disk space low?)"),
              std::string::npos);
}

TEST_F(DataHordeTest, FullDisk) {
    ASSERT_EQ(::mount("tmpfs", m_folder.path().c_str(), "tmpfs", 0, "size=64k"), 0)
        << "needs a private namespace";
    std::filesystem::current_path("/");
    std::filesystem::current_path(m_folder.path());
    const std::string log = logOf([&] {
        DataHorde horde("base", m_identity);
        EXPECT_EQ(refusal<nis::FileWriteFailed>([&] {
                      for (int i = 0; i < 1000; ++i) {
                          horde.add("name", std::to_string(i), std::string(1000, 'x'));
                      }
                  }),
                  "writing to data horde temp file");
    });
    EXPECT_NE(log.find("Failed while writing data temporary file for map 'passwd' (disk space "
                       "low?)"),
              std::string::npos);
    std::filesystem::current_path("/");
    ASSERT_EQ(::umount(m_folder.path().c_str()), 0);
}

TEST_F(DataHordeTest, FullDiskUnderTheLastRecords) {
    ASSERT_EQ(::mount("tmpfs", m_folder.path().c_str(), "tmpfs", 0, "size=4k"), 0)
        << "needs a private namespace";
    std::filesystem::current_path("/");
    std::filesystem::current_path(m_folder.path());
    {
        // They fit the stream's buffer, so only taking them out of it fails.
        DataHorde horde("base", m_identity);
        test::writeFile("filler", std::string(4096, 'f'));
        horde.add("ines", "1001", "ines:x");
        EXPECT_THROW(create(horde), nis::FileSystemError);
    }
    std::filesystem::current_path("/");
    ASSERT_EQ(::umount(m_folder.path().c_str()), 0);
}

} // namespace
