// The part of ADInterface that reads zones, their servers and their map objects again.
#include "common/Globals.h"
#include "common/SafeName.h"
#include "directory/ADInterface.h"

#include <karst/DN.h>
#include <karst/Text.h>

#include <algorithm>

namespace nis {

void ADInterface::updateZoneHierarchy() {
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "update zone hierarchy begin");
    const std::vector<std::string> zones = readHierarchy();
    if (zones.empty()) {
        return;
    }
    findServers(zones);
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "update nis map names begin");
    readMapNames(zones);
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "update zone hierarchy complete");
}

/// @return the zones, nearest first; none when the daemon cannot say, and then nothing changed
std::vector<std::string> ADInterface::readHierarchy() {
    getZoneDN();
    const std::string hierarchy = m_session.getSystemInfo(tessa::SYSTEM_INFO_ZONE_HIERARCHY);
    KARST_LOG(logger, tessa::LOG_INFORMATION, "get zone hierarchy: %s ", hierarchy.c_str());
    if (hierarchy.empty()) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "get nothing about zone hierarchy from quorad.");
        return {};
    }
    std::vector<std::string> zones;
    for (const std::string& line : tessa::StringSplit(hierarchy, "\n")) {
        if (tessa::DN::isDN(line) && std::find(zones.begin(), zones.end(), line) == zones.end()) {
            zones.push_back(line);
        }
    }
    if (zones.empty()) {
        KARST_LOG(logger, tessa::LOG_WARN, "zone hierarchy names no zone, keeping the previous: %s",
                  hierarchy.c_str());
        return {};
    }
    const tessa::Lock lock(m_hierarchyProtect);
    if (m_hierarchy != hierarchy) {
        KARST_LOG(logger, tessa::LOG_INFORMATION,
                  "find zone hierarchy changed, origin: %s, now: %s", m_hierarchy.c_str(),
                  hierarchy.c_str());
        m_hierarchy = hierarchy;
    }
    return zones;
}

/// @return the server that answers for the zone's domain now; empty when that cannot be known
std::string ADInterface::findServer(const std::string& zone) {
    try {
        const tessa::ADObject root = getCurrentHighUSN(tessa::DN::domainFromDN(zone));
        std::string server = root[SERVER_NAME].asString();
        // The name becomes part of the names of cache and snapshot files.
        if (isSafeFileNamePart(server)) {
            KARST_LOG(logger, tessa::LOG_DEBUGGING, "find zone %s from server %s", zone.c_str(),
                      server.c_str());
            return server;
        }
        KARST_LOG(logger, tessa::LOG_WARN,
                  "Server name '%s' of zone %s cannot be part of a file name. Ignoring.",
                  server.c_str(), zone.c_str());
    } catch (const tessa::TESSAException& e) {
        KARST_LOG(logger, tessa::LOG_WARN, "While connecting AD: %s", e.what());
    }
    return "";
}

void ADInterface::findServers(const std::vector<std::string>& zones) {
    const NamesByKey previous = getZoneDNs();
    NamesByKey servers;
    for (const std::string& zone : zones) {
        const std::string server = findServer(zone);
        if (!server.empty()) {
            servers[zone] = server;
            // Servers that no zone names any more stay: their map sets may still be in service.
            const tessa::Lock lock(m_domainDNsProtect);
            m_domainDNs[server] = tessa::DN::domainFromDN(zone);
        } else if (const auto old = previous.find(zone); old != previous.end()) {
            servers[zone] = old->second;
        }
    }
    const tessa::Lock lock(m_zoneDNsProtect);
    m_zoneDNs.swap(servers);
}

/// Every map object of the zone; nothing is returned unless all were read.
ADInterface::ObjectVector ADInterface::readMapObjects(const std::string& zone,
                                                      const std::string& server) {
    ObjectVector objects;
    const std::string container = tessa::LDAPBinding::createChild(zone, MAP_CONTAINER);
    try {
        const auto found =
            m_session.ldapPagedSearch(tessa::DN::domainFromDN(zone), "(objectClass=*)", container,
                                      {MAP_NAME}, tessa::SCOPE_ONE_LEVEL, 0, false);
        tessa::ADObject object;
        while (found->next(object)) {
            const std::string answeredBy = object[SERVER_NAME].asString();
            if (!answeredBy.empty() && !tessa::equalsIgnoreCase(answeredBy, server)) {
                std::string problem = "map names of zone " + zone;
                problem += " come from " + answeredBy;
                problem += " instead of " + server;
                TESSA_THROW(tessa::IPCException, problem);
            }
            object.set(ZONE_DN, zone);
            object.set(SERVER_NAME, server);
            objects.push_back(object);
        }
    } catch (const tessa::NotFoundException&) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "NIS map container missing: %s", container.c_str());
        objects.clear();
    }
    return objects;
}

void ADInterface::readMapNames(const std::vector<std::string>& zones) {
    const NamesByKey servers = getZoneDNs();
    std::map<std::string, ZoneMaps> maps;
    {
        const tessa::Lock lock(m_mapsProtect);
        maps = m_maps;
    }
    for (const std::string& zone : zones) {
        const auto server = servers.find(zone);
        if (server == servers.end()) {
            continue; // never answered for: nobody to take map names from
        }
        try {
            maps[zone] = {server->second, readMapObjects(zone, server->second)};
        } catch (const tessa::TESSAException& e) {
            KARST_LOG(logger, tessa::LOG_WARN, "While retrieving map names from AD: %s", e.what());
        }
    }
    std::map<std::string, ZoneMaps> present;
    for (const std::string& zone : zones) {
        if (auto node = maps.extract(zone)) {
            present.insert(std::move(node));
        }
    }
    const tessa::Lock lock(m_mapsProtect);
    m_maps.swap(present);
    m_zoneOrder = zones;
}

} // namespace nis
