#pragma once

#include "Plan.h"
#include "ldap/Connection.h"

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace quorad::admin {

/// The zones and maps of a domain, as objects behind one connection. Operations throw what the
/// connection throws.
class MapStore {
public:
    /// @param connection outlives this object
    MapStore(ldap::Connection& connection, std::string zone);

    struct MapInfo {
        std::string name;
        std::size_t entries;
    };

    /// Whether the zone object is there.
    bool zoneExists();
    /// Makes the zone with its container of maps, and the containers above it up to CN=Zones, as
    /// far as they are not there. An NIS domain replaces the one that the zone has.
    /// @param nisdomain empty: the zone's settings stay
    /// @return DNs of what was made or changed
    std::vector<std::string> createZone(const std::string& nisdomain);

    std::vector<MapInfo> list();
    bool mapExists(const std::string& map);
    void createMap(const std::string& map);
    /// Removes the map with its entries.
    /// @param entries all that the map has
    /// @param step called after each entry
    void deleteMap(const std::string& map, const std::vector<Entry>& entries,
                   const std::function<void()>& step);

    /// All entries of a map, sorted by key.
    std::vector<Entry> entries(const std::string& map);
    /// Does what a plan says. What was done before a failure stays; to do it again does the rest.
    /// @param step called after each change
    void apply(const std::string& map, const Plan& plan, const std::function<void()>& step);

    std::string mapDn(const std::string& map) const;
    const std::string& zone() const { return m_zone; }

private:
    bool exists(const std::string& dn);
    void makeContainer(const std::string& dn, const std::string& extension);
    std::string containerDn() const;

    ldap::Connection& m_connection;
    const std::string m_zone;
};

} // namespace quorad::admin
