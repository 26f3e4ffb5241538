// What a server makes of the files that it finds at its start.
#include "support/Damage.h"
#include "unit/server/ServerFixture.h"

#include <csignal>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using nis::ADNisServer;
using Names = std::vector<std::string>;

class CacheDiscoveryTest : public test::ServerFixture {
protected:
    /// Starts a server; what it logged is in m_log.
    std::unique_ptr<ADNisServer> start(bool flush = false) {
        std::unique_ptr<ADNisServer> server;
        m_log = logOf([&] { server = std::make_unique<ADNisServer>(DOMAIN, flush); });
        return server;
    }
    bool logged(const std::string& text) const { return has(m_log, text); }
    /// Has a server write snapshots of these maps, and ends it.
    static void leaveSnapshots(const Names& maps) {
        const ADNisServer server(DOMAIN, false);
        for (const std::string& map : maps) {
            server.getAll(DOMAIN, map.c_str());
        }
    }

    std::string m_log;
};

TEST_F(CacheDiscoveryTest, AnEmptyFolderYieldsNoMaps) {
    const auto server = start();
    EXPECT_TRUE(mapList(*server).empty());
    EXPECT_EQ(refusal<nis::UnknownMap>([&] { server->getFirst(DOMAIN, "hosts"); }),
              "No maps present");
}

TEST_F(CacheDiscoveryTest, MapsOfBothKindsAreServedAtOnce) {
    save({"hosts", "dc1", {{"a", "10.0.0.1 a"}}});
    save({"auto.home", "dc1", {{"ann", "srv:/home/ann"}}});
    saveGlobal("passwd", {{"ann", "ann:x:1:1::/:/bin/sh"}});
    const auto server = start();
    EXPECT_EQ(mapList(*server), (Names{"auto.home", "hosts", "hosts.byaddr", "hosts.byname",
                                       "passwd.byname", "passwd.byuid"}));
    EXPECT_EQ(server->match(DOMAIN, "hosts.byname", "a").value, "10.0.0.1 a");
    EXPECT_EQ(server->match(DOMAIN, "passwd.byname", "ann").value, "ann:x:1:1::/:/bin/sh");
    EXPECT_THROW(server->match(DOMAIN, "passwd", "ann"), nis::UnknownMap)
        << "clients reach it through its derived maps";
}

TEST_F(CacheDiscoveryTest, ARestartKeepsMapsAndSnapshots) {
    save({"plain", "dc1", {{"a", "1"}}});
    leaveSnapshots({"plain"});
    const Names snapshots = files(".snap");
    ASSERT_EQ(snapshots.size(), 1U);
    {
        const auto server = start();
        EXPECT_TRUE(logged("Map plain attaches snapshot '" + snapshots[0] + "'"));
        EXPECT_EQ(transferOf(*server, "plain"), (test::Entries{{"a", "1"}}));
        EXPECT_EQ(files(".snap"), snapshots);
    }
    EXPECT_EQ(files(".snap"), snapshots);
    EXPECT_EQ(files(".map").size(), 1U);
}

TEST_F(CacheDiscoveryTest, ACacheOfAnotherDomainIsDeleted) {
    test::ServerFixture::Saved saved{"plain"};
    saved.domain = "other";
    const std::string file = save(saved);
    const auto server = start();
    EXPECT_TRUE(mapList(*server).empty());
    EXPECT_FALSE(exists(file));
    EXPECT_TRUE(logged("Discarding cache " + file + ": wrong domain"));
}

TEST_F(CacheDiscoveryTest, ACacheWhoseFirstFillingWasCutShortIsDeleted) {
    test::ServerFixture::Saved saved{"plain"};
    saved.usn = 0;
    const std::string file = save(saved);
    const auto server = start();
    EXPECT_TRUE(mapList(*server).empty());
    EXPECT_FALSE(exists(file));
    EXPECT_TRUE(logged("Discarding cache " + file + ": initialization incomplete"));
}

