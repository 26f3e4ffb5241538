// The maps of users and groups, enumerated from a directory client.
#include "maps/GroupMap.h"
#include "maps/PasswdMap.h"
#include "unit/maps/DirectoryFixture.h"

namespace {

using test::Entries;
using test::FakeQuorad;
using test::TestDirectory;

class AccountMapsTest : public test::FakeDirectoryFixture {
protected:
    template <typename Map> static boost::shared_ptr<Map> make(const std::string& name) {
        return boost::make_shared<Map>(makeCache(name, ".GLOBAL"));
    }
};

TEST_F(AccountMapsTest, NamesAndFilters) {
    const auto passwd = make<nis::PasswdMap>("passwd");
    EXPECT_STREQ(passwd->type_name(), "PasswdMap");
    EXPECT_TRUE(passwd->mustCacheThisMap("passwd"));
    EXPECT_FALSE(passwd->mustCacheThisMap("passwd.byname"));
    EXPECT_TRUE(passwd->neverDownloadMapFromAD("passwd.byuid"));
    EXPECT_TRUE(passwd->neverDownloadMapFromAD("passwd.byname"));
    EXPECT_FALSE(passwd->neverDownloadMapFromAD("passwd"));
    EXPECT_FALSE(passwd->canServeToClients());
    const auto group = make<nis::GroupMap>("group");
    EXPECT_STREQ(group->type_name(), "GroupMap");
    EXPECT_TRUE(group->mustCacheThisMap("group"));
    EXPECT_TRUE(group->neverDownloadMapFromAD("group.bygid"));
    EXPECT_EQ(group->getDerivedMaps().front()->getName(), "group.bygid");
    EXPECT_EQ(nis::IntrinsicADNisMap::getIntrinsicNames(),
              (std::vector<std::string>{"passwd", "group"}));
}

TEST_F(AccountMapsTest, LogOfALoad) {
    m_quorad.set([](auto& state) { state.users = {"ines", "tomas"}; });
    const auto map = make<nis::PasswdMap>("passwd");
    const std::string log = logOf([&] { map->initialize(1); });
    for (const char* part : {"Beginning load for map 'passwd', server .GLOBAL",
                             "Complete downloading map entries from nextUser() passwd",
                             "Load complete for map 'passwd', server .GLOBAL. 2 new records"}) {
        EXPECT_NE(log.find(part), std::string::npos) << part << " in " << log;
    }
    EXPECT_EQ(walk(*map).size(), 2U);
}

TEST_F(AccountMapsTest, BrokenEnumerationReplacesNothing) {
    m_quorad.set([](auto& state) { state.users = {"ines", "tomas"}; });
    const auto map = make<nis::PasswdMap>("passwd");
    map->initialize(1);
    const auto before = walk(*map);
    m_quorad.set([](auto& state) {
        state.users = {"other"};
        state.usersBreak = true;
    });
    const std::string log = logOf([&] { EXPECT_THROW(map->update(1), tessa::IPCException); });
    EXPECT_NE(log.find("catch incomplete map when download passwd"), std::string::npos);
    EXPECT_EQ(walk(*map), before);
    EXPECT_EQ(map->getOrder(), 1U);
    m_quorad.set([](auto& state) {
        state.users = {"ines", "tomas"};
        state.usersBreak = false;
    });
    map->update(1);
    EXPECT_EQ(map->getOrder(), 1U);
}

TEST_F(AccountMapsTest, NamesThatAreNoNamesAreLeftOut) {
    m_quorad.set([](auto& state) {
        state.users = {"ines", "bad:0:0", "", "a\nb"};
        state.groups = {"staff", "bad:0"};
    });
    const auto passwd = make<nis::PasswdMap>("passwd");
    const std::string log = logOf([&] { passwd->initialize(1); });
    EXPECT_NE(log.find("User 'bad:0:0' (uid 0) is left out: not a usable name"), std::string::npos);
    EXPECT_EQ(walk(*passwd).size(), 1U);
    const auto group = make<nis::GroupMap>("group");
    group->initialize(1);
    EXPECT_EQ(walk(*group), (Entries{{"staff", "staff:x:7:member"}}));
}

class AccountsWithQuoradTest : public test::RealDirectoryFixture {
protected:
    AccountsWithQuoradTest() : RealDirectoryFixture(ldif()) {}

