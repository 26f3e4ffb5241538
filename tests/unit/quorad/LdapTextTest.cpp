#include "ldap/Text.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace quorad::ldap;

TEST(LdapFilterValue, CannotLeaveItsPlace) {
    EXPECT_EQ(escapeFilter("plain-value_1,=x"), "plain-value_1,=x");
    EXPECT_EQ(escapeFilter("*)(uid=*"), "\\2a\\29\\28uid=\\2a");
    EXPECT_EQ(escapeFilter("a\\b"), "a\\5cb");
    EXPECT_EQ(escapeFilter(std::string("\0\n\x7f", 3)), "\\00\\0a\\7f");
    EXPECT_EQ(escapeFilter("\xc3\xbc"), "\\c3\\bc");
    EXPECT_EQ(escapeFilter(""), "");
}

TEST(LdapRange, PartsAndTheLastPart) {
    Range range;
    ASSERT_TRUE(parseRange("member;range=0-1499", range));
    EXPECT_EQ(range.attribute, "member");
    EXPECT_EQ(range.next, 1500U);
    EXPECT_FALSE(range.complete);
    ASSERT_TRUE(parseRange("Member;Range=1500-*", range));
    EXPECT_EQ(range.attribute, "Member");
    EXPECT_TRUE(range.complete);
    EXPECT_EQ(rangeFrom("member", 1500), "member;range=1500-*");
    EXPECT_EQ(rangeOf("member", 1500, 1500), "member;range=1500-2999");
}

TEST(LdapRange, OtherOptionsAndNonsenseAreNone) {
    Range range;
    for (const char* text :
         {"member", "member;binary", ";range=0-1", "member;range=", "a;range=1", "a;range=x-1",
          "a;range=0-", "a;range=-", "a;range=0-1x", "a;range=99999999999-*"}) {
        EXPECT_FALSE(parseRange(text, range)) << text;
    }
    ASSERT_TRUE(parseRange("userCertificate;range=0-9;binary", range));
    EXPECT_EQ(range.next, 10U);
}

TEST(LdapUsnShift, MovesTheNumbersAndNothingElse) {
    EXPECT_EQ(shiftUsn("(&(usnchanged>=105)(uSNChanged<=120))", -100),
              "(&(usnchanged>=5)(uSNChanged<=20))");
    EXPECT_EQ(shiftUsn("(usncreated=7)", 3), "(usncreated=10)");
    EXPECT_EQ(shiftUsn("(&(description>=105)(cn=usnchanged))", -100),
              "(&(description>=105)(cn=usnchanged))");
}

TEST(LdapUsnShift, WhatLiesBeforeTheFirstNumberIsTheFirst) {
    EXPECT_EQ(shiftUsn("(usnchanged>=50)", -100), "(usnchanged>=0)");
    EXPECT_EQ(shiftUsn("(usnchanged<=9223372036854775807)", 5),
              "(usnchanged<=9223372036854775807)");
}

TEST(LdapUsnShift, MalformedFiltersStayAsTheyAre) {
    for (const char* text : {"(usnchanged", "(usnchanged>", "(usnchanged>=", "(usnchanged>=x)",
                             "(usnchanged=*)", "(usnchangedx>=5)", "usnchanged>=5", "(", ""}) {
        EXPECT_EQ(shiftUsn(text, -1), text);
    }
}

} // namespace
