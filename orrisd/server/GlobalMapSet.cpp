#include "server/GlobalMapSet.h"

#include "common/Globals.h"
#include "common/ServingFilter.h"
#include "maps/IntrinsicADNisMap.h"
#include "maps/MapFactory.h"
#include "store/NisCache.h"

namespace nis {

namespace {

/// Intrinsic maps are not kept by update sequence number.
const tessa::Int64 NO_USN = 1;

} // namespace

GlobalMapSet::GlobalMapSet(const std::string& domain) : MapSet(domain, GLOBAL_NAME) {}

GlobalMapSet::~GlobalMapSet() = default;

boost::shared_ptr<ADNisMap>
GlobalMapSet::makeADNisMap(const boost::shared_ptr<NisCache>& cache) const {
    return makeIntrinsicMap(cache);
}

boost::shared_ptr<ADNisMap> GlobalMapSet::makeADNisMap(const std::string& name,
                                                       const std::string& dn,
                                                       const std::string& zone) const {
    return makeADNisMap(makeCache(name, GLOBAL_NAME, dn, zone));
}

void GlobalMapSet::update(bool rebuild, bool refresh) {
    const tessa::Lock lock(m_updateProtect);
    std::list<NewMap> newMaps;
    std::list<std::string> excluded;
    for (const std::string& name : IntrinsicADNisMap::getIntrinsicNames()) {
        const bool installed = m_adMaps.count(name) != 0;
        if (!ServingFilter::canServeToClients(name) && !isNeededForOthers(name)) {
            KARST_LOG(logger, tessa::LOG_INFORMATION, "Ignoring map '%s' (as configured)",
                      name.c_str());
            if (installed) {
                excluded.push_back(name);
            }
        } else if (!installed) {
            KARST_LOG(logger, tessa::LOG_DEBUGGING, "New map '%s' scheduled for creation",
                      name.c_str());
            newMaps.push_back({name, "", ""});
        }
    }
    adjustMaps(newMaps, excluded, NO_USN, rebuild, refresh);
}

} // namespace nis
