// Updates that do not fit on the disk. Mounts a small one.
#include "unit/server/UpdateFixture.h"

#include <sys/mount.h>

namespace {

using T = test::TestDirectory;
using Names = std::vector<std::string>;

/// A cache folder that can be filled up.
class FullDiskTest : public test::UpdateFixture {
protected:
    void SetUp() override {
        std::filesystem::create_directory("small");
        ASSERT_EQ(mount("tmpfs", "small", "tmpfs", 0, "size=2m"), 0);
        std::filesystem::current_path("small");
    }
    void TearDown() override {
        m_server.reset();
        std::filesystem::current_path(m_folder.path());
        EXPECT_EQ(umount2("small", MNT_DETACH), 0);
    }
    /// Leaves that much room.
    static void fill(std::uintmax_t room) {
        const std::uintmax_t free = std::filesystem::space(".").available;
        std::filesystem::create_directory("ballast");
        test::writeFile("ballast/file", std::string(free - room - 4096, 'x'));
    }
    static void makeRoom() { std::filesystem::remove_all("ballast"); }
    static std::string bigMap(const std::string& name) {
        std::string ldif = T::map(name);
        for (int i = 0; i < 300; ++i) {
            const std::string key = "key" + std::to_string(i);
            ldif += T::entry(name, key, key, std::string(900, 'v'));
        }
        return ldif;
    }
};

TEST_F(FullDiskTest, AMapWithoutRoomIsLeftOutAndTheOthersAreServed) {
    configure({{"nisd.maps", "auto.big auto.home auto.last"}});
    start(company() + bigMap("auto.big") + T::map("auto.last") +
          T::entry("auto.last", "z", "z", "last"));
    fill(200000);
    const std::string log = refresh();
    EXPECT_TRUE(has(log, "Failed to initialize map 'auto.big' (disk space low?): Bad Cache File:"));
    EXPECT_EQ(list(), (Names{"auto.home", "auto.last"}));
    EXPECT_TRUE(files("auto.big:dc1.example.com.map").empty()) << "no half cache stays";
    makeRoom();
    refresh();
    EXPECT_EQ(list(), (Names{"auto.big", "auto.home", "auto.last"}));
    EXPECT_EQ(transferOf(*m_server, "auto.big").size(), 300U);
}

TEST_F(FullDiskTest, AMapThatCannotBeUpdatedKeepsItsDataAndTheOthersGoOn) {
    configure({{"nisd.maps", "auto.home auto.last"}});
    const std::string before =
        company() + T::map("auto.last") + T::entry("auto.last", "z", "z", "last");
    start(before);
    refresh();
    fill(60000);
    std::string more;
    for (int i = 0; i < 300; ++i) {
        const std::string key = "key" + std::to_string(i);
        more += T::entry("auto.home", key, key, std::string(900, 'v'));
    }
    m_directory->replace(before + more + T::entry("auto.last", "y", "y", "new"));
    const std::string log = refresh();
    EXPECT_TRUE(has(log, "Failed to update map 'auto.home' (disk space low?): "));
    EXPECT_TRUE(has(log, ". Skipping"));
    EXPECT_EQ(value("auto.home", "ann"), "srv:/home/ann");
    EXPECT_EQ(value("auto.last", "y"), "new");
    makeRoom();
    refresh();
    EXPECT_EQ(transferOf(*m_server, "auto.home").size(), 301U);
}

TEST_F(FullDiskTest, ASetThatLacksMapsDoesNotReplaceOneThatServes) {
    configure({{"nisd.maps", "auto.home auto.big"}, {"nisd.server.switch.delay", "-1"}});
    start(company() + bigMap("auto.big"));
    refresh();
    ASSERT_EQ(list(), (Names{"auto.big", "auto.home"}));
    fill(200000);
    m_directory->replace(company("dc2.example.com") + bigMap("auto.big") +
                         T::entry("auto.home", "e2", "bob", "srv:/home/bob"));
    EXPECT_THROW(m_server->update(false, true), tessa::TESSAException); // detected
    const std::string log = refresh();
    EXPECT_TRUE(has(log, "Failed to initialize map 'auto.big' (disk space low?): "));
    EXPECT_EQ(transferOf(*m_server, "auto.big").size(), 300U);
    EXPECT_EQ(value("auto.home", "bob"), "(no key)");
    makeRoom();
    refresh();
    EXPECT_EQ(transferOf(*m_server, "auto.big").size(), 300U);
    EXPECT_EQ(value("auto.home", "bob"), "srv:/home/bob");
}

} // namespace
