#include "LdifFixture.h"

#include <karst/Int64.h>

#include <gmock/gmock.h>

#include <random>

namespace {

using test::BASE;
using test::MAP;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::UnorderedElementsAre;

class LdifChanges : public test::LdifFixture {};

TEST_F(LdifChanges, sequenceNumbersRiseInTheOrderOfTheFile) {
    entry("a", "k", "v");
    entry("b", "k", "v");
    load();
    EXPECT_LT(usnOf(BASE), usnOf(MAP));
    EXPECT_LT(usnOf(entryName("a")), usnOf(entryName("b")));
    EXPECT_EQ(usnOf(entryName("b")), highUsn());
}

TEST_F(LdifChanges, onlyWhatChangedGetsANewNumber) {
    entry("a", "ka", "va");
    entry("b", "kb", "vb");
    load();
    const auto high = highUsn();
    const auto guid = guidOf(entryName("b"));
    const auto before = usnOf(entryName("a"));
    entry("b", "kb", "changed");
    load();
    EXPECT_EQ(usnOf(entryName("a")), before);
    EXPECT_EQ(usnOf(entryName("b")), high + 1);
    EXPECT_EQ(highUsn(), high + 1);
    EXPECT_EQ(guidOf(entryName("b")), guid);
    EXPECT_THAT(names(range(high, high + 1)), ElementsAre("b"));
    EXPECT_TRUE(range(high + 1, high + 1).empty());
}

TEST_F(LdifChanges, aTouchedFileIsNoChange) {
    entry("a", "k", "v");
    load();
    const auto high = highUsn();
    load();
    load();
    EXPECT_EQ(highUsn(), high);
}

TEST_F(LdifChanges, deletionsComeAsMarkedObjects) {
    entry("a", "ka", "va");
    entry("b", "kb", "vb");
    load();
    const auto high = highUsn();
    const auto guid = guidOf(entryName("a"));
    drop(entryName("a"));
    load();
    EXPECT_EQ(highUsn(), high + 1);
    EXPECT_FALSE(exists(entryName("a")));
    const auto objects = range(high, high + 1);
    ASSERT_EQ(objects.size(), 1U);
    EXPECT_EQ(objects[0]["cn"].asString(), "\x01"
                                           "a");
    EXPECT_EQ(objects[0].guid(), guid);
    EXPECT_EQ(objects[0]["_server"].asString(), "dc1.example.com");
    EXPECT_FALSE(objects[0].attributeExists("description", false));
    EXPECT_FALSE(objects[0].attributeExists("adminDescription", false));
    EXPECT_TRUE(range(high + 1, high + 100).empty());
    EXPECT_THAT(names(search("(usnchanged<=" + std::to_string(high + 1) + ")")), ElementsAre("b"))
        << "a search without lower bound has no deletions";
    EXPECT_THAT(names(search("(&(usnchanged>=" + std::to_string(high + 1) + ")(cn=a))")),
                ElementsAre("\x01"
                            "a"));
    EXPECT_TRUE(range(high, high + 1, "CN=zoneA,CN=Zones," + BASE).empty());
}

TEST_F(LdifChanges, manyDeletionsComePageByPageBeforeTheRest) {
    for (int i = 0; i < 25; ++i) {
        entry("e" + std::to_string(i), "k" + std::to_string(i), "v");
    }
    load();
    const auto high = highUsn();
    for (int i = 0; i < 20; ++i) {
        drop(entryName("e" + std::to_string(i)));
    }
    entry("new", "k", "v");
    load();
    for (const std::size_t page :
         {std::size_t{1}, std::size_t{7}, std::size_t{20}, std::size_t{100}}) {
        const auto objects = search("(usnchanged>=" + std::to_string(high + 1) + ")", MAP,
                                    tessa::SCOPE_ONE_LEVEL, page);
        ASSERT_EQ(objects.size(), 21U);
        EXPECT_EQ(objects.back()["cn"].asString(), "new");
        std::set<std::string> guids;
        for (const auto& object : objects) {
            guids.insert(object.guid());
        }
        EXPECT_EQ(guids.size(), 21U);
    }
}

TEST_F(LdifChanges, anObjectThatComesBackIsANewOne) {
    entry("a", "k", "v");
    load();
    const auto high = highUsn();
    const auto guid = guidOf(entryName("a"));
    drop(entryName("a"));
    load();
    entry("a", "k", "v");
    load();
    EXPECT_NE(guidOf(entryName("a")), guid);
    EXPECT_THAT(names(range(high, highUsn())), ElementsAre("\x01"
                                                           "a",
                                                           "a"));
}

TEST_F(LdifChanges, renameWithoutStatedGuidIsDeletionAndCreation) {
    entry("a", "k", "v");
    load();
    const auto high = highUsn();
    const auto guid = guidOf(entryName("a"));
    drop(entryName("a"));
    entry("b", "k", "v");
    load();
    EXPECT_NE(guidOf(entryName("b")), guid);
    EXPECT_THAT(names(range(high, highUsn())), ElementsAre("\x01"
                                                           "a",
                                                           "b"));
}

TEST_F(LdifChanges, renameWithStatedGuidKeepsTheObject) {
    entry("a", "k", "v", guidLine('B'));
    load();
    const auto high = highUsn();
    const auto guid = guidOf(entryName("a"));
    drop(entryName("a"));
    entry("b", "k", "v", guidLine('B'));
    load();
    EXPECT_EQ(guidOf(entryName("b")), guid);
    EXPECT_FALSE(exists(entryName("a")));
    const auto objects = range(high, highUsn());
    ASSERT_THAT(names(objects), ElementsAre("b")) << "no deletion";
    EXPECT_EQ(objects[0].guid(), guid);
}

TEST_F(LdifChanges, aMoveIsADeletionThereAndAnObjectHere) {
    const std::string other = "CN=other,CN=nismaps,CN=zoneA,CN=Zones," + BASE;
    addContainer(other);
    entry("a", "k", "v", guidLine('B'));
    load();
    const auto high = highUsn();
    const auto guid = guidOf(entryName("a"));
    const std::string attributes = records.back().second;
    drop(entryName("a"));
    put("CN=a," + other, attributes);
    load();
    const auto left = range(high, highUsn());
    ASSERT_THAT(names(left), ElementsAre("\x01"
                                         "a"));
    EXPECT_EQ(left[0].guid(), guid);
    const auto arrived = range(high, highUsn(), other);
    ASSERT_THAT(names(arrived), ElementsAre("a"));
    EXPECT_EQ(arrived[0].guid(), guid);
    // And back again: the deletion must not hide it.
    drop("CN=a," + other);
    put(entryName("a"), attributes);
    load();
    EXPECT_THAT(names(range(high, highUsn())), ElementsAre("a"));
    EXPECT_THAT(names(range(high, highUsn(), other)), ElementsAre("\x01"
                                                                  "a"));
}

TEST_F(LdifChanges, objectsThatSwapNamesKeepTheirGuids) {
    entry("a", "ka", "va", guidLine('B'));
    entry("b", "kb", "vb", guidLine('C'));
    load();
    const auto high = highUsn();
    const auto guidA = guidOf(entryName("a"));
    const auto guidB = guidOf(entryName("b"));
    entry("a", "ka", "va", guidLine('C'));
    entry("b", "kb", "vb", guidLine('B'));
    load();
    EXPECT_EQ(guidOf(entryName("a")), guidB);
    EXPECT_EQ(guidOf(entryName("b")), guidA);
    EXPECT_THAT(names(range(high, highUsn())), UnorderedElementsAre("a", "b"));
}

TEST_F(LdifChanges, aStatedGuidReplacesTheObjectOfThatName) {
    entry("a", "k", "v");
    load();
    const auto high = highUsn();
    const auto guid = guidOf(entryName("a"));
    entry("a", "k", "v", guidLine('B'));
    load();
    EXPECT_NE(guidOf(entryName("a")), guid);
    const auto objects = range(high, highUsn());
    ASSERT_THAT(names(objects), ElementsAre("\x01"
                                            "a",
                                            "a"));
    EXPECT_EQ(objects[0].guid(), guid);
    // Without it again the identity stays.
    const auto stated = guidOf(entryName("a"));
    entry("a", "k", "v2");
    load();
    EXPECT_EQ(guidOf(entryName("a")), stated);
}

TEST_F(LdifChanges, aStatedGuidGoesBeforeOneKeptByName) {
    entry("a", "ka", "va", guidLine('B'));
    load();
    const auto high = highUsn();
    const auto guid = guidOf(entryName("a"));
    entry("a", "ka", "va");
    entry("b", "kb", "vb", guidLine('B'));
    load();
    EXPECT_EQ(guidOf(entryName("b")), guid);
    EXPECT_NE(guidOf(entryName("a")), guid);
    EXPECT_THAT(names(range(high, highUsn())), UnorderedElementsAre("a", "b"));
}

TEST_F(LdifChanges, oneGuidTwiceIsRefused) {
    entry("a", "k", "v", guidLine('B'));
    entry("b", "k", "v", guidLine('B'));
    EXPECT_THAT(logOf([&] { load(); }), HasSubstr("belongs to an object further up"));
    EXPECT_THROW(fetch(BASE), tessa::IPCException);
}

TEST_F(LdifChanges, aContainerGoesWithAllBelowIt) {
    entry("a", "k", "v");
    load();
    const auto high = highUsn();
    const auto kept = records;
    drop(entryName("a"));
    drop(MAP);
    load();
    EXPECT_FALSE(exists(MAP));
    EXPECT_THROW(search("(cn=*)"), tessa::NotFoundException);
    // It comes back empty: who knew its entries must hear that they are gone.
    put(MAP, "objectClass: container\n");
    load();
    EXPECT_THAT(names(range(high, highUsn())), ElementsAre("\x01"
                                                           "a"));
    records = kept;
    load();
    EXPECT_THAT(names(range(high, highUsn())), ElementsAre("\x01"
                                                           "a",
                                                           "a"));
}

TEST_F(LdifChanges, statedSequenceNumbersCountWhenTheyAreHigher) {
    entry("a", "k", "v", "uSNChanged: 5\n");
    load();
    const auto high = highUsn();
    EXPECT_EQ(usnOf(entryName("a")), high) << "below what was given out";
    const std::int64_t stated = high + 1000;
    entry("a", "k", "v", "uSNChanged: " + std::to_string(stated) + "\n");
    load();
    EXPECT_EQ(usnOf(entryName("a")), stated);
    EXPECT_EQ(highUsn(), stated);
    entry("b", "k", "v", "uSNChanged: 9223372036854775807\n");
    load();
    EXPECT_EQ(usnOf(entryName("b")), stated + 1) << "not believed";
    entry("a", "k", "changed", "uSNChanged: " + std::to_string(stated) + "\n");
    load();
    EXPECT_EQ(usnOf(entryName("a")), stated + 2);
}

TEST_F(LdifChanges, anotherServerNameChangesNoObject) {
    entry("a", "k", "v");
    load();
    const auto high = highUsn();
    const auto guid = guidOf(entryName("a"));
    server = "dc2.example.com";
    load();
    EXPECT_EQ(highUsn(), high);
    EXPECT_EQ(guidOf(entryName("a")), guid);
    EXPECT_EQ(fetch(entryName("a"))["_server"].asString(), "dc2.example.com");
    EXPECT_EQ(search("(cn=a)").at(0)["_server"].asString(), "dc2.example.com");
    EXPECT_EQ(directory->fetch("", "", {}, false)["_server"].asString(), "dc2.example.com");
}

TEST_F(LdifChanges, aRestartKeepsEverythingAndDoesNotReadAgain) {
    entry("a", "k", "v");
    load();
    const auto high = highUsn();
    const auto guid = guidOf(entryName("a"));
    drop(entryName("a"));
    entry("b", "k", "v");
    load();
    const auto later = highUsn();
    const auto guidB = guidOf(entryName("b"));
    open();
    EXPECT_TRUE(exists(entryName("b"))) << "before the first look at the file";
    EXPECT_EQ(logOf([&] { directory->maintain(); }), "");
    EXPECT_EQ(highUsn(), later);
    EXPECT_EQ(guidOf(entryName("b")), guidB);
    const auto objects = range(high, later);
    ASSERT_THAT(names(objects), ElementsAre("\x01"
                                            "a",
                                            "b"));
    EXPECT_EQ(objects[0].guid(), guid);
}

TEST_F(LdifChanges, aChangeDuringARestartIsTakenOver) {
    entry("a", "k", "v");
    load();
    const auto high = highUsn();
    directory.reset();
    entry("a", "k", "changed");
    save();
    open();
    EXPECT_EQ(fetch(entryName("a"))["adminDescription"].asString(), "v") << "the last good state";
    directory->maintain();
    EXPECT_EQ(fetch(entryName("a"))["adminDescription"].asString(), "changed");
    EXPECT_EQ(highUsn(), high + 1);
}

TEST_F(LdifChanges, theStateOfAnotherFileIsNotServed) {
    entry("a", "k", "v");
    load();
    directory.reset();
    const std::string other = state() + "/other.ldif";
    test::writeFile(other, "dn: DC=elsewhere\nnonsense\n");
    directory = quorad::makeLdifDirectory(other, state(), false);
    EXPECT_THROW(fetch(entryName("a")), tessa::IPCException);
    directory->maintain();
    EXPECT_THROW(fetch(entryName("a")), tessa::IPCException);
}

TEST_F(LdifChanges, discardBeginsAnewAboveAllNumbers) {
    entry("a", "k", "v");
    load();
    const auto high = highUsn();
    const auto guid = guidOf(entryName("a"));
    open(true);
    directory->maintain();
    EXPECT_NE(guidOf(entryName("a")), guid);
    EXPECT_GT(usnOf(BASE), high);
}

class LdifDamage : public LdifChanges, public testing::WithParamInterface<int> {};

// A lost index is a directory restored from nothing: all objects count as new, above all numbers
// that were ever given out.
TEST_P(LdifDamage, aDamagedIndexIsMadeAnew) {
    for (int i = 0; i < 2000; ++i) {
        entry("e" + std::to_string(i), "k" + std::to_string(i), "v");
    }
    load();
    const auto high = highUsn();
    directory.reset();
    std::string bytes = test::readFile(index());
    ASSERT_GT(bytes.size(), 100'000U);
    switch (GetParam()) {
    case 0:
        bytes = "this is no database";
        break;
    case 1:
        bytes.resize(bytes.size() / 2);
        break;
    case 2:
        for (std::size_t i = 5000; i < bytes.size(); i += 97) {
            bytes[i] = static_cast<char>(~bytes[i]);
        }
        break;
    case 3:
        bytes.clear();
        break;
    default:
        bytes[60] = static_cast<char>(~bytes[60]); // the format's number
    }
    test::writeFile(index(), bytes);
    const std::string log = logOf([&] {
        open();
        directory->maintain();
    });
    if (GetParam() != 3) {
        EXPECT_THAT(log, HasSubstr("made anew"));
    }
    EXPECT_GT(usnOf(BASE), high);
    EXPECT_EQ(range(high, highUsn()).size(), 2000U);
}
INSTANTIATE_TEST_SUITE_P(Kinds, LdifDamage, testing::Range(0, 5));

// Damage of contents is found when they are read, and never delivered.
TEST_F(LdifChanges, damagedContentsAreNoticedAndMadeAnew) {
    for (int i = 0; i < 500; ++i) {
        entry("e" + std::to_string(i), "k" + std::to_string(i), "MARKER");
    }
    load();
    directory.reset();
    std::string bytes = test::readFile(index());
    std::size_t at = bytes.find("MARKER");
    ASSERT_NE(at, std::string::npos);
    for (; at != std::string::npos; at = bytes.find("MARKER", at + 1)) {
        bytes[at] = 'X';
    }
    test::writeFile(index(), bytes);
    open();
    EXPECT_THROW(search("(usnchanged>=1)"), tessa::IPCException);
    directory->maintain();
    EXPECT_EQ(search("(adminDescription=marker)").size(), 500U);
}

TEST_F(LdifChanges, indexThatCannotBeMade) {
    save();
    EXPECT_THROW(quorad::makeLdifDirectory(file(), state() + "/none", false),
                 tessa::TESSAException);
    std::filesystem::create_directory(index());
    EXPECT_THROW(open(), tessa::TESSAException);
}

// Random edits over many loads: who follows by numbers always holds exactly what the file says.
TEST_F(LdifChanges, followersNeverMissAChange) {
    std::mt19937 random(20260101);
    const auto dice = [&](unsigned sides) { return static_cast<int>(random() % sides); };
    std::map<std::string, std::string> expected;
    Follower often;
    Follower seldom;
    for (int round = 0; round < 60; ++round) {
        for (int edit = 0; edit < 6; ++edit) {
            const std::string name = "e" + std::to_string(dice(12));
            if (dice(3) == 0) {
                drop(entryName(name));
                expected.erase(name);
                continue;
            }
            const std::string value = "v" + std::to_string(dice(4));
            // Some objects have an identity of their own and wander between names.
            const bool stated = dice(2) == 0;
            const char letter = static_cast<char>('B' + dice(4));
            const std::string line = stated ? guidLine(letter) : std::string();
            for (auto& record : records) {
                const std::size_t found = stated ? record.second.find(line) : std::string::npos;
                if (found != std::string::npos) {
                    record.second.erase(found, line.size());
                }
            }
            put(entryName(name), "objectClass: container\ndescription: " + name +
                                     "\nadminDescription: " + value + "\n" + line);
            expected[name] = value;
        }
        load();
        follow(often);
        EXPECT_EQ(often.values, expected) << "round " << round;
        if (dice(5) == 0) {
            follow(seldom);
            EXPECT_EQ(seldom.values, expected) << "round " << round;
        }
        if (dice(10) == 0) {
            open();
        }
    }
}

} // namespace
