#include "maps/RecordRules.h"

#include "common/NisException.h"

#include <gtest/gtest.h>

namespace {

using nis::rules::Keys;
namespace rules = nis::rules;

template <typename Rule> std::string refused(const Rule& rule) {
    try {
        rule();
    } catch (const nis::BadRecord& e) {
        return e.what();
    }
    return "";
}

TEST(RecordRules, FieldsGiveNumberNameAndAliases) {
    const std::string value = "loopback\t127  localnet # the machine itself";
    EXPECT_EQ(rules::fields("loopback", value, 0), Keys{"127"});
    EXPECT_EQ(rules::fields("loopback", value, 1), (Keys{"loopback", "localnet"}));
    EXPECT_EQ(rules::fields("loopback", value, 2), Keys{"loopback"});
}

TEST(RecordRules, FewFieldsGiveFewKeys) {
    EXPECT_EQ(rules::fields("k", "single", 0), Keys{});
    EXPECT_EQ(rules::fields("k", "single", 1), Keys{"single"});
    EXPECT_EQ(rules::fields("k", " \t\r\n", 0), Keys{});
    EXPECT_EQ(rules::fields("k", "", 1), Keys{});
}

TEST(RecordRules, HostsByNameAndByAddress) {
    const std::string value = "10.0.0.1 alpha beta # comment";
    EXPECT_EQ(rules::hosts(value, 0), (Keys{"alpha", "beta"}));
    EXPECT_EQ(rules::hosts(value, 1), Keys{"10.0.0.1"});
    EXPECT_EQ(rules::hosts("2001:db8::1\talpha", 1), Keys{"2001:db8::1"});
    EXPECT_EQ(rules::hosts("10.0.0.1 alpha beta#x #", 0), (Keys{"alpha", "beta#x"}));
}

TEST(RecordRules, HostsWithoutAddressAreRefused) {
    for (const std::string value :
         {"255.255.255.255 all", "alpha 10.0.0.1", "10.0.0.1", "", "10.0.0 a", "ffff:ffff::1 a"}) {
        EXPECT_EQ(refused([&] { rules::hosts(value, 0); }), "bad record:" + value);
        EXPECT_EQ(refused([&] { rules::hosts(value, 1); }), "bad record:" + value);
    }
}

TEST(RecordRules, ValidAddresses) {
    for (const char* text : {"0.0.0.0", "10.1.2.3", "255.255.255.254", "::", "::1", "fe80::1"}) {
        EXPECT_TRUE(rules::validAddress(text)) << text;
    }
    for (const char* text :
         {"", "255.255.255.255", "ffff:ffff::", "10.1.2", "10.1.2.3.4", "host", "10.1.2.3 ", "1"}) {
        EXPECT_FALSE(rules::validAddress(text)) << text;
    }
    EXPECT_FALSE(rules::validAddress(std::string("10.1.2.3\0x", 10)));
}

TEST(RecordRules, NetmasksNeedTwoAddresses) {
    EXPECT_EQ(rules::netmasks("10.0.0.0", "255.0.0.0"), Keys{"10.0.0.0"});
    EXPECT_EQ(refused([] { rules::netmasks("net", "255.0.0.0"); }), "bad record:net");
    EXPECT_EQ(refused([] { rules::netmasks("10.0.0.0", "big"); }), "bad record:big");
    EXPECT_EQ(refused([] { rules::netmasks("10.0.0.0", "255.255.255.255"); }),
              "bad record:255.255.255.255");
}

TEST(RecordRules, TimezoneKeysAreAllFieldsButTheFirst) {
    EXPECT_EQ(rules::timezone("Europe/Lisbon lab office\tharbour"),
              (Keys{"lab", "office", "harbour"}));
    EXPECT_EQ(refused([] { rules::timezone("UTC"); }), "bad record:UTC");
    EXPECT_EQ(refused([] { rules::timezone("  UTC "); }), "bad record:  UTC ");
}

TEST(RecordRules, Ethers) {
    const std::string value = "8:0:20:1:2:3 alpha more";
    EXPECT_EQ(rules::ethers("k", value, 0), Keys{"alpha"});
    EXPECT_EQ(rules::ethers("k", value, 1), Keys{"8:0:20:1:2:3"});
    EXPECT_EQ(rules::ethers("k", value, 2), Keys{});
    EXPECT_EQ(rules::ethers("k", "8:0:20:1:2:3", 0), Keys{"k"});
    EXPECT_EQ(rules::ethers("k", "", 1), Keys{"k"});
}

TEST(RecordRules, Services) {
    const std::string value = "smtp 25/tcp mail e-mail # post";
    EXPECT_EQ(rules::services("k", value, 0), Keys{"25/tcp"});
    EXPECT_EQ(rules::services("k", value, 1), (Keys{"smtp/tcp", "mail/tcp", "e-mail/tcp"}));
    EXPECT_EQ(rules::services("k", value, 2), Keys{});
    EXPECT_EQ(rules::services("k", "smtp 25", 0), Keys{"k"});
}

TEST(RecordRules, AliasesRewriteTheValue) {
    const std::string line = "root: ines@lab.example.com ";
    std::string value = line;
    EXPECT_EQ(rules::aliases("root", value, 0), Keys{"root"});
    EXPECT_EQ(value, line);
    EXPECT_EQ(rules::aliases("root", value, 1), Keys{"root"});
    EXPECT_EQ(value, "ines@lab.example.com");
    value = line;
    EXPECT_EQ(rules::aliases("root", value, 2), Keys{"ines@lab.example.com"});
    EXPECT_EQ(value, "root");
}

TEST(RecordRules, AliasesWithoutAddresses) {
    for (unsigned n : {1U, 2U}) {
        std::string value = "root";
        EXPECT_EQ(rules::aliases("root", value, n), Keys{});
        value = "";
        EXPECT_EQ(rules::aliases("root", value, n), Keys{});
    }
    std::string value = ":";
    EXPECT_EQ(rules::aliases("root", value, 0), Keys{});
}

TEST(RecordRules, ReverseAliasesOnlyForSingleMailAddresses) {
    EXPECT_TRUE(rules::checkAliaseAndAddr("root", "ines@lab"));
    EXPECT_TRUE(rules::checkAliaseAndAddr("root", "harbour!ines"));
    for (const char* address : {"", "a@b,c@d", "|prog@x", ":include:/l@x", "ines"}) {
        EXPECT_FALSE(rules::checkAliaseAndAddr("root", address)) << address;
    }
    for (const char* name : {"", "@root", "YP_LAST_MODIFIED"}) {
        EXPECT_FALSE(rules::checkAliaseAndAddr(name, "ines@lab")) << name;
    }
    EXPECT_TRUE(rules::checkAliaseAndAddr("yp_", "ines@lab"));
}

} // namespace
