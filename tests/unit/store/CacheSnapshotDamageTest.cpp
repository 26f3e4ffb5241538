#include "StoreFixture.h"
#include "store/CacheSnapshot.h"
#include "support/Damage.h"

#include <boost/make_shared.hpp>

#include <set>

using nis::CacheSnapshot;
using nis::MapEntry;

namespace {

class CacheSnapshotDamageTest : public test::StoreFixture {
protected:
    using Records = std::vector<MapEntry>;

    static Records read(const boost::shared_ptr<CacheSnapshot>& snapshot) {
        Records records;
        const auto iterator = CacheSnapshot::getIterator(snapshot);
        for (MapEntry entry = **iterator; !entry.key.empty(); entry = *++*iterator) {
            records.push_back(entry);
        }
        return records;
    }
    /// The records as the file's bytes say, by a reader that has nothing in common with the tested
    /// one; empty when they do not fill the file.
    static Records parsed(const std::string& bytes) {
        Records records;
        std::size_t at = length(bytes, 20);
        while (at < bytes.size()) {
            MapEntry entry;
            for (std::string* text : {&entry.key, &entry.value}) {
                const std::size_t size = at + 2 <= bytes.size() ? length(bytes, at) : 0;
                if (at + 2 + size > bytes.size()) {
                    return {};
                }
                *text = bytes.substr(at + 2, size);
                at += 2 + size;
            }
            records.push_back(entry);
        }
        return records;
    }
    static std::size_t length(const std::string& bytes, std::size_t at) {
        return static_cast<unsigned char>(bytes.at(at)) +
               256U * static_cast<unsigned char>(bytes.at(at + 1));
    }
    static std::size_t differences(const std::string& a, const std::string& b) {
        std::size_t count = 0;
        for (std::size_t i = 0; i < std::min(a.size(), b.size()); ++i) {
            count += a[i] != b[i] ? 1 : 0;
        }
        return count;
    }
    void damageAll(const test::Entries& entries) {
        boost::make_shared<CacheSnapshot>(boost::make_shared<test::FakeMap>(entries), "dom", "dc1")
            ->preserveOnClose();
        const std::string original = test::readFile("dom:hosts.byname:dc1:42.snap");
        nis::logger->setThreshold(tessa::LOG_FAILURE);
        for (unsigned number = 0; number < 200 && !HasFailure(); ++number) {
            SCOPED_TRACE(number);
            const std::string bytes = test::damaged(original, number);
            test::writeFile("x.snap", bytes);
            check(original, bytes);
        }
        nis::logger->setThreshold(tessa::LOG_INFORMATION);
    }
    /// The format has no checksum: damage inside a text is not seen, but the records must be the
    /// file's, all of them, and a file that was cut, prolonged or replaced must be refused.
    void check(const std::string& original, const std::string& bytes) {
        static const std::set<std::string> TEXTS = {
            "snapshot header read failed",
            "Bad magic number",
            "Corrupt header in snapshot (string offsets)",
            "Corrupt header in snapshot (file length)",
            "snapshot read failed string failed",
            "Corrupt record in snapshot",
        };
        try {
            const auto snapshot = boost::make_shared<CacheSnapshot>("x.snap");
            ++m_accepted;
            EXPECT_EQ(original.size(), bytes.size());
            EXPECT_LE(differences(original, bytes), 4096U);
            EXPECT_EQ(original.substr(0, 16), bytes.substr(0, 16)) << "but for the order";
            EXPECT_EQ(parsed(bytes), read(snapshot));
        } catch (const nis::FileSystemError& e) {
            EXPECT_TRUE(TEXTS.count(e.what())) << e.what();
            EXPECT_EQ("x.snap", e.arg());
            ++m_refused;
        }
    }

    int m_accepted = 0;
    int m_refused = 0;
};

TEST_F(CacheSnapshotDamageTest, LargeMap) {
    test::Entries entries;
    for (int i = 0; i < 500; ++i) {
        entries["key" + std::to_string(i)] =
            std::string(static_cast<std::size_t>(i), static_cast<char>('a' + i % 26));
    }
    damageAll(entries);
    EXPECT_GT(m_refused, 60);
    EXPECT_GT(m_accepted, 0);
}

TEST_F(CacheSnapshotDamageTest, MapOfShortEntries) {
    test::Entries entries;
    for (int i = 0; i < 100; ++i) {
        entries[std::to_string(i)] = "";
    }
    damageAll(entries);
    EXPECT_GT(m_refused, 90);
}

TEST_F(CacheSnapshotDamageTest, EmptyMap) {
    damageAll({});
    EXPECT_GT(m_refused, 90);
}

} // namespace
