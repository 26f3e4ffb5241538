#include "Accounts.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <limits>
#include <map>
#include <string>
#include <utility>

namespace {

using quorad::AccountKind;
using quorad::AccountReference;
using quorad::Accounts;

constexpr std::int64_t NOW = 132'000'000'000'000'000;

using Attributes = std::map<std::string, std::vector<std::string>>;

tessa::ADObject objectOf(const Attributes& attributes) {
    tessa::ADObject object;
    for (const auto& [name, values] : attributes) {
        object.set(name, values);
    }
    return object;
}

Attributes nina() {
    return {{"objectClass", {"top", "person", "organizationalPerson", "user"}},
            {"objectCategory", {"person"}},
            {"sAMAccountName", {"nina"}},
            {"uidNumber", {"2001"}},
            {"gidNumber", {"100"}},
            {"gecos", {"Nina N."}},
            {"displayName", {"Nina from display"}},
            {"unixHomeDirectory", {"/home/nina"}},
            {"loginShell", {"/bin/bash"}},
            {"userAccountControl", {"512"}},
            {"unixUserPassword", {"$6$abc"}}};
}

Attributes with(Attributes attributes, const std::string& name, const std::string& value) {
    attributes[name] = {value};
    return attributes;
}

Attributes without(Attributes attributes, const std::string& name) {
    attributes.erase(name);
    return attributes;
}

tessa::UserRecord userOf(const Attributes& attributes) {
    tessa::UserRecord user;
    std::string reason;
    EXPECT_TRUE(Accounts::makeUser(objectOf(attributes), NOW, user, reason)) << reason;
    return user;
}

std::string refusalOf(const Attributes& attributes) {
    tessa::UserRecord user;
    std::string reason;
    EXPECT_FALSE(Accounts::makeUser(objectOf(attributes), NOW, user, reason));
    return reason;
}

TEST(Accounts, kinds) {
    EXPECT_EQ(Accounts::kindOf(objectOf(nina())), AccountKind::USER);
    EXPECT_EQ(Accounts::kindOf(objectOf(without(nina(), "objectCategory"))), AccountKind::USER);
    EXPECT_EQ(Accounts::kindOf(objectOf(
                  with(nina(), "objectCategory", "CN=Person,CN=Schema,CN=Configuration,DC=a"))),
              AccountKind::USER);
    EXPECT_EQ(Accounts::kindOf(objectOf(
                  with(nina(), "objectCategory", "CN=Computer,CN=Schema,CN=Configuration,DC=a"))),
              AccountKind::NONE);
    Attributes computer = without(nina(), "objectCategory");
    computer["objectClass"].push_back("Computer");
    EXPECT_EQ(Accounts::kindOf(objectOf(computer)), AccountKind::NONE);
    EXPECT_EQ(Accounts::kindOf(objectOf({{"objectClass", {"top", "Group"}}})), AccountKind::GROUP);
    EXPECT_EQ(Accounts::kindOf(objectOf({{"objectClass", {"container"}}})), AccountKind::NONE);
    EXPECT_EQ(Accounts::kindOf(objectOf({})), AccountKind::NONE);
}

TEST(Accounts, user) {
    const auto user = userOf(nina());
    EXPECT_EQ(user.name, "nina");
    EXPECT_EQ(user.uid, 2001U);
    EXPECT_EQ(user.gid, 100U);
    EXPECT_EQ(user.gecos, "Nina N.");
    EXPECT_EQ(user.homeDirectory, "/home/nina");
    EXPECT_EQ(user.shell, "/bin/bash");
    EXPECT_EQ(user.passwordHash, "$6$abc");
    EXPECT_EQ(user.accountControl, 512U);
    EXPECT_TRUE(user.enabled);
    EXPECT_EQ(user.passwordTime, NOW);
    EXPECT_EQ(user.passwordExpiry, -1);
    EXPECT_EQ(user.accountExpires, 0);
}

TEST(Accounts, optionalAttributes) {
    auto user = userOf(without(nina(), "gecos"));
    EXPECT_EQ(user.gecos, "Nina from display");
    user = userOf({{"sAMAccountName", {"a"}}, {"uidNumber", {"1"}}, {"gidNumber", {"2"}}});
    EXPECT_EQ(user.gecos, "");
    EXPECT_EQ(user.homeDirectory, "");
    EXPECT_EQ(user.shell, "");
    EXPECT_EQ(user.passwordHash, "x");
    EXPECT_TRUE(user.enabled);
}

TEST(Accounts, disabled) {
    const auto user = userOf(with(nina(), "userAccountControl", "514"));
    EXPECT_FALSE(user.enabled);
    EXPECT_EQ(user.accountControl, 514U);
    EXPECT_FALSE(userOf(with(nina(), "userAccountControl", "-2147483646")).enabled);
}

TEST(Accounts, passwordHash) {
    EXPECT_EQ(userOf(with(nina(), "unixUserPassword", "{crypt}$5$x")).passwordHash, "$5$x");
    EXPECT_EQ(userOf(with(nina(), "unixUserPassword", "{CRYPT}ab")).passwordHash, "ab");
    EXPECT_EQ(userOf(with(nina(), "unixUserPassword", "{crypt}")).passwordHash, "x");
    EXPECT_EQ(userOf(with(nina(), "unixUserPassword", "")).passwordHash, "x");
    EXPECT_EQ(userOf(with(nina(), "unixUserPassword", "{SSHA}zz")).passwordHash, "{SSHA}zz");
}

TEST(Accounts, times) {
    const char* const expiry = "msDS-UserPasswordExpiryTimeComputed";
    EXPECT_EQ(userOf(with(nina(), expiry, "9223372036854775807")).passwordExpiry, -1);
    EXPECT_EQ(userOf(with(nina(), expiry, "0")).passwordExpiry, 0);
    EXPECT_EQ(userOf(with(nina(), expiry, "132000000000000001")).passwordExpiry, NOW + 1);
    EXPECT_EQ(userOf(with(nina(), "accountExpires", "9223372036854775807")).accountExpires,
              std::numeric_limits<std::int64_t>::max());
    EXPECT_EQ(userOf(with(nina(), "accountExpires", "17")).accountExpires, 17);
    EXPECT_EQ(Accounts::directoryTime(0), 116'444'736'000'000'000);
    EXPECT_EQ(Accounts::directoryTime(1), 116'444'736'010'000'000);
}

TEST(Accounts, numbersOutOfRangeAreRefused) {
    for (const char* value : {"", "-1", "4294967296", "12x", "x", "99999999999999999999", " 7"}) {
        EXPECT_NE(refusalOf(with(nina(), "uidNumber", value)).find("uidNumber"), std::string::npos)
            << value;
        EXPECT_NE(refusalOf(with(nina(), "gidNumber", value)).find("gidNumber"), std::string::npos);
    }
    EXPECT_EQ(userOf(with(nina(), "uidNumber", "4294967295")).uid, 4294967295U);
    EXPECT_EQ(refusalOf(without(nina(), "uidNumber")), "it has no uidNumber");
    EXPECT_EQ(refusalOf(without(nina(), "gidNumber")), "it has no gidNumber");
    // What locks an account must not be lost because it cannot be read.
    EXPECT_NE(refusalOf(with(nina(), "userAccountControl", "2 ")), "");
    EXPECT_NE(refusalOf(with(nina(), "accountExpires", "soon")), "");
    EXPECT_NE(refusalOf(with(nina(), "msDS-UserPasswordExpiryTimeComputed", "never")), "");
}

TEST(Accounts, whatWouldForgeALineIsRefused) {
    for (const char* name : {"", "a:b", "a\nb", "a,b", "a\tb", "a\x7f"}) {
        EXPECT_NE(refusalOf(with(nina(), "sAMAccountName", name)), "") << name;
    }
    for (const char* attribute : {"unixHomeDirectory", "loginShell", "unixUserPassword"}) {
        EXPECT_NE(refusalOf(with(nina(), attribute, "/x:0:0")).find(attribute), std::string::npos);
        EXPECT_NE(refusalOf(with(nina(), attribute, "/x\nroot::0:0")), "");
        EXPECT_NE(refusalOf(with(nina(), attribute, std::string("/x\0y", 4))), "");
    }
    EXPECT_EQ(userOf(with(nina(), "gecos", "a:b\nc\td")).gecos, "a b c d");
}

TEST(Accounts, group) {
    tessa::GroupRecord group;
    std::string reason;
    EXPECT_TRUE(Accounts::makeGroup(
        objectOf({{"sAMAccountName", {"staff"}}, {"cn", {"Staff CN"}}, {"gidNumber", {"500"}}}),
        group, reason));
    EXPECT_EQ(group.name, "staff");
    EXPECT_EQ(group.gid, 500U);
    EXPECT_TRUE(
        Accounts::makeGroup(objectOf({{"cn", {"other"}}, {"gidNumber", {"1"}}}), group, reason));
    EXPECT_EQ(group.name, "other");
    for (const Attributes& bad :
         std::initializer_list<Attributes>{{{"cn", {"a:b"}}, {"gidNumber", {"1"}}},
                                           {{"cn", {"a"}}, {"gidNumber", {"z"}}},
                                           {{"cn", {"a"}}},
                                           {{"gidNumber", {"1"}}}}) {
        reason.clear();
        EXPECT_FALSE(Accounts::makeGroup(objectOf(bad), group, reason));
        EXPECT_NE(reason, "");
    }
}

TEST(Accounts, rid) {
    std::uint32_t rid = 0;
    const std::string domain("\x01\x05\0\0\0\0\0\x05\x15\0\0\0AAAABBBBCCCC", 24);
    EXPECT_TRUE(Accounts::ridOf(
        objectOf({{"objectSid", {domain + std::string("\x01\x02\x03\x84", 4)}}}), rid));
    EXPECT_EQ(rid, 0x84030201U);
    EXPECT_TRUE(Accounts::ridOf(objectOf({{"objectSid", {"S-1-5-21-1-2-3-513"}}}), rid));
    EXPECT_EQ(rid, 513U);
    for (const std::string& bad :
         {std::string(), std::string("x"), domain, std::string("\x01\0\0\0\0\0\0\x05", 8),
          std::string("S-1-5-"), std::string("S-1-5-4294967296"), std::string("S-1-5-x")}) {
        EXPECT_FALSE(Accounts::ridOf(objectOf({{"objectSid", {bad}}}), rid)) << bad;
    }
    EXPECT_FALSE(Accounts::ridOf(objectOf({}), rid));
}

class Members : public quorad::MemberSource {
public:
    std::map<std::string, AccountReference> objects;
    std::map<std::uint32_t, std::vector<std::string>> primary;

    bool find(const std::string& dn, AccountReference& account) override {
        const auto found = objects.find(dn);
        if (found == objects.end()) {
            return false;
        }
        account = found->second;
        return true;
    }
    std::vector<std::string> primaryMembers(std::uint32_t rid) override { return primary[rid]; }

    void user(const std::string& name) {
        objects["CN=" + name] = {AccountKind::USER, name, {}, {}, false, 0};
    }
    void group(const std::string& name, std::vector<std::string> members) {
        objects["CN=" + name] = {AccountKind::GROUP, "", std::move(members), {}, false, 0};
    }
};

AccountReference groupWith(std::vector<std::string> members) {
    AccountReference group;
    group.kind = AccountKind::GROUP;
    group.members = std::move(members);
    return group;
}

TEST(Accounts, membersAreSortedAndUnique) {
    Members source;
    for (const char* name : {"zoe", "adam", "mia", "Bob"}) {
        source.user(name);
    }
    source.primary[513] = {"mia", "paul"};
    auto group = groupWith({"CN=zoe", "CN=mia", "CN=adam", "CN=Bob", "CN=zoe", "CN=gone"});
    group.names = {"adam", "extern", "a,b", "x:y", ""};
    group.hasRid = true;
    group.rid = 513;
    EXPECT_EQ(Accounts::members(group, source),
              (std::vector<std::string>{"Bob", "adam", "extern", "mia", "paul", "zoe"}));
}

TEST(Accounts, nestedGroupsWithLoops) {
    Members source;
    source.user("a");
    source.user("b");
    source.user("c");
    source.group("inner", {"CN=b", "CN=outer", "CN=inner", "CN=deeper"});
    source.group("outer", {"CN=a", "CN=inner"});
    source.group("deeper", {"CN=c", "CN=outer"});
    source.objects["CN=deeper"].hasRid = true;
    source.objects["CN=deeper"].rid = 7;
    source.primary[7] = {"p"};
    EXPECT_EQ(Accounts::members(groupWith({"CN=a", "CN=inner"}), source),
              (std::vector<std::string>{"a", "b", "c", "p"}));
}

TEST(Accounts, deepChainOfGroups) {
    Members source;
    source.user("end");
    for (int i = 0; i < 20'000; ++i) {
        source.group("g" + std::to_string(i),
                     {i + 1 < 20'000 ? "CN=g" + std::to_string(i + 1) : std::string("CN=end")});
    }
    EXPECT_EQ(Accounts::members(groupWith({"CN=g0"}), source), std::vector<std::string>{"end"});
}

TEST(Accounts, groupReference) {
    const auto group = Accounts::groupReference(
        objectOf({{"member", {"CN=a", "CN=b"}}, {"memberUid", {"c"}}, {"objectSid", {"S-1-9"}}}));
    EXPECT_EQ(group.kind, AccountKind::GROUP);
    EXPECT_EQ(group.members.size(), 2U);
    EXPECT_EQ(group.names, std::vector<std::string>{"c"});
    EXPECT_TRUE(group.hasRid);
    EXPECT_EQ(group.rid, 9U);
}

} // namespace
