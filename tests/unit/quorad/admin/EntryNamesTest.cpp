#include "admin/EntryNames.h"

#include <karst/Text.h>

#include <gtest/gtest.h>

#include <set>

namespace {

using quorad::admin::EntryNames;

TEST(EntryNames, PlainKeysAreTheirOwnNames) {
    EntryNames names;
    EXPECT_EQ(names.choose("alpha.example-1_x"), "alpha.example-1_x");
    EXPECT_EQ(names.choose("10.0.0.1"), "10.0.0.1");
}

TEST(EntryNames, OthersGetADigestAndStayShort) {
    for (const std::string& key :
         {std::string("22/tcp"), std::string(65, 'a'), std::string(1024, 'b'),
          std::string("J\xC3\xBCrgen"), std::string(" lead"), std::string(), std::string("a\nb"),
          std::string("CN=x,DC=y")}) {
        EntryNames names;
        const std::string name = names.choose(key);
        EXPECT_LE(name.size(), 64U);
        EXPECT_EQ(name, EntryNames::withDigest(key));
        EXPECT_TRUE(EntryNames::isPlain(name)) << name;
    }
    // These names are in directories: they must never change.
    EXPECT_EQ(EntryNames::withDigest("22/tcp"), "22_tcp-5ec56663e1afb515");
}

TEST(EntryNames, KeysThatDifferInCaseOnlyAllGetADigest) {
    EntryNames first;
    first.announce({"Alpha", "ALPHA", "beta"});
    EntryNames second;
    second.announce({"beta", "ALPHA", "Alpha"});
    const std::string upper = first.choose("ALPHA");
    const std::string mixed = first.choose("Alpha");
    EXPECT_NE(tessa::lower(upper), tessa::lower(mixed));
    EXPECT_EQ(first.choose("beta"), "beta");
    EXPECT_EQ(second.choose("Alpha"), mixed);
    EXPECT_EQ(second.choose("ALPHA"), upper);
}

TEST(EntryNames, TakenNamesAreNotGivenAgain) {
    EntryNames names;
    names.reserve("ALPHA");
    EXPECT_EQ(names.choose("alpha"), EntryNames::withDigest("alpha"));
    EXPECT_EQ(names.choose("alpha"), EntryNames::withDigest("alpha") + "-2");
    EXPECT_EQ(names.choose("alpha"), EntryNames::withDigest("alpha") + "-3");
}

TEST(EntryNames, ManyLongKeysAreApart) {
    EntryNames names;
    std::set<std::string> seen;
    for (int i = 0; i < 5000; ++i) {
        EXPECT_TRUE(
            seen.insert(tessa::lower(names.choose(std::string(100, 'k') + std::to_string(i))))
                .second);
    }
}

} // namespace