TEST_F(CacheDiscoveryTest, ACacheThatIsNotPermittedIsDeleted) {
    const std::string excluded = save({"auto.home"});
    const std::string permitted = save({"auto.data"});
    configure({{"nisd.exclude.maps", "auto.home"}});
    const auto server = start();
    EXPECT_EQ(mapList(*server), Names{"auto.data"});
    EXPECT_FALSE(exists(excluded));
    EXPECT_TRUE(exists(permitted));
    EXPECT_TRUE(logged("Discarding cache " + excluded + ": map not permitted by configuration"));
}

TEST_F(CacheDiscoveryTest, OnlyPermittedMapsAreServed) {
    save({"hosts", "dc1", {{"a", "10.0.0.1 a"}}});
    const std::string other = save({"plain"});
    configure({{"nisd.maps", "hosts, hosts.byaddr"}});
    const auto server = start();
    EXPECT_EQ(mapList(*server), (Names{"hosts", "hosts.byaddr"}));
    EXPECT_FALSE(exists(other));
}

TEST_F(CacheDiscoveryTest, TheNetgroupsAreCachedForTheirInversionsAlone) {
    save({"netgroup", "dc1", {{"g", "(h,u,d)"}}});
    configure({{"nisd.maps", "netgroup.byuser"}});
    const auto server = start();
    EXPECT_EQ(mapList(*server), Names{"netgroup.byuser"});
    EXPECT_EQ(server->match(DOMAIN, "netgroup.byuser", "u.d").value, "g");
}

TEST_F(CacheDiscoveryTest, FlushRemovesCachesAndSnapshots) {
    save({"plain"});
    save({"hosts", "dc2"});
    saveGlobal("passwd", {{"ann", "ann"}});
    leaveSnapshots({"plain"});
    const std::string snapshot = files(".snap").at(0);
    const auto server = start(true);
    EXPECT_TRUE(mapList(*server).empty());
    EXPECT_TRUE(std::filesystem::is_empty("."));
    EXPECT_TRUE(logged("Discarding cache dom:plain:dc1.map\n"));
    EXPECT_TRUE(logged("Discarding snapshot " + snapshot));
}

TEST_F(CacheDiscoveryTest, DirectoriesStay) {
    std::filesystem::create_directory("folder");
    std::filesystem::create_directory("folder.map");
    std::filesystem::create_directory("folder.snap");
    test::writeFile("folder/file", "x");
    const auto server = start();
    EXPECT_TRUE(exists("folder/file"));
    EXPECT_TRUE(exists("folder.map"));
    EXPECT_TRUE(exists("folder.snap"));
    EXPECT_TRUE(logged("Unexpected directory 'folder'. Ignoring."));
    EXPECT_TRUE(logged("Unexpected directory 'folder.map'. Ignoring."));
}

