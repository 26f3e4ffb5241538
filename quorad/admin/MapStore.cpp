#include "MapStore.h"

#include <karst/DN.h>
#include <karst/Exceptions.h>
#include <karst/Text.h>

#include <algorithm>
#include <tuple>
#include <utility>

namespace quorad::admin {

namespace {

constexpr const char* KEY = "description";
constexpr const char* VALUE = "adminDescription";
constexpr const char* SETTINGS = "extensionName";
constexpr const char* MAP_CONTAINER = "nismaps";
constexpr const char* ZONES_CONTAINER = "CN=Zones";
constexpr const char* NIS_DOMAIN = "nisdomain=";

using Kind = ldap::Modification::Kind;

bool isZonesContainer(const std::string& dn) {
    return tessa::equalsIgnoreCase(dn.substr(0, dn.find(',')), ZONES_CONTAINER);
}

bool isNisDomain(const std::string& setting) {
    return tessa::equalsIgnoreCase(setting.substr(0, std::string(NIS_DOMAIN).size()), NIS_DOMAIN);
}

Entry toEntry(const tessa::ADObject& object) {
    Entry entry;
    entry.dn = object["_dn"];
    entry.name = object["cn"];
    entry.key = object[KEY];
    entry.value = object[VALUE];
    entry.ambiguous = object[KEY].size() != 1;
    return entry;
}

} // namespace

MapStore::MapStore(ldap::Connection& connection, std::string zone)
    : m_connection(connection), m_zone(std::move(zone)) {}

std::string MapStore::containerDn() const {
    return tessa::LDAPBinding::createChild(m_zone, MAP_CONTAINER);
}

std::string MapStore::mapDn(const std::string& map) const {
    return tessa::LDAPBinding::createChild(containerDn(), map);
}

bool MapStore::exists(const std::string& dn) {
    try {
        m_connection.read(dn, {"cn"});
        return true;
    } catch (const tessa::NotFoundException&) {
        return false;
    }
}

bool MapStore::zoneExists() {
    return exists(m_zone);
}

bool MapStore::mapExists(const std::string& map) {
    return exists(mapDn(map));
}

void MapStore::makeContainer(const std::string& dn, const std::string& extension) {
    std::vector<ldap::Modification> attributes{{Kind::ADD, "objectClass", {"container"}}};
    if (!extension.empty()) {
        attributes.push_back({Kind::ADD, SETTINGS, {extension}});
    }
    m_connection.add(dn, attributes);
}

std::vector<std::string> MapStore::createZone(const std::string& nisdomain) {
    std::vector<std::string> above;
    std::string dn = m_zone;
    while (!isZonesContainer(dn)) {
        above.push_back(dn);
        dn = tessa::DN::parent(dn);
        if (dn.empty() || tessa::equalsIgnoreCase(dn.substr(0, 3), "DC=")) {
            TESSA_THROW(tessa::BadDataException,
                        "'" + m_zone + "' does not lie in a container CN=Zones");
        }
    }
    above.push_back(dn);
    const std::string setting = nisdomain.empty() ? "" : NIS_DOMAIN + nisdomain;
    std::vector<std::string> made;
    for (auto it = above.rbegin(); it != above.rend(); ++it) {
        if (!exists(*it)) {
            makeContainer(*it, *it == m_zone ? setting : "");
            made.push_back(*it);
        }
    }
    const bool fresh = !made.empty() && made.back() == m_zone;
    if (!setting.empty() && !fresh) {
        std::vector<std::string> settings =
            m_connection.read(m_zone, {SETTINGS})[SETTINGS].values();
        if (std::find(settings.begin(), settings.end(), setting) == settings.end()) {
            settings.erase(std::remove_if(settings.begin(), settings.end(), isNisDomain),
                           settings.end());
            settings.push_back(setting);
            m_connection.modify(m_zone, {{Kind::REPLACE, SETTINGS, settings}});
            made.push_back(m_zone);
        }
    }
    if (!exists(containerDn())) {
        makeContainer(containerDn(), "");
        made.push_back(containerDn());
    }
    return made;
}

std::vector<MapStore::MapInfo> MapStore::list() {
    std::vector<tessa::ADObject> maps;
    const auto search = m_connection.search(containerDn(), "(objectClass=container)", {"cn"},
                                            ldap::SearchOptions());
    while (search->nextPage(maps)) {
    }
    std::vector<MapInfo> found;
    for (const tessa::ADObject& map : maps) {
        std::vector<tessa::ADObject> page;
        std::size_t count = 0;
        const auto inside = m_connection.search(map["_dn"], "(objectClass=container)", {"1.1"},
                                                ldap::SearchOptions());
        bool more = true;
        while (more) {
            page.clear();
            more = inside->nextPage(page);
            count += page.size();
        }
        found.push_back({map["cn"], count});
    }
    std::sort(found.begin(), found.end(),
              [](const MapInfo& a, const MapInfo& b) { return a.name < b.name; });
    return found;
}

void MapStore::createMap(const std::string& map) {
    makeContainer(mapDn(map), "");
}

void MapStore::deleteMap(const std::string& map, const std::vector<Entry>& entries,
                         const std::function<void()>& step) {
    // One by one: a controller may take longer for a large tree than anybody waits.
    for (const Entry& entry : entries) {
        m_connection.remove(entry.dn, false);
        step();
    }
    m_connection.remove(mapDn(map), true);
}

std::vector<Entry> MapStore::entries(const std::string& map) {
    std::vector<Entry> entries;
    std::vector<tessa::ADObject> page;
    const auto search = m_connection.search(mapDn(map), "(objectClass=container)",
                                            {"cn", KEY, VALUE}, ldap::SearchOptions());
    bool more = true;
    while (more) {
        page.clear();
        more = search->nextPage(page);
        std::transform(page.begin(), page.end(), std::back_inserter(entries), toEntry);
    }
    std::sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) {
        return std::tie(a.key, a.value, a.name) < std::tie(b.key, b.value, b.name);
    });
    return entries;
}

void MapStore::apply(const std::string& map, const Plan& plan, const std::function<void()>& step) {
    const std::string parent = mapDn(map);
    for (const Entry& entry : plan.removals) {
        m_connection.remove(entry.dn, true);
        step();
    }
    for (const Plan::Change& change : plan.changes) {
        std::vector<std::string> value;
        if (!change.record.value.empty()) {
            value.push_back(change.record.value);
        }
        m_connection.modify(change.entry.dn, {{Kind::REPLACE, KEY, {change.record.key}},
                                              {Kind::REPLACE, VALUE, value}});
        step();
    }
    for (const Plan::Addition& addition : plan.additions) {
        std::vector<ldap::Modification> attributes{
            {Kind::ADD, "objectClass", {"container"}},
            {Kind::ADD, KEY, {addition.record.key}},
        };
        if (!addition.record.value.empty()) {
            attributes.push_back({Kind::ADD, VALUE, {addition.record.value}});
        }
        m_connection.add(tessa::LDAPBinding::createChild(parent, addition.name), attributes);
        step();
    }
}

} // namespace quorad::admin