    static std::string ldif(const std::string& more = "") {
        return TestDirectory::base() +
               TestDirectory::user("ines", 1001, 50,
                                   "unixUserPassword: $6$a$b\nuserAccountControl: 512\n") +
               TestDirectory::user("locked", 1002, 50,
                                   "unixUserPassword: $6$a$b\nuserAccountControl: 514\n") +
               TestDirectory::user("twin", 1001, 50) +
               TestDirectory::group("staff", 60, {"ines", "locked"}) +
               TestDirectory::group("empty", 61, {}) + more;
    }
};

TEST_F(AccountsWithQuoradTest, UsersAndGroups) {
    const auto passwd = boost::make_shared<nis::PasswdMap>(makeCache("passwd", ".GLOBAL"));
    passwd->initialize(1);
    EXPECT_EQ(walk(*passwd),
              (Entries{{"ines", "ines:$6$a$b:1001:50:User ines:/home/ines:/bin/bash"},
                       {"locked", "locked:!!:1002:50:User locked:/home/locked:/bin/bash"},
                       {"twin", "twin:!:1001:50:User twin:/home/twin:/bin/bash"}}));
    const auto byUid = passwd->getDerivedMaps().front();
    EXPECT_EQ(byUid->getName(), "passwd.byuid");
    EXPECT_EQ(byUid->match("1002"), walk(*passwd)["locked"]);
    EXPECT_EQ(byUid->match("1001"), walk(*passwd)["twin"]) << "the one added last";
    const auto group = boost::make_shared<nis::GroupMap>(makeCache("group", ".GLOBAL"));
    group->initialize(1);
    EXPECT_EQ(walk(*group),
              (Entries{{"staff", "staff:x:60:ines,locked"}, {"empty", "empty:x:61:"}}));
    EXPECT_EQ(group->matchByID("60"), "staff:x:60:ines,locked");
}

TEST_F(AccountsWithQuoradTest, OrderMovesOnlyWithTheData) {
    const auto passwd = boost::make_shared<nis::PasswdMap>(makeCache("passwd", ".GLOBAL"));
    passwd->initialize(1);
    passwd->update(1);
    passwd->rebuild(1);
    EXPECT_EQ(passwd->getOrder(), 1U);
    m_quorad.replace(ldif(TestDirectory::user("new", 1003, 50)));
    passwd->update(1);
    EXPECT_EQ(passwd->getOrder(), 2U);
    EXPECT_EQ(walk(*passwd).size(), 4U);
}

TEST_F(AccountsWithQuoradTest, LargeGroupIsSplit) {
    std::string users;
    std::vector<std::string> members;
    for (int i = 100; i < 300; ++i) {
        members.push_back("member" + std::to_string(i));
        users += TestDirectory::user(members.back(), 2000U + static_cast<unsigned>(i), 50);
    }
    m_quorad.replace(ldif(users + TestDirectory::group("large", 70, members)));
    const auto group = boost::make_shared<nis::GroupMap>(makeCache("group", ".GLOBAL"));
    group->initialize(1);
    EXPECT_TRUE(group->matchByID("70").starts_with("large:x:70:member100,"));
    EXPECT_TRUE(group->match("large_1").starts_with("large_1:x:70:member"));
    EXPECT_EQ(refusal<nis::UnknownKey>([&] { group->match("large_2"); }), "large_2");
    std::size_t commas = 0;
    for (const char* name : {"large", "large_1"}) {
        const std::string line = group->match(name);
        EXPECT_LE(line.size(), 1024U);
        commas += static_cast<std::size_t>(std::count(line.begin(), line.end(), ',')) + 1;
    }
    EXPECT_EQ(commas, members.size());
}

} // namespace
