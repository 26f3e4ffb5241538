// The part of the manager that updates the sets and chooses those that serve.
#include "common/ConfigKeys.h"
#include "common/Globals.h"
#include "maps/Directory.h"
#include "server/MapSetManager.h"

#include <karst/Text.h>

#include <boost/make_shared.hpp>

#include <algorithm>
#include <cstdlib>
#include <limits>

namespace nis {

namespace {

/// How many sets are kept for each one that serves.
long readKeptSets() {
    const std::string setting =
        getConfig()->get(PROP_MAX_MAP_SETS, std::to_string(DEFAULT_MAX_MAP_SETS));
    return std::clamp<long>(std::strtol(setting.c_str(), nullptr, 10), 1,
                            std::numeric_limits<int>::max());
}

} // namespace

/// Zones whose server is not known now, though they are still zones of the machine: a failed
/// question to the directory must not end the service of what was found before.
MapSetManager::ZoneTable MapSetManager::keepUnknownZones(const ZoneTable& answered) const {
    const std::string hierarchy = directory()->getZoneHierarchy();
    const auto lines = tessa::StringSplit(hierarchy, "\n");
    ZoneTable unknown;
    for (const auto& [zone, server] : zoneTable()) {
        const bool exists =
            hierarchy.empty() || std::find(lines.begin(), lines.end(), zone) != lines.end();
        if (exists && answered.count(zone) == 0) {
            unknown.emplace(zone, server);
        }
    }
    return unknown;
}

/// The server that a zone's maps are taken from, which may still be the old one.
/// @param decisions by old server, so that all its zones move together
std::string MapSetManager::chooseServer(const std::string& present, const std::string& answered,
                                        std::map<std::string, bool>& decisions) {
    auto decision = decisions.find(present);
    if (decision == decisions.end()) {
        const auto set = getMapSet(present);
        const bool replace = set->replaceDCNow();
        if (!replace) {
            set->findDCswitching();
        }
        decision = decisions.emplace(present, replace).first;
    }
    return decision->second ? answered : present;
}

/// Brings the zone table up to date.
void MapSetManager::readZones(bool rebuild) {
    const ZoneTable answered = directory()->getZoneDNs();
    const ZoneTable before = zoneTable();
    ZoneTable zones = keepUnknownZones(answered);
    std::map<std::string, bool> decisions;
    for (const auto& [zone, server] : answered) {
        const auto known = before.find(zone);
        const bool moved = known != before.end() && known->second != server;
        zones[zone] = moved && !rebuild ? chooseServer(known->second, server, decisions) : server;
    }
    for (const auto& [zone, server] : zones) {
        if (decisions.count(server) == 0) {
            getMapSet(server)->forgetDCswitching();
        }
    }
    const tessa::Lock lock(m_protect);
    m_zones.swap(zones);
}

void MapSetManager::updateSet(const boost::shared_ptr<MapSet>& set, bool rebuild, bool refresh,
                              Outcome& outcome) {
    try {
        set->update(rebuild, refresh);
        set->updateSnapshots();
        outcome.updated.insert(set);
        if (!set->isComplete()) {
            outcome.failed.insert(set);
        }
    } catch (...) {
        outcome.failed.insert(set);
        if (!outcome.first) {
            outcome.first = std::current_exception();
        }
    }
}

/// A set that failed, wholly or in part, must not take the place of one that serves.
bool MapSetManager::mayMakeCurrent(const Outcome& outcome) const {
    const auto current = currentSets();
    const bool allServe =
        std::all_of(outcome.failed.begin(), outcome.failed.end(),
                    [&current](const auto& set) { return current->count(set) != 0; });
    return allServe || (current->empty() && !outcome.updated.empty());
}

void MapSetManager::update(bool rebuild, bool refresh) {
    readZones(rebuild);
    MapSets sets;
    for (const auto& [zone, server] : zoneTable()) {
        sets.insert(getMapSet(server));
    }
    Outcome outcome;
    for (const auto& set : sets) {
        updateSet(set, rebuild, refresh, outcome);
    }
    if (mayMakeCurrent(outcome)) {
        MapSets empty;
        for (const auto& set : outcome.failed) {
            if (set->getMapList()->empty()) {
                empty.insert(set);
            }
        }
        setCurrent(empty);
    }
    updateSet(m_globalMapSet, rebuild, refresh, outcome);
    if (outcome.first) {
        std::rethrow_exception(outcome.first);
    }
}

void MapSetManager::sortMapSets() {
    SetList sorted = allSets();
    sorted.sort(MostRecentToFront());
    ZoneTable zones = zoneTable();
    for (const auto& set : sorted) {
        for (const std::string& zone : set->getTargetZones()) {
            zones.emplace(zone, set->getServerName());
        }
    }
    {
        const tessa::Lock lock(m_protect);
        m_mapSets.swap(sorted);
        m_zones.swap(zones);
    }
    setCurrent();
}

void MapSetManager::setCurrent() {
    setCurrent(MapSets());
}

/// @param leftOut sets that the zone table names, but that have nothing to serve yet
void MapSetManager::setCurrent(const MapSets& leftOut) {
    MapSets wanted;
    for (const auto& [zone, server] : zoneTable()) {
        const auto set = getMapSet(server);
        if (leftOut.count(set) == 0) {
            wanted.insert(set);
        }
    }
    if (wanted.empty()) {
        return; // no zone is known: what serves goes on
    }
    receive(wanted);
    discardOldest();
}

/// Lets exactly these sets serve. The new ones are made ready before any request can see them.
void MapSetManager::receive(const MapSets& wanted) {
    const auto before = currentSets();
    Orders orders;
    for (const auto& set : *before) {
        if (wanted.count(set) != 0) {
            continue;
        }
        const MapNames names = set->getMapList();
        for (const std::string& name : *names) {
            unsigned int& order = orders[name];
            order = std::max(order, set->getOrder(name));
        }
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "delete mapset from m_current_mapSets, server = %s",
                  set->getServerName().c_str());
    }
    for (const auto& set : wanted) {
        if (before->count(set) == 0) {
            set->setCurrent(orders);
            KARST_LOG(logger, tessa::LOG_DEBUGGING,
                      "add mapset into m_current_mapSets, mapset name : %s",
                      set->getServerName().c_str());
        }
    }
    auto current = boost::make_shared<const MapSets>(wanted);
    const tessa::Lock lock(m_protect);
    m_current_mapSets.swap(current);
}

void MapSetManager::discardOldest() {
    const auto current = currentSets();
    const auto serving = static_cast<long>(current->size());
    const long limit = serving * readKeptSets();
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "setCurrent: our zones are from %ld DC's, %s=%ld",
              serving, PROP_MAX_MAP_SETS, limit);
    MapSets kept = *current;
    for (const auto& [zone, server] : zoneTable()) {
        kept.insert(getMapSet(server));
    }
    SetList sets = allSets();
    // Times are in seconds; what serves now is the most recent in any case.
    sets.sort([&current](const auto& a, const auto& b) {
        const bool aServes = current->count(a) != 0;
        const bool bServes = current->count(b) != 0;
        return aServes != bServes ? aServes : MostRecentToFront()(a, b);
    });
    for (auto place = sets.end();
         place != sets.begin() && static_cast<long>(sets.size()) > limit;) {
        --place;
        if (kept.count(*place) == 0) {
            (*place)->deleteOnClose();
            KARST_LOG(logger, tessa::LOG_DEBUGGING, "Discarding map set for server %s",
                      (*place)->getServerName().c_str());
            place = sets.erase(place);
        }
    }
    const tessa::Lock lock(m_protect);
    m_mapSets.swap(sets);
}

} // namespace nis
