// Requests, tables and times of a map set. What it does with the directory is in MapSetUpdate.cpp.
#include "server/MapSet.h"

#include "common/ConfigKeys.h"
#include "common/Globals.h"
#include "common/NisException.h"
#include "common/ServingFilter.h"
#include "maps/MapFactory.h"
#include "maps/netgroup/ADNetgroupMap.h"
#include "store/CacheSnapshot.h"

#include <boost/make_shared.hpp>

#include <algorithm>
#include <limits>
#include <set>

namespace nis {

namespace {

constexpr std::time_t FAR_FUTURE = std::numeric_limits<std::time_t>::max();

} // namespace

MapSet::MapSet(const std::string& domain, const std::string& serverName)
    : m_domain(domain), m_serverName(serverName) {}

MapSet::~MapSet() = default;

boost::shared_ptr<NisMap> MapSet::findMap(const std::string& name) const {
    const tessa::Lock lock(m_mapProtect);
    const auto found = m_nisMaps.find(name);
    return found == m_nisMaps.end() ? boost::shared_ptr<NisMap>() : found->second.map;
}

boost::shared_ptr<NisMap> MapSet::getMap(const std::string& name) const {
    auto map = findMap(name);
    if (!map) {
        NIS_THROW(UnknownMap, name);
    }
    return map;
}

MapSet::NisMaps MapSet::servedMaps() const {
    const tessa::Lock lock(m_mapProtect);
    return m_nisMaps;
}

MapEntry MapSet::match(const std::string& map, const std::string& key) const {
    return {key, getMap(map)->match(key)};
}

MapEntry MapSet::getFirst(const std::string& map) const {
    return getMap(map)->getFirst();
}

MapEntry MapSet::getNext(const std::string& map, const std::string& key) const {
    return getMap(map)->getNext(key);
}

boost::shared_ptr<MapIterator> MapSet::getAll(const std::string& map) const {
    return getMap(map)->getAll();
}

bool MapSet::doesMapExist(const std::string& map) const {
    return findMap(map) != nullptr;
}

std::uint32_t MapSet::getOrder(const std::string& map) const {
    return getMap(map)->getOrder();
}

MapNames MapSet::getMapList() const {
    auto names = boost::make_shared<std::vector<std::string>>();
    for (const auto& [name, entry] : servedMaps()) {
        names->push_back(name);
    }
    return names;
}

boost::shared_ptr<ADNisMap> MapSet::makeADNisMap(const boost::shared_ptr<NisCache>& cache) const {
    return makeDirectoryMap(cache);
}

/// @return whether the map was not in service under the name yet
bool MapSet::serve(const std::string& name, const boost::shared_ptr<NisMap>& map) {
    const tessa::Lock lock(m_mapProtect);
    boost::shared_ptr<NisMap>& served = m_nisMaps[name].map;
    if (served == map) {
        return false;
    }
    served = map;
    return true;
}

void MapSet::install(const boost::shared_ptr<ADNisMap>& map) {
    const tessa::Lock lock(m_updateProtect);
    const std::string name = map->getName();
    const boost::shared_ptr<ADNisMap> before = m_adMaps[name];
    m_adMaps[name] = map;
    bool changed = before != map;
    // A base map may be kept for the maps that are made from it alone.
    if (ServingFilter::canServeToClients(name) && map->canServeToClients()) {
        changed = serve(name, map) || changed;
    }
    if (changed) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "Install map '%s', server %s", name.c_str(),
                  m_serverName.c_str());
    }
    installDerived(map, before.get());
}

/// @param replaced the map that had the name before; may be null or the same
void MapSet::installDerived(const boost::shared_ptr<ADNisMap>& map, const ADNisMap* replaced) {
    std::set<std::string> produced{map->getName()};
    for (const auto& derived : map->getDerivedMaps()) {
        const std::string name = derived->getName();
        produced.insert(name);
        const auto present = findMap(name);
        // The one in service may have a snapshot, so it stays.
        if (!present || backingMap(*present) != map.get()) {
            serve(name, derived);
            KARST_LOG(logger, tessa::LOG_DEBUGGING, "Install derived map '%s', server %s",
                      name.c_str(), m_serverName.c_str());
        }
    }
    for (const auto& [name, entry] : servedMaps()) {
        const ADNisMap* backing = backingMap(*entry.map);
        const bool own = backing == map.get() || (replaced != nullptr && backing == replaced);
        if (own && produced.count(name) == 0) {
            KARST_LOG(logger, tessa::LOG_DEBUGGING, "Removing derived map '%s'", name.c_str());
            deleteNisMap(name);
        }
    }
}

