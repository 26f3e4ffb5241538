#include "LdifFixture.h"

#include <karst/Int64.h>

#include <gmock/gmock.h>

#include <atomic>
#include <thread>

#include <sys/stat.h>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::UnorderedElementsAre;

class LdifDirectory : public test::LdifFixture {};

using test::BASE;
using test::MAP;

TEST_F(LdifDirectory, fetchesByNameWhateverItsSpelling) {
    entry("bollard", "bollard", "10.20.0.5 bollard");
    load();
    const auto object = fetch("cn = BOLLARD , cn=HOSTS,CN=nismaps,CN=zoneA,CN=Zones," + BASE);
    EXPECT_EQ(object["_dn"].asString(), entryName("bollard"));
    EXPECT_EQ(object["_server"].asString(), "dc1.example.com");
    EXPECT_EQ(object["cn"].asString(), "bollard") << "taken from the name";
    EXPECT_EQ(object["DESCRIPTION"].asString(), "bollard");
    EXPECT_EQ(object.guid().size(), 16U);
    EXPECT_GT(object["uSNChanged"].asInt64(), tessa::Int64(0));
}

TEST_F(LdifDirectory, deliversTheAttributesAskedFor) {
    entry("a", "k", "v", "info: more\n");
    load();
    const auto some = directory->fetch("", entryName("a"), {"DESCRIPTION", "none"}, false);
    EXPECT_EQ(some["description"].asString(), "k");
    EXPECT_FALSE(some.attributeExists("adminDescription", false));
    EXPECT_FALSE(some.attributeExists("uSNChanged", false));
    EXPECT_TRUE(some.attributeExists("objectGUID", true));
    EXPECT_TRUE(some.attributeExists("_dn", true));
    EXPECT_TRUE(some.attributeExists("_server", true));
    EXPECT_TRUE(directory->fetch("", entryName("a"), {"uSNChanged"}, false)
                    .attributeExists("uSNChanged", true));
    for (const auto& names : {std::vector<std::string>{}, std::vector<std::string>{"*"}}) {
        EXPECT_EQ(directory->fetch("", entryName("a"), names, false)["info"].asString(), "more");
    }
    EXPECT_EQ(directory->fetch("", entryName("a"), {"cn"}, true)["info"].asString(), "more");
}

TEST_F(LdifDirectory, fetchesByGuid) {
    entry("a", "k", "v");
    load();
    const std::string name = tessa::Guid::fromBytes(guidOf(entryName("a"))).toDN();
    EXPECT_EQ(fetch(name)["description"].asString(), "k");
    EXPECT_THROW(fetch(tessa::Guid::random().toDN()), tessa::NotFoundException);
    EXPECT_THROW(fetch("<GUID=nonsense>"), tessa::BadDataException);
    EXPECT_THROW(fetch("<GUID="), tessa::BadDataException);
    EXPECT_EQ(search("(objectClass=*)", "<GUID=" + name.substr(6)).size(), 0U);
}

TEST_F(LdifDirectory, rootObject) {
    load();
    const auto root = directory->fetch("example.com", "", {"highestCommittedUSN"}, false);
    EXPECT_EQ(root["_server"].asString(), "dc1.example.com");
    EXPECT_EQ(root["dnsHostName"].asString(), "dc1.example.com");
    EXPECT_EQ(root["highestCommittedUSN"].asInt64(), tessa::Int64(usnOf(MAP)))
        << "the last object of the file has the highest number";
}

TEST_F(LdifDirectory, serverNameWithoutRootRecord) {
    writeFile("dn: " + BASE + "\nobjectClass: domainDNS\n");
    open();
    directory->maintain();
    EXPECT_EQ(fetch(BASE)["_server"].asString(), "ldif");
    EXPECT_EQ(directory->fetch("", "", {}, true)["_server"].asString(), "ldif");
}

TEST_F(LdifDirectory, namesThatAreNoneAndObjectsThatAreNone) {
    load();
    EXPECT_THROW(fetch("no name"), tessa::BadDataException);
    EXPECT_THROW(fetch("CN=a,,DC=b"), tessa::BadDataException);
    EXPECT_THROW(fetch("CN=gone," + BASE), tessa::NotFoundException);
    EXPECT_THROW(fetch("DC=com"), tessa::NotFoundException) << "part of a name only";
    EXPECT_THROW(search("(cn=*)", "CN=gone," + BASE), tessa::NotFoundException);
    EXPECT_THROW(search("(cn=*)", "DC=com"), tessa::NotFoundException);
    EXPECT_THROW(search("(cn=*", MAP), tessa::BadDataException);
    EXPECT_THROW(search("(cn=*)", ""), tessa::BadDataException);
}

