#include "ldap/AccountIndex.h"
#include "ldap/Tombstones.h"
#include "support/TempFolder.h"

#include <karst/Exceptions.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace {

using namespace quorad;
using namespace quorad::ldap;
using Values = std::map<std::string, std::vector<std::string>>;

constexpr const char* BASE = ",CN=Users,DC=example,DC=com";

tessa::ADObject object(const std::string& name, const Values& values) {
    tessa::ADObject made;
    made.set("_dn", "CN=" + name + BASE);
    made.set("sAMAccountName", name);
    for (const auto& [attribute, texts] : values) {
        made.set(attribute, texts);
    }
    return made;
}

tessa::ADObject user(const std::string& name, int uid, const Values& more = {}) {
    tessa::ADObject made = object(name, {{"objectClass", {"top", "person", "user"}},
                                         {"objectCategory", {"CN=Person,CN=Schema,DC=x"}},
                                         {"uidNumber", {std::to_string(uid)}},
                                         {"gidNumber", {"100"}},
                                         {"primaryGroupID", {"513"}}});
    for (const auto& [attribute, texts] : more) {
        made.set(attribute, texts);
    }
    return made;
}

tessa::ADObject group(const std::string& name, int gid, const std::vector<std::string>& members,
                      const std::string& sid = "") {
    Values values{{"objectClass", {"top", "group"}}};
    if (gid > 0) {
        values["gidNumber"] = {std::to_string(gid)};
    }
    for (const std::string& member : members) {
        values["member"].push_back("CN=" + member + BASE);
    }
    if (!sid.empty()) {
        values["objectSid"] = {sid};
    }
    return object(name, values);
}

class LdapAccountIndex : public testing::Test {
protected:
    std::vector<std::string> names() {
        std::vector<std::string> found;
        tessa::UserRecord record;
        while (index.nextUser(record)) {
            found.push_back(record.name);
        }
        return found;
    }
    std::map<std::string, std::vector<std::string>> groups() {
        std::map<std::string, std::vector<std::string>> found;
        tessa::GroupRecord record;
        while (index.nextGroup(record, true)) {
            found[record.name] = record.members;
        }
        return found;
    }
    void addGroups(const std::vector<tessa::ADObject>& objects) {
        for (const tessa::ADObject& object : objects) {
            index.addGroup(object);
        }
    }
    bool hasProblem(const std::set<std::string>& problems, const std::string& a,
                    const std::string& b) {
        return std::any_of(problems.begin(), problems.end(), [&](const std::string& text) {
            return text.find(a) != std::string::npos && text.find(b) != std::string::npos;
        });
    }

    test::TempFolder folder;
    AccountIndex index{folder.path().string(), 1000};
};

TEST_F(LdapAccountIndex, UsersInByteOrderWithAllFields) {
    index.addUsers({user("zoe", 3), user("Bob", 2),
                    user("ann", 1,
                         {{"gecos", {"Ann: A"}},
                          {"unixHomeDirectory", {"/home/ann"}},
                          {"loginShell", {"/bin/sh"}},
                          {"unixUserPassword", {"$6$x"}},
                          {"userAccountControl", {"514"}},
                          {"accountExpires", {"77"}},
                          {"msDS-UserPasswordExpiryTimeComputed", {"9223372036854775807"}}})});
    index.addUsers({user("ann\xc3\xbc", 4)});
    EXPECT_EQ(names(), (std::vector<std::string>{"Bob", "ann", "ann\xc3\xbc", "zoe"}));
    tessa::UserRecord record;
    ASSERT_TRUE(index.nextUser(record)); // begins again
    ASSERT_TRUE(index.nextUser(record));
    EXPECT_EQ(record.name, "ann");
    EXPECT_EQ(record.uid, 1U);
    EXPECT_EQ(record.gid, 100U);
    EXPECT_EQ(record.gecos, "Ann  A");
    EXPECT_EQ(record.homeDirectory, "/home/ann");
    EXPECT_EQ(record.shell, "/bin/sh");
    EXPECT_EQ(record.passwordHash, "$6$x");
    EXPECT_EQ(record.accountControl, 514U);
    EXPECT_FALSE(record.enabled);
    EXPECT_EQ(record.accountExpires, 77);
    EXPECT_EQ(record.passwordExpiry, -1);
    EXPECT_EQ(record.passwordTime, 1000);
}

