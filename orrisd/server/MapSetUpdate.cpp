// The part of MapSet that keeps the maps in step with the directory.
#include "common/Globals.h"
#include "common/NisException.h"
#include "common/SafeName.h"
#include "common/ServingFilter.h"
#include "maps/Directory.h"
#include "maps/MapFactory.h"
#include "server/MapSet.h"
#include "store/NisCache.h"

#include <karst/DN.h>
#include <karst/Text.h>

#include <boost/make_shared.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <set>

#include <unistd.h>

namespace nis {

namespace {

/// Every write fails for good then, and who removed the folder wants the daemon to end.
bool cacheFolderIsGone() {
    char* const path = getcwd(nullptr, 0);
    const bool gone = path == nullptr && errno == ENOENT;
    std::free(path);
    return gone;
}

bool isAmong(const std::list<NewMap>& maps, const std::string& name) {
    return std::any_of(maps.begin(), maps.end(),
                       [&name](const NewMap& map) { return map.name == name; });
}

} // namespace

/// What an update finds in the directory.
struct MapSet::Findings {
    std::set<std::string> notSeen; ///< installed, and not met yet
    std::set<std::string> met;
    std::list<NewMap> newMaps;
};

void MapSet::checkServer(const tessa::ADObject& object) const {
    const std::string server = object[ADInterface::SERVER_NAME].asString();
    if (server != m_serverName) {
        NIS_THROW(ServerMismatch, "Data is from different server", server);
    }
}

std::string MapSet::getServerName() const {
    return m_serverName;
}

/// Names become parts of file names.
bool MapSet::isUsableName(const std::string& name) const {
    if (isSafeFileNamePart(name) && fitsFileName(m_domain, name, m_serverName)) {
        return true;
    }
    KARST_LOG(logger, tessa::LOG_WARN,
              "Name of map '%s' from server %s cannot be part of a file name. Ignoring.",
              tessa::printable(name).c_str(), m_serverName.c_str());
    return false;
}

void MapSet::sortObject(const tessa::ADObject& object, Findings& findings) const {
    checkServer(object);
    const std::string name = object[ADInterface::MAP_NAME].asString();
    const std::string dn = object[ADInterface::DN].asString();
    const std::string zone = object[ADInterface::ZONE_DN].asString();
    if (!isUsableName(name)) {
        return;
    }
    if (!ServingFilter::canServeToClients(name) && !isNeededForOthers(name)) {
        KARST_LOG(logger, tessa::LOG_INFORMATION,
                  "Ignoring map '%s' from server %s (as configured)", name.c_str(),
                  m_serverName.c_str());
        return;
    }
    if (ServingFilter::neverDownloadMapFromAD(name)) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "Ignoring map '%s' from server %s: disallowed map",
                  name.c_str(), m_serverName.c_str());
        return;
    }
    // The nearest zone comes first; its map hides those of the same name in the zones above.
    if (!findings.met.insert(name).second) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "Map '%s' of a nearer zone hides that of zone %s",
                  name.c_str(), zone.c_str());
        return;
    }
    findings.notSeen.erase(name);
    const auto installed = m_adMaps.find(name);
    if (installed != m_adMaps.end() &&
        tessa::DN::normalize(installed->second->getMapDN()) == tessa::DN::normalize(dn)) {
        return;
    }
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "New map '%s' discovered on server %s", name.c_str(),
              m_serverName.c_str());
    findings.newMaps.push_back({name, dn, zone});
}

/// A server that counts from a lower number on was restored from a backup. Asked for what comes
/// after the number that a map has, it would stay silent for long, so such maps are made anew.
void MapSet::replaceMapsAheadOf(const tessa::Int64& usn, Findings& findings) const {
    for (const auto& [name, map] : m_adMaps) {
        if (findings.met.count(name) == 0 || isAmong(findings.newMaps, name) ||
            map->getHighUSN() <= usn) {
            continue;
        }
        KARST_LOG(logger, tessa::LOG_WARN,
                  "Map '%s' is ahead of server %s (restored from a backup?): it is read again in "
                  "full",
                  name.c_str(), m_serverName.c_str());
        findings.newMaps.push_back({name, map->getMapDN(), map->getTargetZone()});
    }
}

tessa::Int64 MapSet::currentHighUSN() const {
    const auto interface = directory();
    const tessa::ADObject root = interface->getCurrentHighUSN(interface->getDomainDN(m_serverName));
    checkServer(root);
    return root[ADInterface::HIGHEST_COMMITTED_USN].asInt64();
}

