#include "ldap/Store.h"
#include "support/TempFolder.h"

#include <karst/Exceptions.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace quorad::ldap;

constexpr const char* SERVER = "dc1.example.com";
constexpr const char* HOSTS = "CN=hosts,CN=nismaps,CN=zoneA,DC=example,DC=com";
constexpr const char* OTHER = "CN=other,CN=nismaps,CN=zoneA,DC=example,DC=com";

std::string guid(int number) {
    std::string bytes(16, '\0');
    bytes[0] = static_cast<char>(number >> 8);
    bytes[15] = static_cast<char>(number);
    return bytes;
}

std::vector<std::string> guids(int first, int last) {
    std::vector<std::string> all;
    for (int number = first; number <= last; ++number) {
        all.push_back(guid(number));
    }
    std::sort(all.begin(), all.end());
    return all;
}

class LdapStore : public testing::Test {
protected:
    void SetUp() override { open(); }
    void open(bool discard = false) {
        store.reset();
        store = std::make_unique<Store>(path, discard);
    }
    Epoch epoch(std::int64_t usn, const std::string& invocation = "A",
                const std::string& server = SERVER) {
        return store->epoch(server, invocation, usn, store->state(server), begun);
    }
    /// Compares with a container that holds these now.
    std::size_t compare(const TrackedBase& base, std::int64_t usn,
                        const std::vector<std::string>& present) {
        return compare(base, usn, store->mark(), present);
    }
    std::size_t compare(const TrackedBase& base, std::int64_t usn, std::int64_t mark,
                        const std::vector<std::string>& present) {
        GuidRuns runs(folder.path().string(), 4);
        for (auto guid = present.rbegin(); guid != present.rend(); ++guid) {
            runs.add(toBytes(*guid));
        }
        runs.sort();
        return store->compare(base, 0, usn, mark, runs);
    }
    std::vector<std::string> gone(const TrackedBase& base, std::int64_t from) {
        std::vector<std::string> found;
        for (const GoneObject& object : store->gone(base, from, "", 1000)) {
            found.push_back(object.guid);
        }
        return found;
    }
    TrackedBase hosts() { return store->base(SERVER, HOSTS); }

    test::TempFolder folder;
    const std::string path = (folder.path() / "ldap.db").string();
    std::unique_ptr<Store> store;
    bool begun = false;
};

TEST_F(LdapStore, NumbersThatRiseBelongToOneEpoch) {
    for (const std::int64_t usn : {100, 100, 150, 4000}) {
        const Epoch found = epoch(usn);
        EXPECT_EQ(found.number, 0);
        EXPECT_EQ(found.shift, 0);
        EXPECT_FALSE(begun);
    }
    EXPECT_EQ(store->state(SERVER).usn, 4000);
    EXPECT_FALSE(store->state("dc2.example.com").known);
    store->raiseUsn(SERVER, 4100);
    store->raiseUsn(SERVER, 4050);
    EXPECT_EQ(store->state(SERVER).usn, 4100);
}

TEST_F(LdapStore, LowerNumberBeginsAnEpochAboveAllThatWasSeen) {
    epoch(4000);
    const Epoch restored = epoch(3000);
    EXPECT_TRUE(begun);
    EXPECT_EQ(restored.number, 1);
    EXPECT_GT(1 + restored.shift, 4000); // the lowest number of the new epoch
    epoch(3500);
    EXPECT_FALSE(begun);
    const Epoch again = epoch(100);
    EXPECT_TRUE(begun);
    EXPECT_EQ(again.number, 2);
    EXPECT_GT(1 + again.shift, 3500 + restored.shift);
}

TEST_F(LdapStore, OtherIdentityBeginsAnEpochWhateverTheNumber) {
    epoch(4000, "A");
    const Epoch restored = epoch(9000, "B");
    EXPECT_TRUE(begun);
    EXPECT_GT(1 + restored.shift, 4000);
}

TEST_F(LdapStore, IdentityThatIsHiddenIsNoOtherOne) {
    epoch(4000, "");
    epoch(4001, "A"); // by now the account may see it
    EXPECT_FALSE(begun);
    epoch(4002, "");
    EXPECT_FALSE(begun);
    epoch(4003, "B");
    EXPECT_TRUE(begun);
}

// Two connections are made, or questions asked, at once: the answer that is the older one may
// arrive last.
TEST_F(LdapStore, OldNewsIsNoRestore) {
    epoch(100);
    const ServerState before = store->state(SERVER);
    store->raiseUsn(SERVER, 103); // by somebody who asked later
    const Epoch found = store->epoch(SERVER, "A", 101, before, begun);
    EXPECT_FALSE(begun);
    EXPECT_EQ(found.number, 0);
    EXPECT_EQ(store->state(SERVER).usn, 103);
    EXPECT_EQ(store->movesSeen(SERVER, found, 7), 100);
}

