#include "admin/Plan.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

namespace {

using namespace quorad::admin;
using testing::HasSubstr;
using testing::SizeIs;

Entry entry(const std::string& key, const std::string& value, const std::string& name = "") {
    const std::string cn = name.empty() ? key : name;
    return {"CN=" + cn + ",CN=m", cn, key, value, false};
}

TEST(Plan, OnlyDifferencesAreDone) {
    const Plan plan = makePlan({{"a", "1", 1}, {"b", "new", 2}, {"d", "4", 3}},
                               {entry("a", "1"), entry("b", "old"), entry("c", "3")}, false);
    EXPECT_EQ(plan.unchanged, 1U);
    ASSERT_THAT(plan.additions, SizeIs(1));
    EXPECT_EQ(plan.additions[0].record.key, "d");
    EXPECT_EQ(plan.additions[0].name, "d");
    ASSERT_THAT(plan.changes, SizeIs(1));
    EXPECT_EQ(plan.changes[0].entry.value, "old");
    EXPECT_EQ(plan.changes[0].record.value, "new");
    ASSERT_THAT(plan.removals, SizeIs(1));
    EXPECT_EQ(plan.removals[0].key, "c");
    EXPECT_EQ(describe(plan), "+ d: 4\n~ b: old -> new\n- c: 3\n");
}

TEST(Plan, TheSameAgainDoesNothing) {
    const Plan plan = makePlan({{"a", "1", 1}}, {entry("a", "1")}, false);
    EXPECT_EQ(plan.size(), 0U);
    EXPECT_EQ(makePlan({}, {}, false).size(), 0U);
}

TEST(Plan, LetterCaseIsADifference) {
    const Plan plan = makePlan({{"A", "1", 1}, {"a", "x", 2}}, {entry("a", "X")}, false);
    ASSERT_THAT(plan.changes, SizeIs(1));
    EXPECT_EQ(plan.changes[0].record.value, "x");
    ASSERT_THAT(plan.additions, SizeIs(1));
    EXPECT_EQ(plan.additions[0].record.key, "A");
    EXPECT_NE(plan.additions[0].name, "A"); // "a" is the name of an entry
}

TEST(Plan, ByValueAnyKeyWillDo) {
    const std::vector<Entry> existing{entry("a-alias", "10.0.0.1 alpha a-alias")};
    EXPECT_EQ(makePlan({{"alpha", "10.0.0.1 alpha a-alias", 1}}, existing, true).size(), 0U);
    EXPECT_EQ(makePlan({{"alpha", "10.0.0.1 alpha a-alias", 1}}, existing, false).size(), 2U);
}

TEST(Plan, OneKeyWithSeveralRecords) {
    const std::vector<Entry> existing{entry("gw", "10.0.0.1 gw"),
                                      entry("gw", "10.1.0.1 gw", "gw2")};
    const Plan plan =
        makePlan({{"gw", "10.0.0.1 gw", 1}, {"gw", "10.2.0.1 gw", 2}}, existing, true);
    EXPECT_EQ(plan.unchanged, 1U);
    ASSERT_THAT(plan.changes, SizeIs(1));
    EXPECT_EQ(plan.changes[0].entry.name, "gw2");
    EXPECT_EQ(plan.size(), 1U);
}

TEST(Plan, TheOrderMakesNoDifference) {
    std::vector<Record> wanted{{"a", "1", 1}, {"A", "2", 2}, {"b", "3", 3}, {"c", "new", 4}};
    std::vector<Entry> existing{entry("c", "1"), entry("c", "2", "c2"), entry("d", "x")};
    const std::string expected = describe(makePlan(wanted, existing, false));
    std::sort(existing.begin(), existing.end(),
              [](const Entry& a, const Entry& b) { return a.name < b.name; });
    do {
        std::reverse(wanted.begin(), wanted.end());
        EXPECT_EQ(describe(makePlan(wanted, existing, false)), expected);
    } while (std::next_permutation(existing.begin(), existing.end(),
                                   [](const auto& a, const auto& b) { return a.name < b.name; }));
}

TEST(Plan, AnEntryWithSeveralKeysIsMadeClear) {
    Entry ambiguous = entry("a", "1");
    ambiguous.ambiguous = true;
    const Plan plan = makePlan({{"a", "1", 1}}, {ambiguous}, false);
    ASSERT_THAT(plan.changes, SizeIs(1));
    EXPECT_EQ(plan.size(), 1U);
}

TEST(Plan, WhatTheDirectoryCannotHoldIsNamed) {
    std::vector<Record> records{{"good", std::string(1024, 'v'), 1},
                                {"long", std::string(1025, 'v'), 2},
                                {"umlauts", "", 3},
                                {"latin", "J\xFCrgen", 4},
                                {std::string(1025, 'k'), "v", 5},
                                {"nul", std::string("a\0b", 3), 6},
                                {"", "v", 7}};
    for (int i = 0; i < 1024; ++i) {
        records[2].value += "\xC3\xBC"; // 1,024 characters in 2,048 bytes
    }
    const auto problems = refuseUnstorable(records);
    ASSERT_THAT(records, SizeIs(2));
    EXPECT_EQ(records[0].key, "good");
    EXPECT_EQ(records[1].key, "umlauts");
    ASSERT_THAT(problems, SizeIs(5));
    EXPECT_EQ(problems[0].line, 2U);
    EXPECT_THAT(problems[0].text, HasSubstr("'long': the value has 1025 characters; the directory "
                                            "keeps 1024 at most"));
    EXPECT_THAT(problems[1].text, HasSubstr("not UTF-8"));
    EXPECT_THAT(problems[2].text, HasSubstr("the key has 1025 characters"));
    EXPECT_THAT(problems[3].text, HasSubstr("NUL"));
    EXPECT_THAT(problems[4].text, HasSubstr("no key"));
}

} // namespace
