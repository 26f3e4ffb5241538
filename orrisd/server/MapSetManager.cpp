// Requests and tables of the manager. Updates are in MapSetManagerUpdate.cpp.
#include "server/MapSetManager.h"

#include "common/Globals.h"
#include "common/NisException.h"
#include "maps/IntrinsicADNisMap.h"
#include "server/GlobalMapSet.h"
#include "store/CacheSnapshot.h"

#include <boost/make_shared.hpp>

#include <algorithm>

namespace nis {

MapSetManager::MapSetManager(const std::string& domain)
    : m_domain(domain), m_globalMapSet(boost::make_shared<GlobalMapSet>(domain)),
      m_current_mapSets(boost::make_shared<const MapSets>()) {}

MapSetManager::~MapSetManager() = default;

boost::shared_ptr<const MapSetManager::MapSets> MapSetManager::currentSets() const {
    const tessa::Lock lock(m_protect);
    return m_current_mapSets;
}

MapSetManager::SetList MapSetManager::allSets() const {
    const tessa::Lock lock(m_protect);
    return m_mapSets;
}

MapSetManager::ZoneTable MapSetManager::zoneTable() const {
    const tessa::Lock lock(m_protect);
    return m_zones;
}

boost::shared_ptr<const MapSetManager::MapSets> MapSetManager::getCurrent() const {
    auto current = currentSets();
    if (current->empty()) {
        NIS_THROW(UnknownMap, "No maps present");
    }
    return current;
}

/// The global set first, then the current sets in their order; the first that serves the name has
/// it.
boost::shared_ptr<NisMap> MapSetManager::findMap(const std::string& name) const {
    if (auto map = m_globalMapSet->findMap(name)) {
        return map;
    }
    const auto current = getCurrent();
    for (const auto& set : *current) {
        if (auto map = set->findMap(name)) {
            return map;
        }
    }
    NIS_THROW(UnknownMap, name);
}

MapEntry MapSetManager::match(const std::string& map, const std::string& key) const {
    return {key, findMap(map)->match(key)};
}

MapEntry MapSetManager::getFirst(const std::string& map) const {
    return findMap(map)->getFirst();
}

MapEntry MapSetManager::getNext(const std::string& map, const std::string& key) const {
    return findMap(map)->getNext(key);
}

boost::shared_ptr<MapIterator> MapSetManager::getAll(const std::string& map) const {
    return findMap(map)->getAll();
}

std::uint32_t MapSetManager::getOrder(const std::string& map) const {
    return findMap(map)->getOrder();
}

bool MapSetManager::doesMapExist(const std::string& map) const {
    const auto current = currentSets();
    return m_globalMapSet->doesMapExist(map) ||
           std::any_of(current->begin(), current->end(),
                       [&map](const auto& set) { return set->doesMapExist(map); });
}

MapNames MapSetManager::getMapList() const {
    auto names = boost::make_shared<std::vector<std::string>>(*m_globalMapSet->getMapList());
    const auto current = currentSets();
    for (const auto& set : *current) {
        const MapNames more = set->getMapList();
        names->insert(names->end(), more->begin(), more->end());
    }
    return names;
}

boost::shared_ptr<MapSet> MapSetManager::findMapSet(const std::string& serverName) const {
    if (serverName == GlobalMapSet::GLOBAL_NAME) {
        return m_globalMapSet;
    }
    for (const auto& set : allSets()) {
        if (set->getServerName() == serverName) {
            return set;
        }
    }
    return {};
}

boost::shared_ptr<MapSet> MapSetManager::getMapSet(const std::string& serverName) {
    auto set = findMapSet(serverName);
    if (!set) {
        set = boost::make_shared<MapSet>(m_domain, serverName);
        const tessa::Lock lock(m_protect);
        m_mapSets.push_back(set);
    }
    return set;
}

bool MapSetManager::mustCacheThisMap(const std::string& map) const {
    if (canServeToClients(map) || MapSet::isWantedAsSource(map) ||
        m_globalMapSet->mustCacheThisMap(map)) {
        return true;
    }
    const auto current = currentSets();
    return std::any_of(current->begin(), current->end(),
                       [&map](const auto& set) { return set->mustCacheThisMap(map); });
}

void MapSetManager::attachSnapshot(const boost::shared_ptr<CacheSnapshot>& snapshot) {
    if (snapshot->getDomain() != m_domain) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING,
                  "MapSetMananger rejects snapshot '%s' from domain %s",
                  snapshot->getFilename().c_str(), snapshot->getDomain().c_str());
        return;
    }
    const auto set = findMapSet(snapshot->getServer());
    if (!set || !set->attachSnapshot(snapshot)) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "Discarding cache snapshot for unknown map %s",
                  snapshot->getMapName().c_str());
    }
}

void MapSetManager::reconfigure() {
    ServingFilter::reset();
    for (const auto& set : allSets()) {
        set->reconfigure();
    }
    m_globalMapSet->reconfigure();
}

std::time_t MapSetManager::getNextUpdateTime() const {
    const auto current = currentSets();
    if (current->empty()) {
        return 0;
    }
    std::time_t next = m_globalMapSet->getNextUpdateTime();
    for (const auto& set : *current) {
        next = std::min(next, set->getNextUpdateTime());
    }
    return next;
}

bool MapSetManager::wantsGlobalMaps() const {
    const auto names = IntrinsicADNisMap::getIntrinsicNames();
    return std::any_of(names.begin(), names.end(), [this](const std::string& name) {
        return canServeToClients(name) || m_globalMapSet->mustCacheThisMap(name);
    });
}

std::time_t MapSetManager::getLastUpdateTime() const {
    const auto current = currentSets();
    if (current->empty()) {
        return 0;
    }
    std::time_t last = (*current->begin())->getLastUpdateTime();
    for (const auto& set : *current) {
        last = std::min(last, set->getLastUpdateTime());
    }
    // A global set that the configuration leaves empty is not one that was never updated.
    return wantsGlobalMaps() ? std::min(last, m_globalMapSet->getLastUpdateTime()) : last;
}

} // namespace nis