/// Takes a name out of service.
/// @return the map that had it
boost::shared_ptr<NisMap> MapSet::deleteMap(const std::string& name) {
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "Uninstall map '%s', server %s", name.c_str(),
              m_serverName.c_str());
    const tessa::Lock lock(m_mapProtect);
    auto node = m_nisMaps.extract(name);
    return node ? node.mapped().map : boost::shared_ptr<NisMap>();
}

/// The directory-backed map behind the name stays.
void MapSet::deleteNisMap(const std::string& name) {
    const auto map = deleteMap(name);
    if (!map) {
        return;
    }
    ADNisMap* backing = backingMap(*map);
    if (backing != nullptr && backing != map.get()) {
        backing->derivedMapRemoved(name);
        map->deleteOnClose(); // its snapshot
    }
}

void MapSet::deleteADMap(const std::string& name) {
    const auto node = m_adMaps.extract(name);
    if (!node) {
        return;
    }
    const boost::shared_ptr<ADNisMap>& map = node.mapped();
    for (const auto& [served, entry] : servedMaps()) {
        if (backingMap(*entry.map) == map.get()) {
            deleteNisMap(served);
        }
    }
    map->deleteOnClose();
}

bool MapSet::attachSnapshot(const boost::shared_ptr<CacheSnapshot>& snapshot) {
    if (snapshot->getServer() != m_serverName) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "MapSet rejects snapshot '%s' from server %s",
                  snapshot->getFilename().c_str(), snapshot->getServer().c_str());
        return false;
    }
    const auto map = findMap(snapshot->getMapName());
    if (!map) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "Unknown map snapshot '%s' from server %s",
                  snapshot->getFilename().c_str(), snapshot->getServer().c_str());
        return false;
    }
    return map->attachSnapshot(snapshot);
}

void MapSet::updateSnapshots() {
    for (const auto& [name, entry] : servedMaps()) {
        entry.map->updateSnapshot();
    }
}

void MapSet::deleteOnClose() {
    const tessa::Lock lock(m_updateProtect);
    for (const auto& [name, map] : m_adMaps) {
        map->deleteOnClose();
    }
    for (const auto& [name, entry] : servedMaps()) {
        entry.map->deleteOnClose();
    }
}

void MapSet::setCurrent(std::map<std::string, unsigned int>& orders) {
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "Current NIS map server is now %s",
              m_serverName.c_str());
    const tessa::Lock lock(m_updateProtect);
    const std::time_t now = std::time(nullptr);
    for (const auto& [name, entry] : servedMaps()) {
        const unsigned int seen = orders.try_emplace(name, 0).first->second;
        ADNisMap* backing = backingMap(*entry.map);
        if (seen < entry.map->getOrder() || backing == nullptr) {
            continue;
        }
        try {
            backing->setOrder(seen + 1);
        } catch (FileSystemError& e) {
            warnOfDisk("update", name, e, ". Skipping");
        }
    }
    m_lastCurrentTime = now;
    for (const auto& [name, map] : m_adMaps) {
        try {
            map->setLastCurrentTime(now);
        } catch (FileSystemError& e) {
            warnOfDisk("update", name, e, ". Skipping");
        }
    }
}

/// A full disk must not stop what can go on without it.
void MapSet::warnOfDisk(const char* step, const std::string& name, FileSystemError& e,
                        const char* ending) {
    KARST_LOG(logger, tessa::LOG_WARN, "Failed to %s map '%s' (disk space low?): %s%s", step,
              name.c_str(), e.msg().c_str(), ending);
}

