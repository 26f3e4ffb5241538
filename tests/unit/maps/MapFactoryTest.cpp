#include "maps/MapFactory.h"

#include "unit/maps/MapsFixture.h"

namespace {

class MapFactoryTest : public test::MapsFixture {};

TEST_F(MapFactoryTest, KindByName) {
    const std::vector<std::pair<const char*, const char*>> kinds{
        {"netgroup", "ADNetgroupMap"},
        {"services", "ADServicesMap"},
        {"hosts", "ADHostsMap"},
        {"ethers", "ADEthersMap"},
        {"rpc", "ADRpcMap"},
        {"protocols", "ADProtocolsMap"},
        {"networks", "ADNetworksMap"},
        {"aliases", "ADAliasesMap"},
        {"publickey", "ADPublickeyMap"},
        {"netmasks", "ADNetmasksMap"},
        {"timezone", "ADTimezoneMap"},
        {"auto.home", "ExplicitADNisMap"},
        {"Hosts", "ExplicitADNisMap"},
        {"hosts.byname", "ExplicitADNisMap"}};
    for (const auto& [name, kind] : kinds) {
        const auto map = nis::makeDirectoryMap(makeCache(name));
        EXPECT_STREQ(map->type_name(), kind) << name;
        EXPECT_EQ(map->getName(), name);
        const bool wellKnown =
            std::string(kind) != "ExplicitADNisMap" && std::string(kind) != "ADNetgroupMap";
        EXPECT_EQ(nis::isWellKnownMapName(name), wellKnown) << name;
    }
}

TEST_F(MapFactoryTest, IntrinsicMaps) {
    EXPECT_STREQ(nis::makeIntrinsicMap(makeCache("passwd"))->type_name(), "PasswdMap");
    EXPECT_STREQ(nis::makeIntrinsicMap(makeCache("group"))->type_name(), "GroupMap");
    EXPECT_FALSE(nis::makeIntrinsicMap(makeCache("hosts")));
}

TEST_F(MapFactoryTest, MapBehindAServedOne) {
    for (const char* name : {"hosts", "netgroup"}) {
        const auto map = nis::makeDirectoryMap(makeCache(name));
        EXPECT_EQ(nis::backingMap(*map), map.get());
        const auto derived = map->getDerivedMaps();
        EXPECT_EQ(derived.size(), 2U);
        for (const auto& served : derived) {
            EXPECT_EQ(nis::backingMap(*served), map.get());
        }
    }
}

} // namespace
