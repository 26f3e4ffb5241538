#pragma once

#include "common/ServingFilter.h"
#include "server/MapSet.h"
#include "server/NisServer.h"

#include <karst/Mutex.h>

#include <boost/shared_ptr.hpp>

#include <ctime>
#include <exception>
#include <functional>
#include <list>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace nis {

class CacheSnapshot;

/// Comes first when it was made current later.
struct MostRecentToFront {
    bool operator()(const boost::shared_ptr<MapSet>& a, const boost::shared_ptr<MapSet>& b) const {
        return a->getLastCurrentTime() > b->getLastCurrentTime();
    }
};

/// All map sets of the served domain, and which of them serve clients now: for each zone those of
/// the directory server that the zone's maps were last taken from. A change of server takes effect
/// after a delay, and only once the new server's maps are there.
///
/// Requests run on any thread and take the mutex for a copy of a pointer. Everything else belongs
/// to the main thread, which alone changes what the mutex guards; it takes no other lock under it.
class MapSetManager : public DomainNisServer, public Reconfigurable {
public:
    struct ByPointer {
        bool operator()(const boost::shared_ptr<MapSet>& a,
                        const boost::shared_ptr<MapSet>& b) const {
            return std::less<>()(a.get(), b.get());
        }
    };
    using MapSets = std::set<boost::shared_ptr<MapSet>, ByPointer>;

    explicit MapSetManager(const std::string& domain);
    ~MapSetManager() override;

    MapEntry match(const std::string& map, const std::string& key) const override;
    MapEntry getFirst(const std::string& map) const override;
    MapEntry getNext(const std::string& map, const std::string& key) const override;
    boost::shared_ptr<MapIterator> getAll(const std::string& map) const override;
    bool doesMapExist(const std::string& map) const override;
    std::uint32_t getOrder(const std::string& map) const override;
    MapNames getMapList() const override;
    void reconfigure() override;

    /// The set of that server, made when there is none; for ".GLOBAL" the global set.
    boost::shared_ptr<MapSet> getMapSet(const std::string& serverName);
    /// The sets that serve clients.
    /// @throws UnknownMap "No maps present" when there is none
    boost::shared_ptr<const MapSets> getCurrent() const;

    static bool canServeToClients(const std::string& map) {
        return ServingFilter::canServeToClients(map);
    }
    static bool neverDownloadMapFromAD(const std::string& map) {
        return ServingFilter::neverDownloadMapFromAD(map);
    }
    static void addDerivedMap(const std::string& map) { ServingFilter::addDerivedMap(map); }
    /// Whether clients may ask for the map, or get a map that is made from it.
    bool mustCacheThisMap(const std::string& map) const;

    /// Gives a snapshot found on disk to its map; whoever is refused drops it.
    void attachSnapshot(const boost::shared_ptr<CacheSnapshot>& snapshot);
    /// Brings all sets in step with the directory. A set that fails keeps serving what it has, and
    /// the others are updated all the same.
    /// @throws the first failure, at the end
    void update(bool rebuild, bool refresh);
    /// Orders the sets found on disk, and lets those serve that were current last.
    void sortMapSets();
    /// Makes the sets of the zone table current and discards those beyond "nisd.maps.max".
    void setCurrent();

    /// Seconds since the epoch, of the sets that serve; 0 when none does.
    std::time_t getNextUpdateTime() const;
    /// Seconds since the epoch; 0 when maps that are wanted were never updated.
    std::time_t getLastUpdateTime() const;

private:
    using ZoneTable = std::map<std::string, std::string>; ///< zone DN to server name
    using SetList = std::list<boost::shared_ptr<MapSet>>; ///< most recently current first
    using Orders = std::map<std::string, unsigned int>;

    /// What became of the sets in an update. One that lacks some maps is in both.
    struct Outcome {
        MapSets updated;
        MapSets failed;
        std::exception_ptr first; ///< null when nothing was thrown
    };

    boost::shared_ptr<NisMap> findMap(const std::string& name) const;
    boost::shared_ptr<const MapSets> currentSets() const;
    SetList allSets() const;
    ZoneTable zoneTable() const;
    boost::shared_ptr<MapSet> findMapSet(const std::string& serverName) const;

    void readZones(bool rebuild);
    ZoneTable keepUnknownZones(const ZoneTable& answered) const;
    std::string chooseServer(const std::string& present, const std::string& answered,
                             std::map<std::string, bool>& decisions);
    void updateSet(const boost::shared_ptr<MapSet>& set, bool rebuild, bool refresh,
                   Outcome& outcome);
    bool mayMakeCurrent(const Outcome& outcome) const;
    void setCurrent(const MapSets& leftOut);
    void receive(const MapSets& wanted);
    void discardOldest();
    bool wantsGlobalMaps() const;

    const std::string m_domain;
    const boost::shared_ptr<MapSet> m_globalMapSet;
    mutable tessa::Mutex m_protect;
    SetList m_mapSets KARST_GUARDED_BY(m_protect);
    ZoneTable m_zones KARST_GUARDED_BY(m_protect);
    /// Replaced as a whole, so that a request's copy costs one pointer.
    boost::shared_ptr<const MapSets> m_current_mapSets KARST_GUARDED_BY(m_protect);
};

} // namespace nis
