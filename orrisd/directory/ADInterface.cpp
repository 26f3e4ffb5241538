#include "directory/ADInterface.h"

#include "common/ConfigKeys.h"
#include "common/Globals.h"
#include "common/NisException.h"
#include "common/SafeName.h"

#include <karst/DN.h>
#include <karst/Guid.h>
#include <karst/Text.h>

#include <boost/make_shared.hpp>

#include <cstdio>

namespace nis {

tessa::Mutex ADInterface::m_zoneDNProtect;
std::string ADInterface::m_zoneDN;
tessa::Mutex ADInterface::m_hierarchyProtect;
tessa::Mutex ADInterface::m_zoneDNsProtect;
tessa::Mutex ADInterface::m_mapsProtect;
tessa::Mutex ADInterface::m_domainDNsProtect;

namespace {

[[noreturn]] void endDaemon(const char* text, ExitCode code) {
    KARST_LOG(logger, tessa::LOG_FAILURE, "%s", text);
    std::fprintf(stderr, "%s\n", text);
    terminate(code);
}

} // namespace

ADInterface::ADInterface() : m_session(tessa::QUORAD_SOCKET, false, true) {
    m_domain = tessa::DN::domainFromDN(getZoneDN());
}

std::string ADInterface::getZoneDN() {
    const tessa::Lock lock(m_zoneDNProtect);
    if (m_zoneDN.empty()) {
        try {
            m_zoneDN = tessa::loadSetting(tessa::SETTING_ZONE_NAME, true, true);
        } catch (const tessa::TESSAException& e) {
            KARST_LOG(logger, tessa::LOG_FAILURE, "While reading zonename setting: %s", e.what());
            terminate(EXIT_QUORAD);
        }
    }
    return m_zoneDN;
}

std::string ADInterface::zoneNameOf(const std::string& zoneDN) {
    constexpr std::size_t START = 3; // behind "CN="
    if (zoneDN.size() <= START) {
        return "";
    }
    const std::string rest = zoneDN.substr(START);
    return rest.substr(0, rest.find(','));
}

std::string ADInterface::getZoneName() {
    try {
        tessa::loadSetting(tessa::SETTING_HOST_NAME, true, true);
    } catch (const tessa::TESSAException&) {
        endDaemon("Error: this computer is not joined to a domain", EXIT_USAGE);
    }
    std::string name = zoneNameOf(getZoneDN());
    if (name.empty()) {
        endDaemon("Cannot find zone name. Cannot determine NIS domain.", EXIT_QUORAD);
    }
    return name;
}

/// What the zone object says, or the zone's name when it says nothing.
std::string ADInterface::askNisDomain(const std::string& zoneName) {
    tessa::LocalRpcSession session(tessa::QUORAD_SOCKET, false, true);
    const std::string guid = session.loadSetting(tessa::SETTING_ZONE_GUID);
    const tessa::ADObject zone = session.ldapFetch(tessa::DN::domainFromDN(getZoneDN()),
                                                   tessa::Guid::fromString(guid).toDN(), {}, true);
    if (!zone.attributeExists(tessa::TESSA_ZONE_SFU, true)) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "NisDomain not set in AD: using zone name: %s",
                  zoneName.c_str());
        return zoneName;
    }
    std::string domain = zone[tessa::TESSA_ZONE_SFU].asString();
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "NisDomain from AD: %s", domain.c_str());
    if (isSafeFileNamePart(domain)) {
        return domain;
    }
    KARST_LOG(logger, tessa::LOG_WARN,
              "NisDomain '%s' of zone %s cannot be part of a file name: using zone name",
              domain.c_str(), getZoneDN().c_str());
    return zoneName;
}

std::string ADInterface::nisDomainOfDirectory(const std::string& zoneName) {
    try {
        return askNisDomain(zoneName);
    } catch (const tessa::TESSAException& e) {
        KARST_LOG(logger, tessa::LOG_WARN, "While retrieving NisDomain from AD: %s", e.what());
    }
    return zoneName;
}

std::string ADInterface::getNisDomain() {
    return configuredDomain(nisDomainOfDirectory(getZoneName()));
}

std::string ADInterface::readNisDomain() {
    return configuredDomain(askNisDomain(zoneNameOf(getZoneDN())));
}

/// The configuration's domain where it has one, else the directory's.
std::string ADInterface::configuredDomain(const std::string& domain) {
    const auto config = getConfig();
    if (!config->exists(PROP_DOMAIN_NAME)) {
        return domain;
    }
    std::string configured = config->get(PROP_DOMAIN_NAME);
    if (!isSafeFileNamePart(configured)) {
        KARST_LOG(logger, tessa::LOG_WARN,
                  "Value '%s' of property %s cannot be part of a file name. Using %s",
                  configured.c_str(), PROP_DOMAIN_NAME, domain.c_str());
        return domain;
    }
    if (configured != domain) {
        KARST_LOG(logger, tessa::LOG_INFORMATION, "NisDomain %s overrided by conf: %s",
                  domain.c_str(), configured.c_str());
    }
    return configured;
}