TEST_F(LdifDirectory, domains) {
    load();
    for (const char* domain :
         {"example.com", "EXAMPLE.com", "", "dc1.example.com", "sub.example.com", "com"}) {
        EXPECT_NO_THROW(directory->fetch(domain, MAP, {}, false)) << domain;
    }
    for (const char* domain : {"example.org", "xample.com", "notexample.com", "example"}) {
        try {
            directory->fetch(domain, MAP, {}, false);
            ADD_FAILURE() << domain;
        } catch (const tessa::IPCException& e) {
            EXPECT_EQ(std::string(e.what()), std::string("no server for domain ") + domain);
        }
    }
}

TEST_F(LdifDirectory, oneLevelSearch) {
    entry("a", "ka", "va");
    entry("b", "kb", "vb");
    put("CN=below,CN=a," + MAP, "objectClass: container\n");
    load();
    EXPECT_THAT(names(search("(objectClass=*)")), ElementsAre("a", "b"));
    EXPECT_THAT(names(search("(description=KB)")), ElementsAre("b"));
    EXPECT_THAT(names(search("(|(cn=a)(adminDescription=vb))")), ElementsAre("a", "b"));
    EXPECT_THAT(names(search("(description=*)", MAP, tessa::SCOPE_ONE_LEVEL, 1)),
                ElementsAre("a", "b"));
}

TEST_F(LdifDirectory, otherScopes) {
    entry("a", "ka", "va");
    put("CN=below,CN=a," + MAP, "objectClass: container\n");
    put("CN=hosts2,CN=nismaps,CN=zoneA,CN=Zones," + BASE, "objectClass: container\n");
    load();
    EXPECT_THAT(names(search("(objectClass=*)", MAP, tessa::SCOPE_BASE)), ElementsAre("hosts"));
    EXPECT_TRUE(search("(cn=a)", MAP, tessa::SCOPE_BASE).empty());
    EXPECT_TRUE(search("(usnchanged<=5)", MAP, tessa::SCOPE_BASE).empty());
    EXPECT_THAT(names(search("(objectClass=*)", MAP, tessa::SCOPE_SUBTREE)),
                UnorderedElementsAre("hosts", "a", "below"));
    EXPECT_EQ(search("(objectClass=*)", BASE, tessa::SCOPE_SUBTREE, 1).size(), 8U);
    EXPECT_THAT(names(search("(&(usnchanged>=" + std::to_string(usnOf(entryName("a"))) + ")(cn=*))",
                             BASE, tessa::SCOPE_SUBTREE)),
                UnorderedElementsAre("a", "below", "hosts2"));
}

TEST_F(LdifDirectory, sizeLimit) {
    for (int i = 0; i < 10; ++i) {
        entry("e" + std::to_string(i), "k", "v");
    }
    load();
    EXPECT_EQ(search("(cn=*)", MAP, tessa::SCOPE_ONE_LEVEL, 3, 7).size(), 7U);
    EXPECT_EQ(search("(cn=*)", MAP, tessa::SCOPE_SUBTREE, 100, 7).size(), 7U);
    EXPECT_EQ(search("(cn=*)", MAP, tessa::SCOPE_ONE_LEVEL, 3, 70).size(), 10U);
}

TEST_F(LdifDirectory, valuesOfAnyBytes) {
    put(entryName("odd"), "objectClass: container\ndescription:: AAEC/w==\n"
                          "adminDescription: \xc3\xa4\ndescription: z\n");
    put("CN=a\\,b\\2Bc\\20," + MAP, "objectClass: container\n");
    load();
    const auto object = fetch(entryName("odd"));
    EXPECT_THAT(object["description"].values(), ElementsAre(std::string("\0\x01\x02\xff", 4), "z"));
    EXPECT_EQ(object["adminDescription"].asString(), "\xc3\xa4");
    EXPECT_EQ(fetch("cn=A\\,b\\+C\\ ," + MAP)["cn"].asString(), "a,b+c ");
}

