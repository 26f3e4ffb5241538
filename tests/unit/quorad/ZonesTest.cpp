#include "Zones.h"

#include "support/TempFolder.h"

#include <karst/Exceptions.h>
#include <karst/Guid.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <string>

#include <sys/stat.h>

namespace {

using quorad::Zones;
using testing::HasSubstr;

const std::string ZONE = "CN=zoneA,CN=corp,CN=Zones,DC=example,DC=com";
const std::string PARENT = "CN=corp,CN=Zones,DC=example,DC=com";

/// Objects by their exact names; can be away.
class FakeDirectory : public quorad::Directory {
public:
    std::map<std::string, tessa::ADObject> objects;
    bool away = false;
    int asked = 0;

    tessa::ADObject& add(const std::string& dn, const char* objectClass = "container") {
        tessa::ADObject& object = objects[dn];
        object.set("objectClass", std::string(objectClass));
        object.set("_dn", dn);
        object.set("_server", std::string("dc1.example.com"));
        object.set("objectGUID", tessa::Guid::random().bytes());
        return object;
    }

    tessa::ADObject fetch(const std::string& domain, const std::string& dn,
                          const std::vector<std::string>& /*attributes*/,
                          bool /*allAttributes*/) override {
        ++asked;
        EXPECT_EQ(domain, "example.com");
        if (away) {
            TESSA_THROW(tessa::IPCException, "away");
        }
        const auto found = objects.find(dn);
        if (found == objects.end()) {
            TESSA_THROW(tessa::NotFoundException, "no object '" + dn + "'");
        }
        return found->second;
    }
    std::unique_ptr<quorad::ObjectCursor> search(const quorad::SearchRequest&) override {
        return nullptr;
    }
    std::unique_ptr<quorad::UserCursor> users(unsigned) override { return nullptr; }
    std::unique_ptr<quorad::GroupCursor> groups(unsigned) override { return nullptr; }
    tessa::UserRecord user(const std::string&) override { return {}; }
    tessa::GroupRecord group(const std::string&) override { return {}; }
    void maintain() override {}
};

class ZonesTest : public testing::Test {
protected:
    void SetUp() override {
        m_directory.add("DC=example,DC=com", "domainDNS");
        m_directory.add("CN=Zones,DC=example,DC=com");
        m_directory.add(PARENT);
        m_directory.add(ZONE).set("extensionName", std::string("nisdomain=lab"));
    }

    Zones make(const std::string& zone = ZONE, const std::string& host = "host1") {
        return Zones(m_directory, zone, host, file());
    }
    std::string file() const { return (m_folder.path() / "zones").string(); }
    static std::string failureOf(Zones& zones, const std::string& setting) {
        try {
            return "value: " + zones.setting(setting);
        } catch (const tessa::NotFoundException& e) {
            return e.what();
        }
    }