std::string ADInterface::getZoneHierarchy() const {
    const tessa::Lock lock(m_hierarchyProtect);
    return m_hierarchy;
}

std::map<std::string, std::string> ADInterface::getZoneDNs() const {
    const tessa::Lock lock(m_zoneDNsProtect);
    return m_zoneDNs;
}

std::vector<std::string> ADInterface::getZonesFromServer(const std::string& server) const {
    std::vector<std::string> zones;
    const tessa::Lock lock(m_zoneDNsProtect);
    for (const auto& [zone, answeredBy] : m_zoneDNs) {
        if (answeredBy == server) {
            zones.push_back(zone);
        }
    }
    return zones;
}

std::string ADInterface::getDomainDN(const std::string& server) const {
    const tessa::Lock lock(m_domainDNsProtect);
    const auto found = m_domainDNs.find(server);
    if (found == m_domainDNs.end()) {
        NIS_THROW(UnknownDC, "didn't find DC " + server, server);
    }
    return found->second;
}

/// DNS domain of the server, empty for an unknown one. The name's letter case does not matter.
std::string ADInterface::domainOfServer(const std::string& server) const {
    const tessa::Lock lock(m_domainDNsProtect);
    for (const auto& [name, domain] : m_domainDNs) {
        if (tessa::equalsIgnoreCase(name, server)) {
            return domain;
        }
    }
    return "";
}

boost::shared_ptr<const ADInterface::ObjectVector>
ADInterface::getMapNames(const std::string& server) const {
    const NamesByKey zones = getZoneDNs();
    const std::string domain = domainOfServer(server);
    auto objects = boost::make_shared<ObjectVector>();
    bool known = false;
    const tessa::Lock lock(m_mapsProtect);
    for (const std::string& zone : m_zoneOrder) {
        const auto answering = zones.find(zone);
        const bool answered = answering != zones.end();
        if (answered && !tessa::equalsIgnoreCase(answering->second, server)) {
            continue;
        }
        if (!answered && tessa::DN::domainFromDN(zone) != domain) {
            continue; // not a zone of this server, whoever answers for it
        }
        const auto maps = m_maps.find(zone);
        if (!answered || maps == m_maps.end() ||
            !tessa::equalsIgnoreCase(maps->second.server, server)) {
            TESSA_THROW(tessa::IPCException, "map names of zone " + zone + " are not known");
        }
        known = true;
        objects->insert(objects->end(), maps->second.objects.begin(), maps->second.objects.end());
    }
    if (!known) {
        // A server that no zone names any more (or yet) has not lost its maps.
        TESSA_THROW(tessa::IPCException, "map names of server " + server + " are not known");
    }
    return objects;
}

std::string ADInterface::entryFilter(const tessa::Int64& fromUSN, const tessa::Int64& toUSN) {
    std::string upper = "(usnchanged<=" + toUSN.toString() + ")";
    if (fromUSN == tessa::Int64::ZERO) {
        return upper;
    }
    // The caller has fromUSN already, so the search begins behind it.
    return "(&(usnchanged>=" + (fromUSN + 1).toString() + ")" + upper + ")";
}

boost::shared_ptr<tessa::ADObjectList> ADInterface::getMapEntries(const std::string& mapDN,
                                                                  const tessa::Int64& fromUSN,
                                                                  const tessa::Int64& toUSN) {
    try {
        return m_session.ldapPagedSearch(
            tessa::DN::domainFromDN(mapDN), entryFilter(fromUSN, toUSN), mapDN,
            {ENTRY_DEL_FLAG, ENTRY_KEY, ENTRY_VALUE}, tessa::SCOPE_ONE_LEVEL, 0, false);
    } catch (const tessa::TESSAException& e) {
        KARST_LOG(logger, tessa::LOG_WARN, "While retrieving map entries for map '%s' from AD: %s",
                  mapDN.c_str(), e.what());
        throw;
    }
}

tessa::ADObject ADInterface::getCurrentHighUSN(const std::string& server) {
    try {
        return m_session.ldapFetch(server, "", {HIGHEST_COMMITTED_USN}, false);
    } catch (const tessa::TESSAException& e) {
        KARST_LOG(logger, tessa::LOG_WARN, "While retrieving highestCommittedUSN from AD: %s",
                  e.what());
        throw;
    }
}

void ADInterface::startListUser() {
    m_session.startListUser();
}

tessa::UserRecord ADInterface::nextUser() {
    return m_session.getUser2(tessa::NEXT_ENTRY, tessa::UNIX_ONLY);
}

void ADInterface::endListUser() {
    m_session.endListUser();
}

void ADInterface::startListGroup() {
    m_session.startListGroup(false);
}

tessa::GroupRecord ADInterface::nextGroup() {
    return m_session.getGroup2(tessa::NEXT_ENTRY, tessa::GROUP_MEMBERSHIP | tessa::UNIX_ONLY);
}

void ADInterface::endListGroup() {
    m_session.endListGroup();
}

} // namespace nis
