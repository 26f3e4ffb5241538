#include "maps/netgroup/MemberParser.h"

#include "common/Globals.h"

#include <gtest/gtest.h>

namespace {

using nis::NetgroupEntry;
using Members = std::list<NetgroupEntry>;

NetgroupEntry group(const std::string& name) {
    return {NetgroupEntry::GROUP, name, "", "", ""};
}
NetgroupEntry triple(const std::string& host, const std::string& user, const std::string& domain) {
    return {NetgroupEntry::TRIPLE, "", host, user, domain};
}

/// Parses and keeps what was reported.
Members parse(const std::string& value, std::string* log = nullptr) {
    const auto logger = tessa::Logger::get(nis::ORRISD_NETGROUP_SYNTAX_LOG_NAME);
    logger->setThreshold(tessa::LOG_TRACE);
    Members out;
    testing::internal::CaptureStderr();
    nis::ParseNetgroupMembers(value, out, true, "ng");
    const std::string text = testing::internal::GetCapturedStderr();
    if (log != nullptr) {
        *log = text;
    } else {
        EXPECT_EQ(text, "") << value;
    }
    return out;
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST(MemberParser, TriplesAndGroups) {
    EXPECT_EQ(parse("(host1,,dom) grp2"), (Members{triple("host1", "", "dom"), group("grp2")}));
    EXPECT_EQ(parse("a\t(h,u,d)  b"), (Members{group("a"), triple("h", "u", "d"), group("b")}));
    std::string log;
    EXPECT_EQ(parse("a (h,u,d)\n b", &log),
              (Members{group("a"), triple("h", "u", "d"), group("b")}));
    EXPECT_EQ(parse("(,,)"), Members{triple("", "", "")});
    EXPECT_EQ(parse("(h1,-,d)"), Members{triple("h1", "-", "d")});
}

TEST(MemberParser, BlanksAfterCommas) {
    EXPECT_EQ(parse("(h, u, d)"), Members{triple("h", "u", "d")});
    EXPECT_EQ(parse("(h,\t  u,\td)"), Members{triple("h", "u", "d")});
}

TEST(MemberParser, EmptyListsHaveNoEntries) {
    EXPECT_EQ(parse(""), Members{});
    EXPECT_EQ(parse(" \t\r\n "), Members{});
}

TEST(MemberParser, TooFewCommas) {
    std::string log;
    EXPECT_EQ(parse("(h,u) after", &log), Members{group("after")});
    EXPECT_TRUE(contains(log, "Expected more commas in '(h,u)' in netgroup ng")) << log;
}

TEST(MemberParser, TooManyCommas) {
    std::string log;
    EXPECT_EQ(parse("(h,u,d,e)", &log), Members{triple("h", "u", "d,e")});
    EXPECT_TRUE(contains(log, "Too many commas in '(h,u,d,e' in netgroup ng")) << log;
}

TEST(MemberParser, MissingCloseParenthesis) {
    std::string log;
    EXPECT_EQ(parse("(h,u,d", &log), Members{triple("h", "u", "d")});
    EXPECT_TRUE(contains(log, "Missing close parenthesis in '(h,u,d' in netgroup ng")) << log;
    EXPECT_EQ(parse("(h,u,d grp", &log), (Members{triple("h", "u", "d"), group("grp")}));
    EXPECT_TRUE(contains(log, "Missing close parenthesis in")) << log;
}

TEST(MemberParser, SpaceExpectedBehindAMember) {
    std::string log;
    EXPECT_EQ(parse("grp(", &log), Members{group("grp")});
    EXPECT_TRUE(contains(log, "Expected a space following 'grp' in netgroup ng")) << log;
    EXPECT_TRUE(contains(log, "Expected more commas in '(' in netgroup ng")) << log;
    EXPECT_EQ(parse("grp(a,b,c)(d,e,f)", &log),
              (Members{group("grp"), triple("a", "b", "c"), triple("d", "e", "f")}));
    EXPECT_TRUE(contains(log, "Expected a space following '(a,b,c)' in netgroup ng")) << log;
}

TEST(MemberParser, BackslashesAreRemoved) {
    std::string log;
    EXPECT_EQ(parse("a\\b", &log), Members{group("ab")});
    EXPECT_TRUE(contains(log, "group 'a\\b' contains backslash in netgroup ng -- removing")) << log;
    EXPECT_EQ(parse("\\\\ x", &log), Members{group("x")});
    EXPECT_EQ(parse("(h\\,u\\1,\\d)", &log), Members{triple("h", "u1", "d")});
    EXPECT_TRUE(contains(log, "hostname 'h\\' contains backslash")) << log;
    EXPECT_TRUE(contains(log, "user 'u\\1' contains backslash")) << log;
    EXPECT_TRUE(contains(log, "domain '\\d' contains backslash")) << log;
}

TEST(MemberParser, FailedTriplesDoNotTakeOthersAlong) {
    std::string log;
    EXPECT_EQ(parse("( h,u,d) grp (a,b,c)", &log), (Members{group("grp"), triple("a", "b", "c")}));
    EXPECT_TRUE(contains(log, "Failed to parse '( h,u,d)' in netgroup ng")) << log;
    EXPECT_EQ(parse("(h grp (a,b,c)", &log), (Members{group("grp"), triple("a", "b", "c")}));
    EXPECT_TRUE(contains(log, "Expected more commas in '(h' in netgroup ng")) << log;
    EXPECT_EQ(parse("(h(a,b,c)", &log), Members{triple("a", "b", "c")});
    EXPECT_EQ(parse("(h,u,", &log), Members{});
    EXPECT_TRUE(contains(log, "Failed to parse '(h,u,' in netgroup ng")) << log;
}

TEST(MemberParser, StrayParenthesis) {
    std::string log;
    EXPECT_EQ(parse(") a )b", &log), (Members{group("a"), group("b")}));
    EXPECT_TRUE(contains(log, "Failed to parse group in netgroup ng")) << log;
}

TEST(MemberParser, SilentWhenNotAskedToReport) {
    Members out;
    testing::internal::CaptureStderr();
    nis::ParseNetgroupMembers("(h,u) a\\b grp( ) (h,u,d,e", out, false, "ng");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(out.size(), 3U);
}

TEST(MemberParser, IdentifierStopsAtDelimiterOrEnd) {
    nis::ParsePosition p{"ab,c"};
    std::string out;
    EXPECT_TRUE(nis::ParseIdentifier(p, nis::IDENTIFIER_DELIMITERS, out));
    EXPECT_EQ(out, "ab");
    EXPECT_EQ(p.at, 2U);
    EXPECT_TRUE(nis::ParseIdentifier(p, nis::IDENTIFIER_DELIMITERS, out));
    EXPECT_EQ(out, "");
    p.at = 3;
    EXPECT_TRUE(nis::ParseIdentifier(p, nis::IDENTIFIER_DELIMITERS, out));
    EXPECT_EQ(out, "c");
    EXPECT_FALSE(nis::ParseIdentifier(p, nis::IDENTIFIER_DELIMITERS, out));
}

} // namespace