std::time_t MapSet::getLastUpdateTime() const {
    const tessa::Lock lock(m_updateProtect);
    std::time_t oldest = m_adMaps.empty() ? 0 : FAR_FUTURE;
    for (const auto& [name, map] : m_adMaps) {
        oldest = std::min(oldest, map->getLastUpdateTime());
    }
    return oldest;
}

std::time_t MapSet::getNextUpdateTime() const {
    const tessa::Lock lock(m_updateProtect);
    std::time_t first = FAR_FUTURE;
    for (const auto& [name, map] : m_adMaps) {
        first = std::min(first, static_cast<std::time_t>(map->getNextUpdateTime()));
    }
    return first;
}

std::time_t MapSet::getLastCurrentTime() const {
    const tessa::Lock lock(m_updateProtect);
    std::time_t latest = 0;
    for (const auto& [name, map] : m_adMaps) {
        latest = std::max(latest, map->getLastCurrentTime());
    }
    return latest;
}

std::vector<std::string> MapSet::getTargetZones() const {
    const tessa::Lock lock(m_updateProtect);
    std::set<std::string> zones;
    for (const auto& [name, map] : m_adMaps) {
        zones.insert(map->getTargetZone());
    }
    zones.erase("");
    return {zones.begin(), zones.end()};
}

bool MapSet::mustCacheThisMap(const std::string& name) const {
    const tessa::Lock lock(m_updateProtect);
    for (const auto& [installed, map] : m_adMaps) {
        if (map->mustCacheThisMap(name)) {
            return true;
        }
    }
    return false;
}

bool MapSet::isWantedAsSource(const std::string& name) {
    return name == ADNetgroupMap::NETGROUP_MAP_NAME &&
           (ServingFilter::canServeToClients(ADNetgroupMap::NETGROUP_BY_HOST_MAP_NAME) ||
            ServingFilter::canServeToClients(ADNetgroupMap::NETGROUP_BY_USER_MAP_NAME));
}

bool MapSet::isNeededForOthers(const std::string& name) const {
    if (isWantedAsSource(name)) {
        return true;
    }
    for (const auto& [installed, map] : m_adMaps) {
        const bool needed =
            installed == name ? !map->getDerivedMaps().empty() : map->mustCacheThisMap(name);
        if (needed) {
            return true;
        }
    }
    return false;
}

void MapSet::reconfigure() {
    const tessa::Lock lock(m_updateProtect);
    for (const auto& [name, entry] : servedMaps()) {
        if (!ServingFilter::canServeToClients(name)) {
            deleteNisMap(name);
        }
    }
    const ADNisMaps installed = m_adMaps;
    for (const auto& [name, map] : installed) {
        if (!ServingFilter::canServeToClients(name) && !isNeededForOthers(name)) {
            KARST_LOG(logger, tessa::LOG_DEBUGGING,
                      "Deleting map '%s', server %s. Excluded by configuration.", name.c_str(),
                      m_serverName.c_str());
            deleteADMap(name);
        }
    }
    ADNisMap::resetDefaultUpdateInterval();
    for (const auto& [name, map] : m_adMaps) {
        map->reconfigure();
    }
}

void MapSet::findDCswitching() {
    if (m_switchDetected == 0) {
        m_switchDetected = std::time(nullptr);
    }
}

void MapSet::forgetDCswitching() {
    m_switchDetected = 0;
}

bool MapSet::replaceDCNow() {
    const long delay = getConfig()->getTime(PROP_SERVER_SWITCH, DEFAULT_SERVER_SWITCH);
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "update: %s=%d", PROP_SERVER_SWITCH,
              static_cast<int>(delay));
    if (m_switchDetected == 0) {
        return false;
    }
    const std::time_t waited = std::time(nullptr) - m_switchDetected;
    if (delay < waited) {
        KARST_LOG(logger, tessa::LOG_INFORMATION, "switch to DC %s", m_serverName.c_str());
        m_switchDetected = 0;
        return true;
    }
    KARST_LOG(logger, tessa::LOG_INFORMATION, "Detect DC switching, skip update DC %s",
              m_serverName.c_str());
    return false;
}

} // namespace nis
