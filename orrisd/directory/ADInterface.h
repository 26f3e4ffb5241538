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

    std::string getZoneHierarchy() const;
    /// Reads hierarchy, servers and map objects again. What one zone cannot answer keeps its
    /// previous state.
    void updateZoneHierarchy();
    /// Zone DN to the name of the server that answered for it.
    std::map<std::string, std::string> getZoneDNs() const;
    std::vector<std::string> getZonesFromServer(const std::string& server) const;
    /// @throws UnknownDC
    std::string getDomainDN(const std::string& server) const;
    /// Map objects of a server (names compared without regard to case).
    /// @throws tessa::IPCException when the map names of one of its zones have never been read, so
    ///         that "not known" is never taken for "none"
    boost::shared_ptr<const ObjectVector> getMapNames(const std::string& server) const;

    /// Entries of one map whose USN is above fromUSN (all when it is 0) and not above toUSN.
    boost::shared_ptr<tessa::ADObjectList> getMapEntries(const std::string& mapDN,
                                                         const tessa::Int64& fromUSN,
                                                         const tessa::Int64& toUSN);
    /// The root object of the domain's (or server's) directory with its highest committed USN.
    tessa::ADObject getCurrentHighUSN(const std::string& server);

    void startListUser();
    tessa::UserRecord nextUser(); ///< @throws tessa::EndOfListException after the last
    void endListUser();
    void startListGroup();
    tessa::GroupRecord nextGroup(); ///< @throws tessa::EndOfListException after the last
    void endListGroup();

private:
    // Completed by the implementation.
    std::string m_domain;
    tessa::LocalRpcSession m_session;
};

} // namespace nis