void MapSet::update(bool rebuild, bool refresh) {
    const tessa::Lock lock(m_updateProtect);
    Findings findings;
    for (const auto& [name, map] : m_adMaps) {
        findings.notSeen.insert(name);
    }
    const auto objects = directory()->getMapNames(m_serverName);
    if (objects->empty()) {
        KARST_LOG(logger, tessa::LOG_WARN, "No NIS maps found on server %s", m_serverName.c_str());
    }
    for (const tessa::ADObject& object : *objects) {
        sortObject(object, findings);
    }
    std::list<std::string> vanished(findings.notSeen.begin(), findings.notSeen.end());
    const tessa::Int64 usn = currentHighUSN();
    replaceMapsAheadOf(usn, findings);
    adjustMaps(findings.newMaps, vanished, usn, rebuild, refresh);
}

void MapSet::adjustMaps(std::list<NewMap>& newMaps, std::list<std::string>& vanished,
                        tessa::Int64 usn, bool rebuild, bool refresh) {
    for (const std::string& name : vanished) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "Deleting map '%s'. No longer on server %s",
                  name.c_str(), m_serverName.c_str());
        deleteADMap(name);
    }
    const std::time_t now = std::time(nullptr);
    const ADNisMaps installed = m_adMaps;
    for (const auto& [name, map] : installed) {
        install(map); // the configuration may allow more derived maps by now
        // A map that is to be replaced is served as it is until then.
        const bool due = rebuild || refresh || now > map->getNextUpdateTime();
        if (due && !isAmong(newMaps, name)) {
            refreshMap(*map, usn, rebuild);
        }
    }
    m_complete = true;
    for (const NewMap& newMap : newMaps) {
        makeNewMap(newMap, usn);
    }
}

void MapSet::refreshMap(ADNisMap& map, tessa::Int64 usn, bool rebuild) {
    try {
        if (rebuild) {
            map.rebuild(usn);
        } else {
            map.update(usn);
        }
    } catch (FileSystemError& e) {
        if (cacheFolderIsGone()) {
            throw;
        }
        warnOfDisk("update", map.getName(), e, ". Skipping");
    }
}

void MapSet::makeNewMap(const NewMap& newMap, tessa::Int64 usn) {
    const std::string& name = newMap.name;
    if (ServingFilter::neverDownloadMapFromAD(name)) {
        // A map that was made a moment ago makes this one, too.
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "Ignoring map '%s' from server %s: disallowed map",
                  name.c_str(), m_serverName.c_str());
        return;
    }
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "Installing new %smap '%s', server %s",
              isWellKnownMapName(name) ? "well known " : "", name.c_str(), m_serverName.c_str());
    try {
        initializeMap(newMap, usn);
    } catch (FileSystemError& e) {
        if (cacheFolderIsGone()) {
            throw;
        }
        m_complete = false;
        warnOfDisk("initialize", name, e, "");
    }
}

void MapSet::initializeMap(const NewMap& newMap, tessa::Int64 usn) {
    const auto map = makeADNisMap(newMap.name, newMap.dn, newMap.zone);
    const auto found = m_adMaps.find(newMap.name);
    const auto replaced = found == m_adMaps.end() ? boost::shared_ptr<ADNisMap>() : found->second;
    try {
        map->initialize(usn);
        if (replaced && map->getOrder() <= replaced->getOrder()) {
            map->setOrder(replaced->getOrder() + 1);
        }
    } catch (...) {
        map->deleteOnClose(); // half a map must not be found at the next start
        throw;
    }
    const NisMaps before = servedMaps();
    install(map);
    if (!replaced) {
        return;
    }
    for (const auto& [name, entry] : before) {
        if (backingMap(*entry.map) == replaced.get()) {
            entry.map->deleteOnClose();
        }
    }
    replaced->deleteOnClose();
}

boost::shared_ptr<ADNisMap> MapSet::makeADNisMap(const std::string& name, const std::string& dn,
                                                 const std::string& zone) const {
    return makeADNisMap(makeCache(name, directory()->getZoneHierarchy(), dn, zone));
}

boost::shared_ptr<NisCache> MapSet::makeCache(const std::string& name, const std::string& hierarchy,
                                              const std::string& dn,
                                              const std::string& zone) const {
    auto cache = boost::make_shared<NisCache>(m_domain, name, m_serverName, hierarchy, zone, dn);
    try {
        cache->setLastCurrentTime(m_lastCurrentTime);
    } catch (...) {
        cache->deleteOnClose();
        throw;
    }
    return cache;
}

} // namespace nis
