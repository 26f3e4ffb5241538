#include "Accounts.h"
#include "LdifFixture.h"

#include <gmock/gmock.h>

#include <ctime>

namespace {

using test::BASE;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class LdifAccounts : public test::LdifFixture {
protected:
    static std::string nameOf(const std::string& cn) { return "CN=" + cn + ",CN=Users," + BASE; }

    void user(const std::string& name, unsigned uid, const std::string& more = "") {
        put(nameOf(name), "objectClass: user\nobjectCategory: person\nsAMAccountName: " + name +
                              "\nuidNumber: " + std::to_string(uid) + "\ngidNumber: 100\n" + more);
    }
    void group(const std::string& name, unsigned gid, const std::vector<std::string>& members,
               const std::string& more = "") {
        std::string attributes = "objectClass: group\nsAMAccountName: " + name +
                                 "\ngidNumber: " + std::to_string(gid) + "\n" + more;
        for (const auto& member : members) {
            attributes += "member: " + nameOf(member) + "\n";
        }
        put(nameOf(name), attributes);
    }

    std::vector<tessa::UserRecord> users(std::size_t page = 3) {
        std::vector<tessa::UserRecord> all;
        const auto cursor = directory->users(tessa::UNIX_ONLY);
        while (cursor->nextPage(all, page)) {
        }
        std::vector<tessa::UserRecord> beyond;
        EXPECT_FALSE(cursor->nextPage(beyond, page));
        EXPECT_TRUE(beyond.empty());
        return all;
    }
    std::vector<std::string> userNames(std::size_t page = 3) {
        std::vector<std::string> all;
        for (const auto& one : users(page)) {
            all.push_back(one.name);
        }
        return all;
    }
    std::vector<tessa::GroupRecord> groups(std::size_t page = 3) {
        std::vector<tessa::GroupRecord> all;
        const auto cursor = directory->groups(tessa::UNIX_ONLY | tessa::GROUP_MEMBERSHIP);
        while (cursor->nextPage(all, page)) {
        }
        return all;
    }
};

TEST_F(LdifAccounts, usersInTheOrderOfTheirNames) {
    for (const char* name : {"zoe", "adam", "Bob", "mia", "bob"}) {
        user(name, 1000);
    }
    // One name may be only one object of a container.
    put("CN=bob2," + BASE, records.back().second);
    drop(nameOf("bob"));
    put(nameOf("nonumber"), "objectClass: user\nsAMAccountName: nonumber\n");
    put(nameOf("machine$"), "objectClass: user\nobjectClass: computer\nsAMAccountName: machine$\n"
                            "uidNumber: 7\ngidNumber: 7\n");
    put(nameOf("other"), "objectClass: contact\nsAMAccountName: other\nuidNumber: 7\n"
                         "gidNumber: 7\n");
    load();
    for (const std::size_t page : {std::size_t{1}, std::size_t{2}, std::size_t{100}}) {
        EXPECT_THAT(userNames(page), ElementsAre("Bob", "adam", "bob", "mia", "zoe"));
    }
}

TEST_F(LdifAccounts, aUserWithAllItsFields) {
    user("nina", 2001,
         "gecos: Nina\nunixHomeDirectory: /home/nina\nloginShell: /bin/sh\n"
         "userAccountControl: 514\naccountExpires: 9223372036854775807\n"
         "unixUserPassword: {CRYPT}$6$x\nmsDS-UserPasswordExpiryTimeComputed: 0\n");
    load();
    const auto before = quorad::Accounts::directoryTime(std::time(nullptr));
    const auto nina = directory->user("nina");
    const auto after = quorad::Accounts::directoryTime(std::time(nullptr));
    EXPECT_EQ(nina.uid, 2001U);
    EXPECT_EQ(nina.gid, 100U);
    EXPECT_EQ(nina.gecos, "Nina");
    EXPECT_EQ(nina.homeDirectory, "/home/nina");
    EXPECT_EQ(nina.shell, "/bin/sh");
    EXPECT_EQ(nina.passwordHash, "$6$x");
    EXPECT_FALSE(nina.enabled);
    EXPECT_EQ(nina.passwordExpiry, 0);
    EXPECT_GE(nina.passwordTime, before);
    EXPECT_LE(nina.passwordTime, after);
    EXPECT_EQ(users().at(0).shell, "/bin/sh");
    EXPECT_THROW(directory->user("nobody"), tessa::NotFoundException);
    EXPECT_THROW(directory->user(""), tessa::NotFoundException);
    EXPECT_THROW(directory->user("@#"), tessa::NotFoundException);
}

TEST_F(LdifAccounts, groupsWithTheirMembers) {
    user("a", 1, "primaryGroupID: 513\n");
    user("b", 2, "primaryGroupID: 1105\n");
    user("c", 3);
    group("staff", 500, {"c", "a", "gone", "nested"}, "objectSid: S-1-5-21-1-2-3-1105\n");
    put(nameOf("nested"), "objectClass: group\ncn: nested\nmember: " + nameOf("staff") +
                              "\nmember: " + nameOf("a") + "\nmemberUid: local\n");
    group("empty", 501, {});
    // A SID in its binary form, ending in 513.
    group("everyone", 502, {}, "objectSid:: AQUAAAAAAAUVAAAAAQAAAAIAAAADAAAAAQIAAA==\n");
    load();
    const auto all = groups();
    ASSERT_EQ(all.size(), 3U);
    EXPECT_EQ(all[0].name, "empty");
    EXPECT_THAT(all[0].members, IsEmpty());
    EXPECT_EQ(all[1].name, "everyone");
    EXPECT_THAT(all[1].members, ElementsAre("a"));
    EXPECT_EQ(all[2].name, "staff");
    EXPECT_EQ(all[2].gid, 500U);
    EXPECT_THAT(all[2].members, ElementsAre("a", "b", "c", "local"));
    EXPECT_THAT(directory->group("staff").members, ElementsAre("a", "b", "c", "local"));
    EXPECT_THROW(directory->group("nested"), tessa::NotFoundException);
    std::vector<tessa::GroupRecord> without;
    directory->groups(tessa::UNIX_ONLY)->nextPage(without, 10);
    ASSERT_EQ(without.size(), 3U);
    EXPECT_THAT(without[2].members, IsEmpty());
}

TEST_F(LdifAccounts, memberNamesInAnySpelling) {
    user("a", 1);
    put(nameOf("g"), "objectClass: group\ngidNumber: 5\nmember: cn=A, cn=USERS, " + BASE +
                         "\nmember: nonsense\nmember: CN=Users," + BASE + "\n");
    load();
    EXPECT_THAT(directory->group("g").members, ElementsAre("a"));
}

TEST_F(LdifAccounts, changesMoveUsersInAndOut) {
    user("a", 1);
    user("b", 2);
    group("g", 5, {"a", "b"});
    load();
    drop(nameOf("a"));
    put(nameOf("b"), "objectClass: user\nsAMAccountName: renamed\nuidNumber: 2\ngidNumber: 1\n");
    user("c", 3);
    load();
    EXPECT_THAT(userNames(), ElementsAre("c", "renamed"));
    EXPECT_THAT(directory->group("g").members, ElementsAre("renamed"));
    put(nameOf("b"), "objectClass: user\nsAMAccountName: renamed\n");
    drop(nameOf("g"));
    load();
    EXPECT_THAT(userNames(), ElementsAre("c"));
    EXPECT_TRUE(groups().empty());
}

TEST_F(LdifAccounts, whoCannotBeServedIsNamedAndLeftOut) {
    user("good", 1);
    put(nameOf("forger"), "objectClass: user\nsAMAccountName:: eDowOjA6\nuidNumber: 2\n"
                          "gidNumber: 2\n");
    put(nameOf("wide"), "objectClass: user\nsAMAccountName: wide\nuidNumber: 4294967296\n"
                        "gidNumber: 2\n");
    put(nameOf("word"),
        "objectClass: group\ncn: word\ngidNumber: seven\nmember: " + nameOf("good") + "\n");
    group("g", 7, {"good", "forger", "wide"});
    const std::string log = logOf([&] { load(); });
    EXPECT_THAT(log, HasSubstr("'CN=forger,CN=Users,DC=example,DC=com' is not served as a user"));
    EXPECT_THAT(log, HasSubstr("uidNumber '4294967296' is not a number in the allowed range"));
    EXPECT_THAT(log, HasSubstr("'CN=word,CN=Users,DC=example,DC=com' is not served as a group"));
    EXPECT_THAT(userNames(), ElementsAre("good"));
    ASSERT_EQ(groups().size(), 1U);
    EXPECT_THAT(groups()[0].members, ElementsAre("good"));
}

TEST_F(LdifAccounts, duplicatesAreNamedOnce) {
    user("a", 1);
    user("b", 1);
    put(nameOf("c"), "objectClass: user\nsAMAccountName: a\nuidNumber: 3\ngidNumber: 3\n");
    group("g", 5, {});
    group("h", 5, {});
    const std::string log = logOf([&] { load(); });
    EXPECT_THAT(log, HasSubstr("'CN=a,CN=Users,DC=example,DC=com' and "
                               "'CN=b,CN=Users,DC=example,DC=com' have the same uidNumber"));
    EXPECT_THAT(log, HasSubstr("have the same user name"));
    EXPECT_THAT(log, HasSubstr("have the same gidNumber"));
    user("d", 9);
    EXPECT_THAT(logOf([&] { load(); }), Not(HasSubstr("have the same")));
    EXPECT_EQ(userNames().size(), 4U) << "all are served";
}

// An enumeration sees one state, whatever happens meanwhile.
TEST_F(LdifAccounts, anEnumerationIsOfOneState) {
    for (int i = 10; i < 40; ++i) {
        user("u" + std::to_string(i), static_cast<unsigned>(i));
    }
    group("g", 5, {"u10", "u39"});
    load();
    const auto userCursor = directory->users(0);
    const auto groupCursor = directory->groups(tessa::GROUP_MEMBERSHIP);
    std::vector<tessa::UserRecord> all;
    ASSERT_TRUE(userCursor->nextPage(all, 5));
    const auto renamed = records;
    for (auto& record : records) {
        const std::size_t at = record.second.find("sAMAccountName: u39");
        if (at != std::string::npos) {
            record.second.replace(at, 19, "sAMAccountName: aaa");
        }
    }
    drop(nameOf("u30"));
    load();
    while (userCursor->nextPage(all, 5)) {
    }
    EXPECT_EQ(all.size(), 30U);
    EXPECT_EQ(all.back().name, "u39");
    std::vector<tessa::GroupRecord> found;
    groupCursor->nextPage(found, 10);
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(userNames().front(), "aaa");
    EXPECT_EQ(userNames().size(), 29U);
}

TEST_F(LdifAccounts, cursorsOutliveALostIndexAndTheDirectory) {
    for (int i = 0; i < 100; ++i) {
        user("u" + std::to_string(i), static_cast<unsigned>(i));
    }
    load();
    const auto cursor = directory->users(0);
    std::vector<tessa::UserRecord> all;
    ASSERT_TRUE(cursor->nextPage(all, 5));
    open(true);
    directory->maintain();
    EXPECT_EQ(users().size(), 100U);
    while (cursor->nextPage(all, 5)) {
    }
    EXPECT_EQ(all.size(), 100U);
    directory.reset();
}

TEST_F(LdifAccounts, twoThousandUsersInOneGroup) {
    std::vector<std::string> names;
    for (int i = 0; i < 2000; ++i) {
        names.push_back("user" + std::to_string(i));
        user(names.back(), static_cast<unsigned>(i));
    }
    group("all", 9, names);
    load();
    EXPECT_EQ(users(1000).size(), 2000U);
    auto sorted = names;
    std::sort(sorted.begin(), sorted.end());
    EXPECT_EQ(directory->group("all").members, sorted);
}

} // namespace
