#include "maps/MapFactory.h"

#include "maps/DerivedMap.h"
#include "maps/ExplicitADNisMap.h"
#include "maps/GroupMap.h"
#include "maps/PasswdMap.h"
#include "maps/WellKnownMaps.h"
#include "maps/netgroup/ADNetgroupMap.h"
#include "maps/netgroup/NetgroupBy.h"
#include "store/NisCache.h"

#include <boost/make_shared.hpp>

#include <algorithm>
#include <array>

namespace nis {

namespace {

using Cache = boost::shared_ptr<NisCache>;
using Map = boost::shared_ptr<ADNisMap>;

template <typename Kind> Map make(const Cache& cache) {
    return boost::make_shared<Kind>(cache);
}

struct KindOfMap {
    const char* name;
    Map (*make)(const Cache& cache);
};

constexpr std::array<KindOfMap, 10> WELL_KNOWN{{
    {"services", &make<ADServicesMap>},
    {"hosts", &make<ADHostsMap>},
    {"ethers", &make<ADEthersMap>},
    {"rpc", &make<ADRpcMap>},
    {"protocols", &make<ADProtocolsMap>},
    {"networks", &make<ADNetworksMap>},
    {"aliases", &make<ADAliasesMap>},
    {"publickey", &make<ADPublickeyMap>},
    {"netmasks", &make<ADNetmasksMap>},
    {"timezone", &make<ADTimezoneMap>},
}};

const KindOfMap* findWellKnown(const std::string& name) {
    const auto* found = std::find_if(WELL_KNOWN.begin(), WELL_KNOWN.end(),
                                     [&name](const KindOfMap& kind) { return name == kind.name; });
    return found == WELL_KNOWN.end() ? nullptr : found;
}

} // namespace

bool isWellKnownMapName(const std::string& name) {
    return findWellKnown(name) != nullptr;
}

Map makeDirectoryMap(const Cache& cache) {
    const std::string& name = cache->getMapName();
    if (name == ADNetgroupMap::NETGROUP_MAP_NAME) {
        return make<ADNetgroupMap>(cache);
    }
    const KindOfMap* kind = findWellKnown(name);
    return kind != nullptr ? kind->make(cache) : make<ExplicitADNisMap>(cache);
}

Map makeIntrinsicMap(const Cache& cache) {
    const std::string& name = cache->getMapName();
    if (name == PasswdMap::PASSWD_MAP_NAME) {
        return make<PasswdMap>(cache);
    }
    if (name == GroupMap::GROUP_MAP_NAME) {
        return make<GroupMap>(cache);
    }
    return {};
}

ADNisMap* backingMap(NisMap& map) {
    if (auto* own = dynamic_cast<ADNisMap*>(&map)) {
        return own;
    }
    if (auto* derived = dynamic_cast<DerivedMap*>(&map)) {
        return &derived->parent();
    }
    if (auto* inversion = dynamic_cast<NetgroupBy*>(&map)) {
        return &inversion->netgroupMap();
    }
    return nullptr;
}

} // namespace nis