TEST_F(LdifDirectory, piecesOfLongAttributesAreJoined) {
    put("CN=g," + BASE, "objectClass: group\nmember;range=0-1: CN=a\nmember;range=2-*: CN=b\n");
    load();
    EXPECT_THAT(fetch("CN=g," + BASE)["member"].values(), ElementsAre("CN=a", "CN=b"));
}

TEST_F(LdifDirectory, orderOfAttributesAndValuesIsNoChange) {
    put(entryName("a"), "objectClass: top\nobjectClass: container\ndescription: k\n");
    load();
    const auto usn = highUsn();
    put(entryName("a"), "description: k\nobjectClass: container\nobjectClass: top\n"
                        "objectClass: top\n");
    load();
    EXPECT_EQ(highUsn(), usn);
}

TEST_F(LdifDirectory, childrenMayComeBeforeTheirParents) {
    entry("a", "k", "v");
    std::reverse(records.begin(), records.end());
    load();
    EXPECT_THAT(names(search("(objectClass=*)")), ElementsAre("a"));
    EXPECT_TRUE(exists(BASE));
}

TEST_F(LdifDirectory, aMissingParentIsReportedOnce) {
    put("CN=lost,CN=nowhere," + BASE, "objectClass: container\n");
    EXPECT_THAT(logOf([&] { load(); }), HasSubstr("CN=lost,CN=nowhere"));
    entry("new", "k", "v");
    EXPECT_THAT(logOf([&] { load(); }), Not(HasSubstr("CN=lost")));
}

TEST_F(LdifDirectory, indexIsPrivate) {
    load();
    for (const char* suffix : {"", "-wal", "-shm"}) {
        struct stat status {};
        ASSERT_EQ(::stat((index() + suffix).c_str(), &status), 0) << suffix;
        EXPECT_EQ(status.st_mode & 0777U, 0600U) << suffix;
    }
}