TEST_F(LdapStore, RestoreIsNoticedOnce) {
    epoch(100);
    const ServerState before = store->state(SERVER);
    const Epoch first = store->epoch(SERVER, "B", 50, before, begun);
    EXPECT_TRUE(begun);
    store->raiseUsn(SERVER, 60);
    const Epoch second = store->epoch(SERVER, "B", 55, before, begun);
    EXPECT_FALSE(begun);
    EXPECT_EQ(second.number, first.number);
    EXPECT_EQ(second.shift, first.shift);
}

TEST_F(LdapStore, EpochsSurviveARestart) {
    epoch(4000);
    const Epoch restored = epoch(3000);
    open();
    const Epoch found = epoch(3100);
    EXPECT_FALSE(begun);
    EXPECT_EQ(found.number, restored.number);
    EXPECT_EQ(found.shift, restored.shift);
    open(true);
    EXPECT_EQ(epoch(10).number, 0);
    EXPECT_FALSE(begun);
}

TEST_F(LdapStore, ServersAreKeptApart) {
    epoch(4000);
    EXPECT_EQ(epoch(50, "B", "dc2.example.com").number, 0);
    EXPECT_FALSE(begun);
    store->add(hosts(), guids(1, 3));
    EXPECT_EQ(store->base("dc2.example.com", HOSTS).count, 0);
    EXPECT_EQ(hosts().count, 3);
}

TEST_F(LdapStore, SpellingOfANameDoesNotMatter) {
    const TrackedBase base = hosts();
    EXPECT_EQ(store->base(SERVER, "cn=HOSTS, cn=nismaps,CN=zonea,dc=example,dc=com").id, base.id);
    EXPECT_NE(store->base(SERVER, OTHER).id, base.id);
    EXPECT_EQ(base.epoch, -1);
}

TEST_F(LdapStore, ComparisonFindsWhatIsMissing) {
    store->add(hosts(), guids(1, 10));
    const std::int64_t mark = store->mark();
    EXPECT_EQ(compare(hosts(), 500, mark, guids(3, 12)), 2U);
    EXPECT_EQ(gone(hosts(), 500), guids(1, 2));
    EXPECT_EQ(gone(hosts(), 501), std::vector<std::string>());
    EXPECT_EQ(store->areGone(hosts(), 500, guids(1, 3)), (std::vector<bool>{true, true, false}));
    EXPECT_EQ(store->areGone(hosts(), 501, guids(1, 1)), std::vector<bool>{false});
    EXPECT_EQ(hosts().count, 10);
    EXPECT_EQ(hosts().comparedUsn, 500);
    EXPECT_EQ(hosts().epoch, 0);
    EXPECT_EQ(compare(hosts(), 600, guids(3, 12)), 0U);
    EXPECT_EQ(compare(hosts(), 700, {}), 10U);
    EXPECT_EQ(hosts().count, 0);
}

TEST_F(LdapStore, WhatIsAddedDuringAComparisonIsNotMissing) {
    store->add(hosts(), guids(1, 2));
    const std::int64_t mark = store->mark();
    store->add(hosts(), guids(5, 5));
    EXPECT_EQ(compare(hosts(), 500, mark, guids(1, 2)), 0U);
    EXPECT_EQ(hosts().count, 3);
}

TEST_F(LdapStore, WhatComesBackIsNotGoneAnyMore) {
    store->add(hosts(), guids(1, 3));
    compare(hosts(), 500, guids(1, 1));
    EXPECT_EQ(gone(hosts(), 0), guids(2, 3));
    store->add(hosts(), guids(3, 3));
    EXPECT_EQ(gone(hosts(), 0), guids(2, 2));
}

TEST_F(LdapStore, ComparisonFindsWhatCameBack) {
    store->add(hosts(), guids(1, 3));
    compare(hosts(), 500, guids(1, 1));
    EXPECT_EQ(compare(hosts(), 600, guids(1, 2)), 0U);
    EXPECT_EQ(gone(hosts(), 0), guids(3, 3));
    EXPECT_EQ(hosts().count, 2);
}

TEST_F(LdapStore, ManyAreKnownAsFewAre) {
    store->add(hosts(), guids(1, 3));
    compare(hosts(), 400, guids(1, 2));
    store->addMany(hosts(), guids(3, 300));
    store->addMany(hosts(), guids(250, 400)); // some of them once more
    const TrackedBase other = store->base(SERVER, OTHER);
    store->addMany(other, guids(7, 7));
    EXPECT_EQ(hosts().count, 400);
    EXPECT_TRUE(gone(hosts(), 0).empty());
    store->addMany(hosts(), guids(401, 401));
    const std::int64_t mark = store->mark();
    store->addMany(hosts(), guids(402, 402));
    EXPECT_EQ(compare(hosts(), 500, mark, guids(2, 400)), 2U);
    auto both = guids(1, 1);
    both.push_back(guid(401));
    std::sort(both.begin(), both.end());
    EXPECT_EQ(gone(hosts(), 0), both);
    store->addMany(hosts(), guids(500, 500));
    store->setPlaces(SERVER, {{guid(500), OTHER}}, 600);
    EXPECT_EQ(gone(hosts(), 600), guids(500, 500));
    EXPECT_EQ(store->base(SERVER, OTHER).count, 1);
}

