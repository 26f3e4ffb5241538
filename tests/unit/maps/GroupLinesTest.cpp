#include "maps/GroupMap.h"
#include "unit/maps/MapsFixture.h"

#include <karst/Text.h>

#include <random>

namespace {

using nis::GroupMap;
using Lines = std::vector<std::pair<std::string, std::string>>;

Lines render(const tessa::GroupRecord& group, GroupMap::PieceNames names = {"_", 1024}) {
    Lines lines;
    GroupMap::render(group, names, [&lines](const std::string& name, const std::string& line) {
        lines.emplace_back(name, line);
    });
    return lines;
}

/// A group whose members' names have the lengths given.
tessa::GroupRecord groupOf(const std::string& name, const std::vector<std::size_t>& lengths) {
    tessa::GroupRecord group{name, 1000, {}};
    for (const std::size_t length : lengths) {
        std::string member = "m" + std::to_string(group.members.size());
        member.resize(length, 'x');
        group.members.push_back(member);
    }
    return group;
}

std::vector<std::string> membersOf(const std::string& line) {
    const auto fields = tessa::StringSplit(line, ":", true);
    EXPECT_EQ(fields.size(), 4U) << line;
    return tessa::StringSplit(fields.back(), ",");
}

TEST(GroupLines, OneLine) {
    EXPECT_EQ(render({"staff", 50, {"ines", "tomas"}}),
              (Lines{{"staff", "staff:x:50:ines,tomas"}}));
    EXPECT_EQ(render({"empty", 4294967295U, {}}), (Lines{{"empty", "empty:x:4294967295:"}}));
}

TEST(GroupLines, LineOfExactly1024BytesIsNotSplit) {
    // "staff:x:1000:" has 13 bytes; with the comma 1011 are left for two members.
    const auto exact = render(groupOf("staff", {500, 510}));
    ASSERT_EQ(exact.size(), 1U);
    EXPECT_EQ(exact[0].second.size(), 1024U);
    const auto more = render(groupOf("staff", {500, 511}));
    ASSERT_EQ(more.size(), 2U);
    EXPECT_EQ(more[0].first, "staff_1");
    EXPECT_EQ(more[1].first, "staff");
    const auto another = render(groupOf("staff", {500, 510, 2}));
    ASSERT_EQ(another.size(), 2U);
    EXPECT_EQ(another[0].second, "staff_1:x:1000:m2");
    EXPECT_EQ(another[1].second.size(), 1024U);
}

TEST(GroupLines, OwnNameComesLastWithTheFirstMembers) {
    const auto group = groupOf("staff", {600, 600, 600});
    const auto lines = render(group);
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[0], (Lines::value_type{"staff_1", "staff_1:x:1000:" + group.members[1]}));
    EXPECT_EQ(lines[1], (Lines::value_type{"staff_2", "staff_2:x:1000:" + group.members[2]}));
    EXPECT_EQ(lines[2], (Lines::value_type{"staff", "staff:x:1000:" + group.members[0]}));
}

TEST(GroupLines, MemberTooLongForAnyLineGetsOneOfItsOwn) {
    const auto group = groupOf("staff", {5, 2000, 5});
    const auto lines = render(group);
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(membersOf(lines[0].second), std::vector<std::string>{group.members[1]});
    EXPECT_GT(lines[0].second.size(), GroupMap::LINE_LIMIT);
    EXPECT_EQ(membersOf(lines[1].second), std::vector<std::string>{group.members[2]});
    EXPECT_EQ(membersOf(lines[2].second), std::vector<std::string>{group.members[0]});
}

TEST(GroupLines, FirstMemberTooLong) {
    const auto lines = render(groupOf("staff", {2000}));
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].first, "staff_1");
    EXPECT_EQ(lines[1], (Lines::value_type{"staff", "staff:x:1000:"}));
}

TEST(GroupLines, PieceNamesAreCutToTheirLength) {
    const auto lines = render(groupOf("engineering", std::vector<std::size_t>(11, 1000)), {"_", 8});
    ASSERT_EQ(lines.size(), 11U);
    for (int piece = 1; piece <= 9; ++piece) {
        EXPECT_EQ(lines[static_cast<std::size_t>(piece - 1)].first,
                  "engine_" + std::to_string(piece));
    }
    EXPECT_EQ(lines[9].first, "engin_10");
    EXPECT_EQ(lines[10].first, "engineering");
}

TEST(GroupLines, NoRoomForTheNameAtAll) {
    const auto lines = render(groupOf("staff", {1000, 1000}), {"-part-", 3});
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].first, "-part-1");
}

TEST(GroupLines, PiecesMakeUpTheGroup) {
    std::mt19937 random(4711);
    for (int round = 0; round < 200; ++round) {
        std::vector<std::size_t> lengths(random() % 300);
        for (auto& length : lengths) {
            length = random() % 50 == 0 ? 1000 + random() % 200 : 5 + random() % 60;
        }
        const auto group = groupOf("g" + std::to_string(round), lengths);
        auto lines = render(group);
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(lines.back().first, group.name);
        // The own line has the first members, the pieces the others in their order.
        std::rotate(lines.begin(), lines.end() - 1, lines.end());
        std::vector<std::string> joined;
        std::set<std::string> names;
        for (const auto& [name, line] : lines) {
            EXPECT_EQ(line.substr(0, name.size() + 1), name + ":");
            EXPECT_TRUE(names.insert(name).second) << name;
            const auto members = membersOf(line);
            EXPECT_TRUE(line.size() <= GroupMap::LINE_LIMIT || members.size() == 1) << line;
            joined.insert(joined.end(), members.begin(), members.end());
        }
        EXPECT_EQ(joined, group.members);
    }
}

class GroupSettingsTest : public test::MapsFixture {};

TEST_F(GroupSettingsTest, NamesOfPieces) {
    const auto plain = GroupMap::PieceNames::fromConfiguration();
    EXPECT_EQ(plain.suffix, "_");
    EXPECT_EQ(plain.nameLength, 1024U);
    configure({{"nisd.largegroup.suffix", "-part"}, {"nisd.largegroup.name.length", "8"}});
    const auto set = GroupMap::PieceNames::fromConfiguration();
    EXPECT_EQ(set.suffix, "-part");
    EXPECT_EQ(set.nameLength, 8U);
    configure({{"nisd.largegroup.suffix", "a:b"}, {"nisd.largegroup.name.length", "eight"}});
    const std::string log = logOf([] {
        const auto wrong = GroupMap::PieceNames::fromConfiguration();
        EXPECT_EQ(wrong.suffix, "_");
        EXPECT_EQ(wrong.nameLength, 1024U);
    });
    EXPECT_NE(log.find("nisd.largegroup.suffix"), std::string::npos);
    EXPECT_NE(log.find("nisd.largegroup.name.length"), std::string::npos);
}

TEST_F(GroupSettingsTest, BreakIsLogged) {
    const std::string log = logOf([] { render(groupOf("staff", {1000, 1000})); });
    EXPECT_NE(log.find("Group 'staff': membership list exceeds 1024 character, breaking into "
                       "staff_1"),
              std::string::npos);
}

} // namespace