TEST_F(LdifDirectory, twentyThousandEntriesInPagesOfAnySize) {
    for (int i = 0; i < 20'000; ++i) {
        records.emplace_back(entryName("e" + std::to_string(i)),
                             "objectClass: container\ndescription: k" + std::to_string(i) +
                                 "\nadminDescription: value " + std::to_string(i) + "\n");
    }
    load();
    const auto high = highUsn();
    for (const std::size_t page : {std::size_t{1}, std::size_t{999}, std::size_t{50'000}}) {
        std::set<std::string> keys;
        const auto objects =
            search("(usnchanged<=" + std::to_string(high) + ")", MAP, tessa::SCOPE_ONE_LEVEL, page);
        EXPECT_EQ(objects.size(), 20'000U);
        for (const auto& object : objects) {
            keys.insert(object["description"]);
        }
        EXPECT_EQ(keys.size(), 20'000U);
    }
    EXPECT_EQ(range(high - 10, high).size(), 10U);
}

// Changes between two pages: what was there all the time comes exactly once, and what has changed
// comes with the next refresh.
TEST_F(LdifDirectory, changesDuringAWalk) {
    for (int i = 0; i < 100; ++i) {
        entry("e" + std::to_string(i), "k" + std::to_string(i), "v");
    }
    load();
    const auto high = highUsn();
    quorad::SearchRequest request;
    request.filter = "(usnchanged<=" + std::to_string(high) + ")";
    request.base = MAP;
    request.attributes = {"cn"};
    const auto cursor = directory->search(request);
    std::vector<tessa::ADObject> objects;
    ASSERT_TRUE(cursor->nextPage(objects, 50));
    entry("e10", "k10", "changed");
    entry("e90", "k90", "changed");
    drop(entryName("e20"));
    drop(entryName("e95"));
    entry("new", "new", "v");
    load();
    while (cursor->nextPage(objects, 50)) {
    }
    std::set<std::string> seen;
    for (const auto& object : objects) {
        EXPECT_TRUE(seen.insert(object["cn"]).second) << object["cn"].asString();
    }
    EXPECT_EQ(seen.size(), 98U) << "all but e90 and e95";
    EXPECT_EQ(seen.count("new"), 0U);
    EXPECT_THAT(names(range(high, highUsn())), UnorderedElementsAre("e10", "e90", "new",
                                                                    "\x01"
                                                                    "e20",
                                                                    "\x01"
                                                                    "e95"));
}

TEST_F(LdifDirectory, notReadYetMissingAndBack) {
    open();
    try {
        fetch(BASE);
        FAIL();
    } catch (const tessa::IPCException& e) {
        EXPECT_THAT(e.what(), HasSubstr("is missing"));
    }
    save();
    directory->maintain();
    EXPECT_TRUE(exists(BASE));
    std::filesystem::remove(file());
    const std::string log = logOf([&] {
        directory->maintain();
        directory->maintain();
    });
    EXPECT_THAT(log, HasSubstr("directory.ldif' is missing: No such file or directory"));
    EXPECT_EQ(log.find("missing"), log.rfind("missing")) << "said once";
    EXPECT_THROW(fetch(BASE), tessa::IPCException);
    EXPECT_THROW(search("(cn=*)"), tessa::IPCException);
    EXPECT_THROW(directory->users(0), tessa::IPCException);
    EXPECT_THROW(directory->groups(0), tessa::IPCException);
    EXPECT_THROW(directory->user("x"), tessa::IPCException);
    EXPECT_THROW(directory->group("x"), tessa::IPCException);
    save();
    directory->maintain();
    EXPECT_TRUE(exists(BASE));
}

TEST_F(LdifDirectory, aFileThatIsMissingIsNoticedByTheQuestionForTheHighestNumber) {
    load();
    std::filesystem::remove(file());
    EXPECT_THROW(highUsn(), tessa::IPCException);
    save();
    EXPECT_GT(highUsn(), 0);
}

TEST_F(LdifDirectory, whatIsNoFileIsLikeAMissingOne) {
    std::filesystem::create_directory(file());
    open();
    directory->maintain();
    EXPECT_THROW(fetch(BASE), tessa::IPCException);
    std::filesystem::remove(file());
    ASSERT_EQ(::mkfifo(file().c_str(), 0600), 0);
    directory->maintain();
    EXPECT_THROW(fetch(BASE), tessa::IPCException);
}

TEST_F(LdifDirectory, neverReadableFileIsNoEmptyDirectory) {
    writeFile("dn: DC=example,DC=com\nno colon\n");
    open();
    const std::string log = logOf([&] {
        directory->maintain();
        directory->maintain();
    });
    EXPECT_THAT(log, HasSubstr("directory.ldif:2: no colon in 'no colon'"));
    EXPECT_EQ(log.find("no colon in"), log.rfind("no colon in")) << "said once";
    try {
        fetch(BASE);
        FAIL();
    } catch (const tessa::IPCException& e) {
        EXPECT_THAT(e.what(), HasSubstr("directory.ldif:2: no colon"));
    }
}

TEST_F(LdifDirectory, aBrokenFileKeepsTheState) {
    entry("a", "k", "v");
    load();
    const auto usn = highUsn();
    entry("b", "k2", "v");
    const std::string good = text();
    const std::string broken[] = {
        good + "\nthis is no attribute line\n",
        good + "\nobjectClass: record-without-dn\n",
        good + "\ndn: CN=x," + BASE + "\n",
        good + "\ndn: not a name\ncn: a\n",
        good + "\ndn: CN=trailing,\ncn: a\n",
        good + "\ndn: " + entryName("A") + "\nobjectClass: container\n",
        good + "\ndn:\ndnsHostName: second\n",
        good + "\ndn: CN=g," + BASE + "\nobjectGUID:: AAEC\n",
        good + "\ndn: CN=u," + BASE + "\nuSNChanged: many\n",
        good + "\ndn: CN=u," + BASE + "\nchangetype: delete\n",
        "dn:: !!!not base64\nobjectClass: top\n\n" + good,
        "",
        "# nothing\n",
        "version: 1\n",
        std::string(3000, '\0'),
    };
    for (const std::string& bad : broken) {
        writeFile(bad);
        const std::string log = logOf([&] { directory->maintain(); });
        EXPECT_THAT(log, HasSubstr("directory.ldif:")) << bad.substr(0, 50);
        EXPECT_THAT(log, HasSubstr("the directory stays as it was"));
        EXPECT_EQ(highUsn(), usn);
        EXPECT_TRUE(exists(entryName("a")));
        EXPECT_FALSE(exists(entryName("b")));
    }
    save();
    directory->maintain();
    EXPECT_TRUE(exists(entryName("b")));
    EXPECT_GT(highUsn(), usn);
}

TEST_F(LdifDirectory, aDuplicateNameIsNamedWithItsLine) {
    writeFile("dn: DC=a\ndc: a\n\ndn: CN=x,DC=a\ncn: x\n\ndn: cn=X, dc=A\ncn: x\n");
    open();
    EXPECT_THAT(logOf([&] { directory->maintain(); }),
                HasSubstr("directory.ldif:7: a second record of 'cn=X, dc=A'"));
}

TEST_F(LdifDirectory, namesOfAbsurdLengthOrDepthAreRefused) {
    std::string deep = "DC=a";
    for (int i = 0; i < 200; ++i) {
        deep.insert(0, "CN=x,");
    }
    for (const std::string& dn : {deep, "CN=" + std::string(10'000, 'x') + ",DC=a"}) {
        writeFile("dn: " + dn + "\ncn: x\n");
        open();
        directory->maintain();
        EXPECT_THROW(fetch("DC=a"), tessa::IPCException);
        EXPECT_THROW(directory->fetch("", "", {}, true), tessa::IPCException);
    }
    load();
    EXPECT_THROW(fetch(deep), tessa::BadDataException);
}

TEST_F(LdifDirectory, aFileThatGrowsInPlaceIsLeftAloneUntilItRests) {
    load();
    test::writeFile(file(), text().substr(0, text().size() / 2));
    directory->maintain(); // sees that it changes
    test::writeFile(file(), text() + "\n");
    const std::string log = logOf([&] { directory->maintain(); });
    EXPECT_EQ(log, "") << "still changing";
    entry("late", "k", "v");
    test::writeFile(file(), text());
    directory->maintain();
    EXPECT_FALSE(exists(entryName("late")));
    directory->maintain();
    EXPECT_TRUE(exists(entryName("late")));
}

TEST_F(LdifDirectory, theQuestionForTheHighestNumberSeesAReplacedFileAtOnce) {
    load();
    const auto usn = highUsn();
    entry("a", "k", "v");
    save();
    EXPECT_EQ(highUsn(), usn + 1);
    EXPECT_TRUE(exists(entryName("a")));
}

// Readers in several threads while the file changes again and again: each answer is of one state.
TEST_F(LdifDirectory, readersDuringLoads) {
    constexpr int ENTRIES = 300;
    const auto fill = [&](int generation) {
        for (int i = 0; i < ENTRIES; ++i) {
            entry("e" + std::to_string(i), "k" + std::to_string(i), std::to_string(generation));
        }
        put("CN=u,CN=Users," + BASE, "objectClass: user\nsAMAccountName: u\nuidNumber: " +
                                         std::to_string(generation) + "\ngidNumber: 1\n");
    };
    fill(0);
    load();
    std::atomic<bool> stop{false};
    std::atomic<int> answers{0};
    std::vector<std::thread> readers;
    for (int thread = 0; thread < 3; ++thread) {
        readers.emplace_back([&] {
            while (!stop) {
                const auto objects = search("(objectClass=*)", MAP, tessa::SCOPE_ONE_LEVEL, 1000);
                EXPECT_EQ(objects.size(), static_cast<std::size_t>(ENTRIES));
                std::set<std::string> generations;
                for (const auto& object : objects) {
                    generations.insert(object["adminDescription"]);
                }
                EXPECT_EQ(generations.size(), 1U);
                EXPECT_GT(highUsn(), 0);
                EXPECT_EQ(directory->user("u").name, "u");
                std::vector<tessa::UserRecord> users;
                directory->users(0)->nextPage(users, 10);
                EXPECT_EQ(users.size(), 1U);
                ++answers;
            }
        });
    }
    for (int generation = 1; generation <= 15; ++generation) {
        fill(generation);
        const int before = answers;
        load();
        // Let the readers see each state.
        while (answers < before + 3) {
            std::this_thread::yield();
        }
    }
    stop = true;
    for (auto& reader : readers) {
        reader.join();
    }
    EXPECT_EQ(directory->user("u").uid, 15U);
}

TEST_F(LdifDirectory, warningsOfAnUnchangedDirectoryAreNotRepeated) {
    put("CN=bad,CN=Users," + BASE,
        "objectClass: user\nsAMAccountName: a:b\nuidNumber: 1\ngidNumber: 1\n");
    EXPECT_THAT(logOf([&] { load(); }), HasSubstr("'CN=bad,CN=Users,DC=example,DC=com' is not "
                                                  "served as a user"));
    const std::string log = logOf([&] {
        load();
        load();
    });
    EXPECT_THAT(log, Not(HasSubstr("CN=bad")));
}

} // namespace