TEST_F(LdapStore, ManySurviveARestart) {
    epoch(400);
    store->addMany(hosts(), guids(1, 300));
    open();
    EXPECT_EQ(hosts().count, 300);
    EXPECT_EQ(compare(hosts(), 500, {}), 300U);
}

TEST_F(LdapStore, ComparesManyInBothDirections) {
    store->addMany(hosts(), guids(1, 2000));
    EXPECT_EQ(compare(hosts(), 500, guids(1001, 3000)), 1000U);
    EXPECT_EQ(gone(hosts(), 0), guids(1, 1000));
    EXPECT_EQ(hosts().count, 2000);
    EXPECT_EQ(compare(hosts(), 600, guids(1001, 3000)), 0U);
}

TEST_F(LdapStore, MovedObjectsAreGoneFromWhereTheyWere) {
    const TrackedBase other = store->base(SERVER, OTHER);
    store->add(hosts(), guids(1, 4));
    store->add(other, guids(7, 7));
    store->setPlaces(SERVER,
                     {{guid(1), HOSTS},
                      {guid(2), OTHER},
                      {guid(3), "CN=Deleted Objects,DC=example,DC=com"},
                      {guid(99), OTHER},
                      {guid(7), OTHER}},
                     800);
    EXPECT_EQ(gone(hosts(), 800), guids(2, 3));
    EXPECT_TRUE(gone(other, 0).empty());
    EXPECT_EQ(hosts().count, 2);
    store->setPlaces("dc2.example.com", {{guid(4), OTHER}}, 900);
    EXPECT_EQ(gone(hosts(), 0), guids(2, 3));
}

TEST_F(LdapStore, GoneObjectsComeInPages) {
    store->add(hosts(), guids(1, 25));
    compare(hosts(), 500, {});
    std::vector<std::string> found;
    std::string after;
    for (;;) {
        const auto page = store->gone(hosts(), 0, after, 10);
        for (const GoneObject& object : page) {
            found.push_back(object.guid);
            EXPECT_EQ(object.usn, 500);
        }
        if (page.size() < 10) {
            break;
        }
        after = page.back().guid;
    }
    EXPECT_EQ(found, guids(1, 25));
}

TEST_F(LdapStore, MovesAreLookedThroughOnce) {
    const Epoch first = epoch(100);
    EXPECT_EQ(store->movesSeen(SERVER, first, 7), 100);
    store->setMovesSeen(SERVER, first, 150);
    EXPECT_EQ(store->movesSeen(SERVER, first, 7), 150);
    store->lowerMovesSeen(SERVER, first, 200);
    EXPECT_EQ(store->movesSeen(SERVER, first, 7), 150);
    store->lowerMovesSeen(SERVER, first, 120);
    EXPECT_EQ(store->movesSeen(SERVER, first, 7), 120);
    const Epoch second = epoch(50);
    EXPECT_EQ(store->movesSeen(SERVER, second, 7), 50);
    store->setMovesSeen(SERVER, first, 999); // of a cursor from before the restore
    EXPECT_EQ(store->movesSeen(SERVER, second, 7), 50);
}

TEST_F(LdapStore, SurvivesARestart) {
    store->add(hosts(), guids(1, 5));
    store->setRead(hosts(), 3, 400);
    epoch(400);
    open();
    EXPECT_EQ(hosts().count, 5);
    EXPECT_EQ(hosts().epoch, 3);
    EXPECT_EQ(hosts().comparedUsn, 400);
}

TEST_F(LdapStore, DamagedAndForeignFilesAreReplaced) {
    epoch(100);
    store->add(hosts(), guids(1, 5));
    store.reset();
    for (const std::string& bytes :
         {std::string("not a database at all"), std::string(8192, 'x'), std::string()}) {
        std::filesystem::remove(path + "-wal");
        std::filesystem::remove(path + "-shm");
        test::writeFile(path, bytes);
        open();
        EXPECT_EQ(hosts().count, 0);
        store->add(hosts(), guids(1, 2));
        store.reset();
    }
}

TEST_F(LdapStore, FileIsForItsOwnerOnly) {
    const auto permissions = std::filesystem::status(path).permissions();
    EXPECT_EQ(permissions & std::filesystem::perms(077), std::filesystem::perms::none);
}

TEST_F(LdapStore, FolderThatIsMissing) {
    EXPECT_THROW(Store((folder.path() / "none" / "ldap.db").string(), false),
                 tessa::SystemException);
}

} // namespace