    FakeDirectory m_directory;
    test::TempFolder m_folder;
};

TEST_F(ZonesTest, settings) {
    Zones zones = make();
    EXPECT_EQ(zones.setting(tessa::SETTING_ZONE_NAME), ZONE);
    EXPECT_EQ(zones.setting(tessa::SETTING_HOST_NAME), "host1");
    EXPECT_EQ(tessa::Guid::fromString(zones.setting(tessa::SETTING_ZONE_GUID)).bytes(),
              m_directory.objects[ZONE].guid());
    EXPECT_EQ(failureOf(zones, "colour"), "setting 'colour' is not known");
    EXPECT_EQ(failureOf(zones, ""), "setting '' is not known");
}

TEST_F(ZonesTest, settingsThatAreNotThere) {
    Zones zones = make("", "");
    EXPECT_EQ(failureOf(zones, tessa::SETTING_ZONE_NAME), "setting 'zonename' is not known");
    EXPECT_EQ(failureOf(zones, tessa::SETTING_HOST_NAME), "setting 'hostname' is not known");
}

TEST_F(ZonesTest, hierarchyEndsBelowTheContainerOfAllZones) {
    Zones zones = make();
    EXPECT_EQ(zones.hierarchy(), ZONE + "\n" + PARENT);
}

TEST_F(ZonesTest, hierarchyEndsAtWhatIsNoZone) {
    m_directory.objects.erase(PARENT);
    EXPECT_EQ(make().hierarchy(), ZONE) << "a name only";
    m_directory.add(PARENT, "organizationalUnit");
    Zones zones = make();
    zones.refresh();
    EXPECT_EQ(zones.hierarchy(), ZONE);
}

TEST_F(ZonesTest, aZoneOutsideTheContainerStandsAlone) {
    const std::string zone = "CN=z,CN=NotZones,DC=example,DC=com";
    m_directory.add(zone);
    m_directory.add("CN=NotZones,DC=example,DC=com");
    EXPECT_EQ(make(zone).hierarchy(), zone);
    const std::string escaped = "CN=z,CN=a\\,CN=Zones,DC=example,DC=com";
    m_directory.add(escaped);
    m_directory.add("CN=a\\,CN=Zones,DC=example,DC=com");
    EXPECT_EQ(Zones(m_directory, escaped, "", file() + "2").hierarchy(), escaped);
}

TEST_F(ZonesTest, nothingIsKnownWhileTheDirectoryWasNeverThere) {
    m_directory.away = true;
    Zones zones = make();
    EXPECT_EQ(zones.hierarchy(), "");
    EXPECT_EQ(failureOf(zones, tessa::SETTING_ZONE_GUID), "setting 'zoneguid' is not known");
    tessa::ADObject object;
    EXPECT_FALSE(zones.rememberedZoneObject(ZONE, object));
    m_directory.away = false;
    EXPECT_EQ(zones.hierarchy(), ZONE + "\n" + PARENT);
}

TEST_F(ZonesTest, remembersAcrossARestartWhileTheDirectoryIsAway) {
    m_directory.objects[ZONE].set(
        "extensionName",
        std::vector<std::string>{"other=1", "nisdomain=lab", std::string("\0\n", 2)});
    make().refresh();
    m_directory.away = true;
    Zones zones = make();
    EXPECT_EQ(zones.hierarchy(), ZONE + "\n" + PARENT);
    const auto guid = tessa::Guid::fromString(zones.setting(tessa::SETTING_ZONE_GUID));
    EXPECT_EQ(guid.bytes(), m_directory.objects[ZONE].guid());
    for (const std::string& name :
         {ZONE, guid.toDN(), std::string("cn=ZONEA, cn=corp,CN=Zones,DC=example,DC=com")}) {
        tessa::ADObject object;
        ASSERT_TRUE(zones.rememberedZoneObject(name, object)) << name;
        EXPECT_EQ(object[tessa::TESSA_ZONE_SFU].asString(), "lab");
        EXPECT_EQ(object["_dn"].asString(), ZONE);
        EXPECT_EQ(object["extensionName"].size(), 3U);
        EXPECT_EQ(object.guid(), guid.bytes());
    }
    tessa::ADObject object;
    EXPECT_FALSE(zones.rememberedZoneObject(PARENT, object));
    EXPECT_FALSE(zones.rememberedZoneObject("", object));
    EXPECT_FALSE(zones.rememberedZoneObject(tessa::Guid::random().toDN(), object));
    zones.refresh();
    EXPECT_EQ(zones.hierarchy(), ZONE + "\n" + PARENT) << "a failed refresh loses nothing";
}

TEST_F(ZonesTest, refreshTakesOverChanges) {
    Zones zones = make();
    zones.refresh();
    m_directory.objects[ZONE].set("extensionName", std::string("NISDOMAIN= moved "));
    m_directory.objects.erase(PARENT);
    zones.refresh();
    EXPECT_EQ(zones.hierarchy(), ZONE);
    m_directory.away = true;
    Zones later = make();
    tessa::ADObject object;
    ASSERT_TRUE(later.rememberedZoneObject(ZONE, object));
    EXPECT_EQ(object[tessa::TESSA_ZONE_SFU].asString(), "moved");
    EXPECT_EQ(later.hierarchy(), ZONE);
}

TEST_F(ZonesTest, aZoneThatVanishesIsKeptAndReportedOnce) {
    Zones zones = make();
    zones.refresh();
    m_directory.objects.erase(ZONE);
    testing::internal::CaptureStderr();
    zones.refresh();
    zones.refresh();
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_THAT(log, HasSubstr("While looking for the zone '" + ZONE + "'"));
    EXPECT_EQ(log.find("While looking"), log.rfind("While looking"));
    EXPECT_EQ(zones.hierarchy(), ZONE + "\n" + PARENT);
}

TEST_F(ZonesTest, theFileIsPrivateAndWrittenOnlyForChanges) {
    Zones zones = make();
    zones.refresh();
    struct stat first {};
    ASSERT_EQ(::stat(file().c_str(), &first), 0);
    EXPECT_EQ(first.st_mode & 0777U, 0600U);
    m_directory.objects[ZONE].set("_server", std::string("dc2.example.com"));
    zones.refresh();
    struct stat second {};
    ASSERT_EQ(::stat(file().c_str(), &second), 0);
    EXPECT_EQ(first.st_ino, second.st_ino);
}

TEST_F(ZonesTest, aFileOfAnotherZoneIsNotUsed) {
    make().refresh();
    m_directory.away = true;
    Zones zones = make(PARENT);
    EXPECT_EQ(zones.hierarchy(), "");
}

TEST_F(ZonesTest, aDamagedFileIsReportedAndReplaced) {
    make().refresh();
    const std::string good = test::readFile(file());
    std::vector<std::string> damaged{"nonsense", std::string(100, '\0'),
                                     "dn: " + ZONE +
                                         "\nobjectGUID: short\n\ndn:\nhierarchy: a\n"
                                         "complete: yes\n"};
    for (std::size_t size = 0; size + 2 < good.size(); size += 7) {
        damaged.push_back(good.substr(0, size));
    }
    for (const std::string& bad : damaged) {
        test::writeFile(file(), bad);
        m_directory.away = true;
        testing::internal::CaptureStderr();
        Zones zones = make();
        EXPECT_THAT(testing::internal::GetCapturedStderr(),
                    HasSubstr("What was remembered of the zone cannot be used"))
            << bad;
        EXPECT_EQ(zones.hierarchy(), "");
        m_directory.away = false;
        zones.refresh();
        EXPECT_EQ(test::readFile(file()), good);
    }
}

TEST_F(ZonesTest, whatCannotBeWrittenIsWrittenLater) {
    std::filesystem::create_directory(m_folder.path() / "sub");
    const std::string path = (m_folder.path() / "sub" / "zones").string();
    Zones zones(m_directory, ZONE, "host", path);
    std::filesystem::rename(m_folder.path() / "sub", m_folder.path() / "away");
    zones.refresh();
    EXPECT_EQ(zones.hierarchy(), ZONE + "\n" + PARENT) << "known all the same";
    std::filesystem::rename(m_folder.path() / "away", m_folder.path() / "sub");
    zones.refresh();
    EXPECT_TRUE(std::filesystem::exists(path));
}

TEST(ZoneAttributes, domainOfAZone) {
    tessa::ADObject object;
    quorad::addZoneAttributes(object);
    EXPECT_FALSE(object.attributeExists(tessa::TESSA_ZONE_SFU, false));
    for (const char* none : {"nisdomain=", "nisdomain=  ", "nisdomain", "xnisdomain=a", ""}) {
        object.set("extensionName", std::string(none));
        quorad::addZoneAttributes(object);
        EXPECT_FALSE(object.attributeExists(tessa::TESSA_ZONE_SFU, false)) << none;
    }
    object.set("extensionName", std::vector<std::string>{"nisdomain=b", "nisdomain=a", "zz"});
    quorad::addZoneAttributes(object);
    EXPECT_EQ(object[tessa::TESSA_ZONE_SFU].asString(), "a") << "always the same of several";
}

} // namespace