TEST_F(CacheDiscoveryTest, WhatIsNoFileIsDeletedAndNotWhatItNames) {
    const std::string outside = m_folder.path().string() + ".outside";
    test::writeFile(outside, "precious");
    ASSERT_EQ(symlink(outside.c_str(), "link.map"), 0);
    ASSERT_EQ(symlink("/tmp", "folder-link"), 0);
    ASSERT_EQ(symlink("nowhere", "dangling.snap"), 0);
    ASSERT_EQ(mkfifo("fifo.map", 0600), 0);
    Names names{"link.map", "folder-link", "dangling.snap", "fifo.map"};
    if (mknod("null", S_IFCHR | 0600, 0x103) == 0) { // not every container may
        names.push_back("null");
    }
    const int socketFile = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{AF_UNIX, "socket"};
    ASSERT_EQ(bind(socketFile, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    close(socketFile);
    names.push_back("socket");
    const auto server = start();
    for (const std::string& name : names) {
        EXPECT_FALSE(std::filesystem::is_symlink(name) || exists(name)) << name;
        EXPECT_TRUE(logged("Deleting unexpected non-file entry '" + name + "'.")) << name;
    }
    EXPECT_EQ(test::readFile(outside), "precious");
    std::filesystem::remove(outside);
}

TEST_F(CacheDiscoveryTest, UnknownFilesAreDeleted) {
    const Names names{"readme",     "dom:passwd:.GLOBAL.map.temp",
                      ".hidden",    "x.map~",
                      "x.map-jour", "gone.map-journal",
                      "core"};
    for (const std::string& name : names) {
        test::writeFile(name, "x");
    }
    const auto server = start();
    for (const std::string& name : names) {
        EXPECT_FALSE(exists(name)) << name;
        EXPECT_TRUE(logged("Deleting unknown file '" + name + "'.")) << name;
    }
}

TEST_F(CacheDiscoveryTest, FilesThatAreNoCachesOrSnapshotsAreDeleted) {
    for (const char* name : {"noise.map", "noise.snap"}) {
        test::writeFile(name, "this is neither a cache nor a snapshot");
    }
    test::writeFile("empty.map", "");
    test::writeFile("empty.snap", "");
    test::writeFile("noise.map-journal", "");
    save({"plain"});
    const auto server = start();
    EXPECT_EQ(mapList(*server), Names{"plain"});
    EXPECT_TRUE(logged("While opening cache file 'noise.map': Bad Cache File:"));
    EXPECT_TRUE(logged("While opening snapshot file 'noise.snap': Bad Snapshot File:"));
    EXPECT_TRUE(logged("While opening snapshot file 'empty.snap': "));
    for (const char* name :
         {"noise.map", "noise.map-journal", "noise.snap", "empty.map", "empty.snap"}) {
        EXPECT_FALSE(exists(name)) << name;
    }
}

TEST_F(CacheDiscoveryTest, AJournalBelongsToItsCache) {
    const std::string file = save({"plain"});
    test::writeFile(file + "-journal", "");
    const auto server = start();
    EXPECT_EQ(server->match(DOMAIN, "plain", "key").value, "value");
    EXPECT_FALSE(logged("Deleting unknown file"));
    EXPECT_FALSE(logged("Cannot stat"));
}

TEST_F(CacheDiscoveryTest, AProcessKilledWhileItWroteLeavesTheMapAsItWas) {
    const std::string file = save({"plain", "dc1", {{"a", "1"}}});
    const pid_t child = fork();
    if (child == 0) {
        nis::NisCache cache(file);
        nis::NisCache::Batch batch(cache);
        for (int i = 0; i < 20000; ++i) { // more than the page cache holds, so the file changes
            cache.put("new" + std::to_string(i), std::string(200, 'x'), 0);
        }
        kill(getpid(), SIGKILL);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status));
    const auto server = start();
    EXPECT_EQ(transferOf(*server, "plain"), (test::Entries{{"a", "1"}}));
}

TEST_F(CacheDiscoveryTest, DamageNeverStopsTheStartNorIsServed) {
    test::Entries entries;
    for (int i = 0; i < 300; ++i) {
        entries["key" + std::to_string(i)] = "value" + std::to_string(i);
    }
    const std::string file = save({"plain", "dc1", entries});
    const std::string sound = test::readFile(file);
    int served = 0;
    for (unsigned number = 0; number < 60; ++number) {
        test::writeFile(file, test::damaged(sound, number));
        auto server = start();
        if (!mapList(*server).empty()) {
            ++served;
            EXPECT_EQ(transferOf(*server, "plain"), entries) << number;
        } else {
            EXPECT_FALSE(exists(file)) << number;
            EXPECT_TRUE(logged("While opening cache file '" + file + "'")) << m_log;
        }
        server.reset();
        for (const std::string& name : files("")) {
            std::filesystem::remove(name);
        }
    }
    EXPECT_LT(served, 60);
}

TEST_F(CacheDiscoveryTest, SnapshotsThatFitNoMapAreDeleted) {
    save({"plain"});
    save({"older", "dc1", {{"a", "1"}}});
    leaveSnapshots({"plain", "older"});
    const std::string plain = "dom:plain:dc1:1.snap";
    ASSERT_TRUE(exists(plain));
    const std::string bytes = test::readFile(plain);
    const auto copyAs = [&bytes](const std::string& name, const std::string& from,
                                 const std::string& to) {
        std::string changed = bytes;
        changed.replace(changed.find(from), from.size(), to);
        test::writeFile(name, changed);
    };
    copyAs("domain.snap", "dom", "mod");
    copyAs("map.snap", "plain", "plane");
    copyAs("server.snap", "dc1", "dc9");
    {
        nis::NisCache cache("dom:older:dc1.map");
        cache.put("b", "2", 0); // its order moves on
    }
    const auto server = start();
    EXPECT_TRUE(logged("MapSetMananger rejects snapshot 'domain.snap' from domain mod"));
    EXPECT_TRUE(logged("Unknown map snapshot 'map.snap' from server dc1"));
    EXPECT_TRUE(logged("Discarding cache snapshot for unknown map plane"));
    EXPECT_TRUE(logged("Map older rejects snapshot 'dom:older:dc1:1.snap'"));
    EXPECT_EQ(files(".snap"), Names{plain});
    EXPECT_EQ(transferOf(*server, "older").size(), 2U);
}

TEST_F(CacheDiscoveryTest, CachesOfOneHierarchyAreServedWhenTheDirectoryIsSilent) {
    for (int i = 0; i < 4; ++i) {
        test::ServerFixture::Saved saved{"map" + std::to_string(i)};
        saved.hierarchy = i % 2 == 0 ? "CN=a,DC=x" : "CN=b,DC=x";
        save(saved);
    }
    saveGlobal("passwd", {{"ann", "ann"}});
    const auto server = start();
    const Names names = mapList(*server);
    const bool even = std::count(names.begin(), names.end(), "map0") != 0;
    EXPECT_EQ(names, (even ? Names{"map0", "map2", "passwd.byname", "passwd.byuid"}
                           : Names{"map1", "map3", "passwd.byname", "passwd.byuid"}));
    EXPECT_EQ(files(".map").size(), 3U);
}

TEST_F(CacheDiscoveryTest, OfTwoCachesOfOneMapTheNewerIsKept) {
    const auto saveTwin = [](long updated, const test::Entries& entries) {
        test::ServerFixture::Saved saved{"plain", "dc1", entries};
        saved.updated = updated;
        return save(saved);
    };
    const std::string older = saveTwin(1000, {{"old", "1"}});
    const std::string newer = saveTwin(2000, {{"new", "1"}});
    ASSERT_NE(older, newer);
    {
        const auto server = start();
        EXPECT_EQ(transferOf(*server, "plain"), (test::Entries{{"new", "1"}}));
        EXPECT_FALSE(exists(older));
        EXPECT_TRUE(exists(newer));
        EXPECT_TRUE(logged("Discarding cache " + older + ": there is a newer one"));
    }
    // The same again with the newer one met first under the first name, decided by the order.
    saveTwin(2000, {{"more", "1"}, {"changes", "2"}});
    const auto server = start();
    EXPECT_EQ(transferOf(*server, "plain").size(), 2U);
    EXPECT_EQ(files(".map").size(), 1U);
}

TEST_F(CacheDiscoveryTest, AGlobalCacheOfNoIntrinsicMapIsDeleted) {
    saveGlobal("shadow", {{"ann", "secret"}});
    const auto server = start();
    EXPECT_TRUE(mapList(*server).empty());
    EXPECT_TRUE(files(".map").empty());
}

TEST_F(CacheDiscoveryTest, AFolderThatCannotBeReadStopsTheStart) {
    constexpr uid_t NOBODY = 65534;
    ASSERT_EQ(seteuid(NOBODY), 0);
    const std::string text =
        refusal<tessa::NotFoundException>([] { const ADNisServer server(DOMAIN, false); });
    ASSERT_EQ(seteuid(0), 0);
    EXPECT_EQ(text, "Permission denied");
}

} // namespace
