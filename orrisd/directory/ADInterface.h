#pragma once

#include <karst/ADObject.h>
#include <karst/Int64.h>
#include <karst/LocalRpcSession.h>
#include <karst/Mutex.h>

#include <boost/shared_ptr.hpp>

#include <map>
#include <string>
#include <vector>

namespace nis {

/// The daemon's only way into the directory: every question goes to the local directory client
/// daemon. Getters may be called by any thread; everything that asks the directory belongs to the
/// one thread that updates. Failures of the session are the library's exceptions.
///
/// The collections that updateZoneHierarchy() reads are replaced as wholes, each under its own
/// mutex; no two of these mutexes are held at once. What could not be read keeps its last state: an
/// outage must never look like a directory without zones or maps.
class ADInterface {
public:
    static constexpr const char* SERVER_NAME = "_server";
    static constexpr const char* HIGHEST_COMMITTED_USN = "highestCommittedUSN";
    static constexpr const char* DN = "_dn";
    static constexpr const char* MAP_NAME = "cn";
    static constexpr const char* ENTRY_DEL_FLAG = "cn";
    static constexpr const char* ENTRY_KEY = "description";
    static constexpr const char* ENTRY_VALUE = "adminDescription";
    static constexpr const char* ZONE_DN = "zone_dn";
    static constexpr const char* MAP_CONTAINER = "nismaps";

    using ObjectVector = std::vector<tessa::ADObject>;

    ADInterface();

    /// The machine's zone; ends the daemon (status 5) when it cannot be read.
    static std::string getZoneDN();
    /// First value of the zone's name; ends the daemon when the machine is not joined (1) or the
    /// zone has no name (5).
    static std::string getZoneName();
    /// The NIS domain: of the configuration, else of the zone object, else the zone's name.
    static std::string getNisDomain();
    /// The same for a daemon that serves already: it ends nothing, and what cannot be asked is the
    /// session's exception.
    static std::string readNisDomain();

    std::string getZoneHierarchy() const;
    /// Reads hierarchy, servers and map objects again. What one zone cannot answer keeps its
    /// previous state.
    void updateZoneHierarchy();
    /// Zone DN to the name of the server that answered for it.
    std::map<std::string, std::string> getZoneDNs() const;
    std::vector<std::string> getZonesFromServer(const std::string& server) const;
    /// @throws UnknownDC
    std::string getDomainDN(const std::string& server) const;
    /// Map objects of a server (names compared without regard to case), those of the machine's own
    /// zone first, then those of its ancestors.
    /// @throws tessa::IPCException when the map names of one of its zones have never been read, a
    ///         zone of its domain has never been answered for, or no zone is answered by the
    ///         server: "not known" is never taken for "none"
    boost::shared_ptr<const ObjectVector> getMapNames(const std::string& server) const;

    /// Entries of one map whose USN is above fromUSN (all when it is 0) and not above toUSN.
    boost::shared_ptr<tessa::ADObjectList>
    getMapEntries(const std::string& mapDN, const tessa::Int64& fromUSN, const tessa::Int64& toUSN);
    /// The filter of getMapEntries().
    static std::string entryFilter(const tessa::Int64& fromUSN, const tessa::Int64& toUSN);
    /// The text between the fourth character of a zone's DN and its first comma.
    static std::string zoneNameOf(const std::string& zoneDN);
    /// The root object of the domain's (or server's) directory with its highest committed USN.
    tessa::ADObject getCurrentHighUSN(const std::string& server);

    void startListUser();
    tessa::UserRecord nextUser(); ///< @throws tessa::EndOfListException after the last
    void endListUser();
    void startListGroup();
    tessa::GroupRecord nextGroup(); ///< @throws tessa::EndOfListException after the last
    void endListGroup();

private:
    using NamesByKey = std::map<std::string, std::string>;
    /// The map objects of one zone, as one server delivered them.
    struct ZoneMaps {
        std::string server;
        ObjectVector objects;
    };

    std::string domainOfServer(const std::string& server) const;
    std::vector<std::string> readHierarchy();
    void findServers(const std::vector<std::string>& zones);
    std::string findServer(const std::string& zone);
    void readMapNames(const std::vector<std::string>& zones);
    ObjectVector readMapObjects(const std::string& zone, const std::string& server);
    static std::string nisDomainOfDirectory(const std::string& zoneName);
    static std::string askNisDomain(const std::string& zoneName);
    static std::string configuredDomain(const std::string& domain);

    static tessa::Mutex m_zoneDNProtect;
    static std::string m_zoneDN KARST_GUARDED_BY(m_zoneDNProtect); ///< read once, never again
    static tessa::Mutex m_hierarchyProtect;
    static tessa::Mutex m_zoneDNsProtect;
    static tessa::Mutex m_mapsProtect;
    static tessa::Mutex m_domainDNsProtect;

    std::string m_domain; ///< DNS domain of the zone
    tessa::LocalRpcSession m_session;
    NamesByKey m_domainDNs KARST_GUARDED_BY(m_domainDNsProtect); ///< by server
    NamesByKey m_zoneDNs KARST_GUARDED_BY(m_zoneDNsProtect);     ///< zone DN to server
    /// By zone DN, nearest zone first in m_zoneOrder; a zone that was never read is not here.
    std::map<std::string, ZoneMaps> m_maps KARST_GUARDED_BY(m_mapsProtect);
    std::vector<std::string> m_zoneOrder KARST_GUARDED_BY(m_mapsProtect);
    std::string m_hierarchy KARST_GUARDED_BY(m_hierarchyProtect);
};

} // namespace nis
