#pragma once

#include "common/NisException.h"
#include "maps/ADNisMap.h"
#include "server/NisServer.h"

#include <karst/ADObject.h>
#include <karst/Int64.h>
#include <karst/Mutex.h>

#include <boost/shared_ptr.hpp>

#include <atomic>
#include <ctime>
#include <list>
#include <map>
#include <string>
#include <vector>

namespace nis {

class CacheSnapshot;
class NisCache;

/// A map found on the server and not installed yet.
struct NewMap {
    std::string name;
    std::string dn;   ///< of the map object
    std::string zone; ///< DN of the zone that holds it
};

/// The maps that came from one directory server, owned by the manager.
///
/// Requests run on any thread and take the map mutex for one look-up; the map that they find stays
/// alive until they are done with it. Everything that changes the set belongs to the main thread:
/// the update mutex guards the table of directory-backed maps for the whole of an update. It is
/// taken before the map mutex.
class MapSet : public DomainNisServer, public Reconfigurable {
public:
    MapSet(const std::string& domain, const std::string& serverName);
    ~MapSet() override;

    MapEntry match(const std::string& map, const std::string& key) const override;
    MapEntry getFirst(const std::string& map) const override;
    MapEntry getNext(const std::string& map, const std::string& key) const override;
    boost::shared_ptr<MapIterator> getAll(const std::string& map) const override;
    bool doesMapExist(const std::string& map) const override;
    std::uint32_t getOrder(const std::string& map) const override;
    MapNames getMapList() const override;

    /// The map of the class that belongs to the cache's map name.
    virtual boost::shared_ptr<ADNisMap>
    makeADNisMap(const boost::shared_ptr<NisCache>& cache) const;
    /// Puts the map in service, with its derived maps. A map that had the name is replaced, not
    /// discarded. Does nothing for what is in service already.
    virtual void install(const boost::shared_ptr<ADNisMap>& map);
    virtual std::string getServerName() const;
    /// The set begins to serve clients: no map's order may be below the one that clients saw of the
    /// map of that name before.
    /// @param orders last orders by map name; names of this set that are missing are added with 0
    virtual void setCurrent(std::map<std::string, unsigned int>& orders);
    /// @return whether a map took it
    virtual bool attachSnapshot(const boost::shared_ptr<CacheSnapshot>& snapshot);
    virtual void updateSnapshots();
    /// Brings the maps in step with the directory.
    /// @throws ServerMismatch, UnknownDC, and the session's exceptions; what was done stays
    virtual void update(bool rebuild, bool refresh);
    /// Of the map that was updated longest ago; 0 for an empty set. Seconds since the epoch.
    virtual std::time_t getLastUpdateTime() const;
    /// Marks all maps: their files go away with them.
    virtual void deleteOnClose();
    void reconfigure() override;
    /// DNs of the zones that the maps came from, each once.
    virtual std::vector<std::string> getTargetZones() const;
    virtual bool mustCacheThisMap(const std::string& name) const;

    /// Whether a map of that name, which need not be there yet, makes maps that clients may see, so
    /// that it is wanted even if they may not see it itself.
    static bool isWantedAsSource(const std::string& name);
    /// The map if it is served, a null pointer otherwise.
    boost::shared_ptr<NisMap> findMap(const std::string& name) const;
    /// Of the map that is due first; the largest value for an empty set.
    std::time_t getNextUpdateTime() const;
    /// Whether the last update made every map that the server has: none was left out because the
    /// disk was full.
    bool isComplete() const { return m_complete; }
    /// When the set was last made current; 0 for an empty set.
    std::time_t getLastCurrentTime() const;

    /// Another server answers for a zone of this set: remembers since when, unless it does already.
    void findDCswitching();
    /// The set's own server answers again.
    void forgetDCswitching();
    /// Whether the delay since findDCswitching() is over; then it is forgotten.
    bool replaceDCNow();

protected:
    using ADNisMaps = std::map<std::string, boost::shared_ptr<ADNisMap>>;

    /// Deletes vanished maps, refreshes those that are due (or all of them), makes the new ones.
    virtual void adjustMaps(std::list<NewMap>& newMaps, std::list<std::string>& vanished,
                            tessa::Int64 usn, bool rebuild, bool refresh)
        KARST_REQUIRES(m_updateProtect);
    /// A new, empty map with its cache.
    virtual boost::shared_ptr<ADNisMap> makeADNisMap(const std::string& name, const std::string& dn,
                                                     const std::string& zone) const;

    /// @throws ServerMismatch when the object is not from this set's server
    void checkServer(const tessa::ADObject& object) const;
    /// Whether clients may not see the installed map, but get a map that is made from it.
    bool isNeededForOthers(const std::string& name) const KARST_REQUIRES(m_updateProtect);
    boost::shared_ptr<NisCache> makeCache(const std::string& name, const std::string& hierarchy,
                                          const std::string& dn, const std::string& zone) const;

    mutable tessa::Mutex m_updateProtect;
    ADNisMaps m_adMaps KARST_GUARDED_BY(m_updateProtect);

private:
    struct NisMapEntry {
        boost::shared_ptr<NisMap> map;
    };
    using NisMaps = std::map<std::string, NisMapEntry>;
    struct Findings;

    boost::shared_ptr<NisMap> getMap(const std::string& name) const;
    NisMaps servedMaps() const;

    bool isUsableName(const std::string& name) const;
    void sortObject(const tessa::ADObject& object, Findings& findings) const
        KARST_REQUIRES(m_updateProtect);
    void replaceMapsAheadOf(const tessa::Int64& usn, Findings& findings) const;
    tessa::Int64 currentHighUSN() const;

    bool serve(const std::string& name, const boost::shared_ptr<NisMap>& map);
    void installDerived(const boost::shared_ptr<ADNisMap>& map, const ADNisMap* replaced);
    void refreshMap(ADNisMap& map, tessa::Int64 usn, bool rebuild);
    void makeNewMap(const NewMap& newMap, tessa::Int64 usn) KARST_REQUIRES(m_updateProtect);
    void initializeMap(const NewMap& newMap, tessa::Int64 usn) KARST_REQUIRES(m_updateProtect);

    void deleteADMap(const std::string& name) KARST_REQUIRES(m_updateProtect);
    void deleteNisMap(const std::string& name);
    boost::shared_ptr<NisMap> deleteMap(const std::string& name);
    static void warnOfDisk(const char* step, const std::string& name, FileSystemError& e,
                           const char* ending);

    const std::string m_domain;
    const std::string m_serverName;
    mutable tessa::Mutex m_mapProtect;
    NisMaps m_nisMaps KARST_GUARDED_BY(m_mapProtect);
    std::time_t m_switchDetected = 0; ///< main thread; 0: no switch is pending
    bool m_complete = true;           ///< main thread
    std::atomic<std::time_t> m_lastCurrentTime{0};
};

} // namespace nis
