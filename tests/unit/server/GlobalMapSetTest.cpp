// The maps of users and groups.
#include "server/GlobalMapSet.h"

#include "unit/server/ServerFixture.h"

namespace {

using T = test::TestDirectory;
using Names = std::vector<std::string>;

class GlobalMapSetTest : public test::DirectoryFixture {
protected:
    std::string update(bool rebuild = false, bool refresh = true) {
        return logOf([&] { m_set->update(rebuild, refresh); });
    }
    Names list() const { return *m_set->getMapList(); }

    boost::shared_ptr<nis::GlobalMapSet> m_set = boost::make_shared<nis::GlobalMapSet>(DOMAIN);
    const Names m_all{"group.bygid", "group.byname", "passwd.byname", "passwd.byuid"};
};

TEST_F(GlobalMapSetTest, UsersComeBeforeGroups) {
    startDirectory(company());
    const std::string log = update();
    EXPECT_EQ(list(), m_all);
    const auto passwd = log.find("New map 'passwd' scheduled for creation");
    const auto group = log.find("New map 'group' scheduled for creation");
    ASSERT_NE(passwd, std::string::npos);
    EXPECT_GT(group, passwd);
    EXPECT_GT(log.find("Beginning load for map 'group'"),
              log.find("Beginning load for map 'passwd'"));
    EXPECT_EQ(files(":.GLOBAL.map").size() + files(":.GLOBAL.1.map").size(), 2U);
}

TEST_F(GlobalMapSetTest, NothingChangesWhileTheDirectoryDoesNot) {
    startDirectory(company());
    update();
    const auto order = m_set->getOrder("passwd.byname");
    for (const bool rebuild : {false, true}) {
        EXPECT_TRUE(has(update(rebuild), "Data has not changed for map 'passwd', server .GLOBAL"));
    }
    EXPECT_EQ(m_set->getOrder("passwd.byname"), order);
    m_directory->replace(company() + T::user("bob", 1001, 100));
    EXPECT_FALSE(has(update(false, false), "Beginning load")) << "not due";
    update();
    EXPECT_EQ(m_set->getOrder("passwd.byname"), order + 1);
    EXPECT_TRUE(has(m_set->match("passwd.byuid", "1001").value, "bob:"));
}

TEST_F(GlobalMapSetTest, ExcludedMapsAreNotMade) {
    configure({{"nisd.exclude.maps", "group"}});
    startDirectory(company());
    EXPECT_TRUE(has(update(), "Ignoring map 'group' (as configured)"));
    EXPECT_EQ(list(), (Names{"passwd.byname", "passwd.byuid"}));
}

TEST_F(GlobalMapSetTest, AMapOfWhichNothingIsPermittedAnyMoreIsDeleted) {
    startDirectory(company());
    update();
    configure({{"nisd.exclude.maps", "group group.byname group.bygid passwd"}});
    update();
    EXPECT_EQ(files("group:.GLOBAL.map").size() + files("group:.GLOBAL.1.map").size(), 0U);
    EXPECT_TRUE(has(m_set->match("passwd.byname", "ann").value, "ann:")) << "kept for its maps";
}

TEST_F(GlobalMapSetTest, AFailedFirstReadLeavesNothingBehind) {
    startDirectory(company());
    m_directory->stop();
    EXPECT_THROW(m_set->update(false, true), tessa::TESSAException);
    EXPECT_TRUE(list().empty());
    EXPECT_TRUE(files(".map").empty());
    EXPECT_TRUE(files(".temp").empty());
    m_directory->start();
    update();
    EXPECT_EQ(list(), m_all);
}

TEST_F(GlobalMapSetTest, AFailedReadKeepsTheOldMaps) {
    startDirectory(company());
    update();
    m_directory->stop();
    EXPECT_THROW(m_set->update(true, true), tessa::TESSAException);
    EXPECT_EQ(list(), m_all);
    EXPECT_TRUE(has(m_set->match("passwd.byname", "ann").value, "ann:"));
}

TEST_F(GlobalMapSetTest, TheMapsAreFoundAgainAtTheNextStart) {
    startDirectory(company());
    update();
    m_set.reset();
    m_directory->stop();
    const auto server = makeServer();
    EXPECT_EQ(mapList(*server), m_all);
    EXPECT_TRUE(has(server->match(DOMAIN, "passwd.byname", "ann").value, "ann:"));
}

} // namespace