TEST_F(LdapAccountIndex, MembersNestedPrimaryAndForeign) {
    // S-1-5-21-1-1-1-513
    const std::string sid(
        "\x01\x05\0\0\0\0\0\x05\x15\0\0\0\x01\0\0\0\x01\0\0\0\x01\0\0\0\x01\x02\0\0", 28);
    index.addUsers({user("ann", 1), user("bob", 2, {{"primaryGroupID", {"600"}}}), user("cid", 3)});
    addGroups({group("outer", 10, {"bob", "inner", "nobody"}), group("inner", 0, {"cid", "outer"}),
               group("everybody", 11, {}, sid), group("empty", 12, {})});
    const auto found = groups();
    EXPECT_EQ(found.size(), 3U);
    EXPECT_EQ(found.at("outer"), (std::vector<std::string>{"bob", "cid"}));
    EXPECT_EQ(found.at("everybody"), (std::vector<std::string>{"ann", "cid"}));
    EXPECT_TRUE(found.at("empty").empty());
}

TEST_F(LdapAccountIndex, MembersMayComeInParts) {
    index.addUsers({user("ann", 1), user("bob", 2)});
    const std::int64_t team = index.addGroup(group("team", 10, {"bob"}));
    index.addMembers(team, {std::string("CN=ann") + BASE});
    index.addMembers(team, {});
    EXPECT_EQ(groups().at("team"), (std::vector<std::string>{"ann", "bob"}));
}

TEST_F(LdapAccountIndex, ProblemsNameBothObjects) {
    index.addUsers({user("ann", 5), user("bob", 5), user("bad", 6, {{"loginShell", {"a:b"}}})});
    addGroups({group("g1", 7, {}), group("g2", 7, {}), group("n1", 0, {}), group("n2", 0, {})});
    const auto problems = index.problems();
    EXPECT_EQ(problems.size(), 3U);
    EXPECT_TRUE(hasProblem(problems, "CN=ann,", "CN=bob,"));
    EXPECT_TRUE(hasProblem(problems, "CN=g1,", "CN=g2,"));
    EXPECT_TRUE(hasProblem(problems, "CN=bad,", "loginShell"));
}

TEST_F(LdapAccountIndex, NumberOfProblemsIsBounded) {
    std::vector<tessa::ADObject> bad;
    for (int number = 0; number < 300; ++number) {
        bad.push_back(user("u" + std::to_string(number), 6, {{"loginShell", {"a:b"}}}));
    }
    index.addUsers(bad);
    const auto problems = index.problems();
    EXPECT_EQ(problems.size(), 101U);
    EXPECT_TRUE(hasProblem(problems, "200 further", "accounts"));
}

TEST_F(LdapAccountIndex, NoFileIsLeftBehind) {
    const std::string stale = (folder.path() / "accounts-1-abcdef").string();
    test::writeFile(stale, "left by another process");
    AccountIndex::removeStale(folder.path().string());
    EXPECT_FALSE(std::filesystem::exists(stale));
    const auto count = [&] {
        return std::distance(std::filesystem::directory_iterator(folder.path()), {});
    };
    EXPECT_EQ(count(), 1); // that of `index`
    { const AccountIndex another(folder.path().string(), 0); }
    EXPECT_EQ(count(), 1);
    EXPECT_THROW(AccountIndex("/nowhere/at/all", 0), tessa::IPCException);
}

TEST(LdapTombstones, DeletedObjectsBeginWithTheMark) {
    tessa::ADObject tombstone;
    tombstone.set("cn", "web\nDEL:0a0b0c0d-0000-0000-0000-000000000000");
    tombstone.set("objectGUID", std::string(16, 'g'));
    const tessa::ADObject deleted = Tombstones::deletedObject(tombstone);
    EXPECT_EQ(deleted["cn"].asString(), "\x01web");
    EXPECT_EQ(deleted.guid(), std::string(16, 'g'));
}

TEST(LdapTombstones, GoneObjectsCarryWhatClientsNeed) {
    const tessa::ADObject gone = Tombstones::goneObject("dc1.x", std::string(16, '\x02'), 77);
    EXPECT_EQ(gone["cn"].asString()[0], '\x01');
    EXPECT_EQ(gone.guid(), std::string(16, '\x02'));
    EXPECT_EQ(gone["_server"].asString(), "dc1.x");
    EXPECT_EQ(gone["uSNChanged"].asString(), "77");
    EXPECT_TRUE(gone.attributeExists("_dn", true));
    EXPECT_EQ(Tombstones::container("DC=x"), "CN=Deleted Objects,DC=x");
}

} // namespace
