#pragma once

#include "maps/NisMap.h"

#include <karst/Int64.h>
#include <karst/ReaderWriterLock.h>

#include <boost/shared_ptr.hpp>

#include <atomic>
#include <cstdint>
#include <list>
#include <string>

namespace nis {

class NisCache;

/// Base of every map that is filled from the directory and kept in a cache. Clients see layer 0 of
/// the cache; the other layers are private to the kinds.
///
/// Look-ups hold the read side of the map's lock for one read of the cache; initialize(), update()
/// and rebuild() belong to the one thread that updates and hold the write side around their
/// changes. The layered operations take no lock of their own: each is one step of the cache.
/// The cache may be replaced as a whole under way; whoever reads works on the one that he found.
class ADNisMap : public NisMap {
public:
    static constexpr std::int64_t NEVER = INT64_MAX;

    explicit ADNisMap(boost::shared_ptr<NisCache> cache);
    /// Removes the cache's file after deleteOnClose().
    ~ADNisMap() override;

    std::string getName() const override;
    tessa::ReaderWriterLock& getReaderWriterLock() const override { return m_lock; }
    std::string match(const std::string& key) const override;
    MapEntry getFirst() const override;
    MapEntry getNext(const std::string& key) const override;
    std::uint32_t getOrder() const override;
    std::string getDomain() const override;
    std::string getServer() const override;

    /// Maps that clients see and this map makes.
    virtual std::list<boost::shared_ptr<NisMap>> getDerivedMaps();
    /// A derived map is no longer served.
    virtual void derivedMapRemoved(const std::string& name);
    virtual bool canServeToClients() const;
    virtual void setLastCurrentTime(long time);
    virtual long getLastCurrentTime() const;
    /// First load of an empty cache.
    /// @param highUSN the directory server's highest committed USN
    virtual void initialize(const tessa::Int64& highUSN) = 0;
    /// Applies what changed since the last pass.
    virtual void update(const tessa::Int64& highUSN) = 0;
    /// Reads everything again into the existing cache.
    virtual void rebuild(const tessa::Int64& highUSN) = 0;
    virtual long getLastUpdateTime() const;
    virtual void setOrder(unsigned int order);
    /// Whether the map of that name must be kept although clients may not ask for it.
    virtual bool mustCacheThisMap(const std::string& name) const;
    /// Whether the map of that name is made by this one.
    virtual bool neverDownloadMapFromAD(const std::string& name) const;
    virtual std::string getMapDN() const;
    virtual std::string getZoneHierarchy() const;
    virtual std::string getTargetZone() const;
    virtual const char* type_name() const;
    /// Seconds since the epoch; NEVER when the map is not refreshed by time.
    virtual std::int64_t getNextUpdateTime() const;
    /// @throws UnknownKey
    virtual MapEntry cacheGet(const std::string& key, unsigned char layer) const;
    /// @throws DatabaseError for an empty key; BadCacheFile
    virtual void cachePut(const std::string& key, const std::string& value, unsigned char layer);
    virtual void cacheRemove(const std::string& key, unsigned char layer);
    virtual MapEntry cacheGetFirst(unsigned char layer) const;
    virtual MapEntry cacheGetNext(const std::string& key, unsigned char layer) const;
    virtual void setHighUSN(const tessa::Int64& usn);
    virtual tessa::Int64 getHighUSN() const;
    virtual void setLastUpdateTime();
    virtual void setNextUpdateTime();
    /// Replaces the cache; the old one's file goes away with its last reader.
    virtual void setCache(boost::shared_ptr<NisCache> cache);

    /// Reads the refresh interval from the configuration and schedules by it.
    void reconfigure();
    /// Makes the next reconfigure() of any map read the common interval again.
    static void resetDefaultUpdateInterval();

    /// The cache as it is now.
    boost::shared_ptr<NisCache> cache() const;

private:
    static std::int32_t readDefaultUpdateInterval();

    mutable tessa::ReaderWriterLock m_lock;
    std::atomic<std::int64_t> m_nextUpdateTime{NEVER};
    std::atomic<std::int32_t> m_updateInterval{0};
    boost::shared_ptr<NisCache> m_cache; ///< only through cache() and setCache(): atomic

    static std::atomic<std::int32_t> defaultUpdateInterval; ///< seconds; -1: not read
};

} // namespace nis
