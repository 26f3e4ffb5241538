#pragma once

#include "common/MapEntry.h"

#include <karst/DBStore.h>
#include <karst/Exceptions.h>
#include <karst/Int64.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>

namespace nis {

/// On-disk copy of one map of one directory server: entries in layers, and the meta-data that say
/// what the map is and how fresh. The file format is described in docs/formats.md.
///
/// The store's mutex is the cache's lock; every operation is safe by itself, and the getters take
/// no lock. Failures of the store are BadCacheFile, whose argument is the file name; what the store
/// said is logged at warning level.
class NisCache {
public:
    static constexpr unsigned char META_LAYER = 255;
    static constexpr const char* MAP_SUFFIX = ".map";
    static constexpr std::uint32_t FORMAT_VERSION = 1;

    /// Makes a new, empty cache under the first free name. Names that cannot be part of a file name
    /// are refused.
    NisCache(const std::string& domain, const std::string& mapName, const std::string& server,
             const std::string& zoneHierarchy, const std::string& targetZones,
             const std::string& mapDN);
    /// Opens and checks an existing cache.
    explicit NisCache(const std::string& filename);
    ~NisCache();
    NisCache(const NisCache&) = delete;
    NisCache& operator=(const NisCache&) = delete;

    /// First free file name for the three parts: no number, then ".1", ".2" and so on.
    static std::string MakeCacheFilename(const std::string& domain, const std::string& mapName,
                                         const std::string& server, unsigned n);
    static bool IsCacheFile(const std::string& path);

    static std::string MakeInternalKey(std::string_view key, unsigned char layer);
    static unsigned char GetLayer(std::string_view storedKey);
    static std::string_view StripLayer(std::string_view storedKey);

    void put(const std::string& key, const std::string& value, unsigned char layer);
    MapEntry get(const std::string& key, unsigned char layer) const;
    void remove(const std::string& key, unsigned char layer);
    MapEntry getFirst(unsigned char layer) const;
    MapEntry getNext(const std::string& key, unsigned char layer) const;

    void setOrder(unsigned int order);
    void setLastUpdateTime(long t); ///< seconds since the epoch; 0: now
    void setLastCurrentTime(long t);
    void setHighUSN(const tessa::Int64& usn);

    const std::string& getFilename() const { return m_filename; }
    const std::string& getDomain() const { return m_domain; }
    const std::string& getMapName() const { return m_mapName; }
    const std::string& getServer() const { return m_server; }
    const std::string& getZoneHierarchy() const { return m_zoneHierarchy; }
    const std::string& getTargetZone() const { return m_targetZones; }
    const std::string& getMapDN() const { return m_mapDN; }
    long getLastCurrentTime() const { return m_lastCurrentTime; }
    long getLastUpdateTime() const { return m_lastUpdateTime; }
    std::uint64_t getOrder() const { return m_order; }
    tessa::Int64 getHighUSN() const { return m_highUSN.load(); }

    /// The file goes away with the object.
    void deleteOnClose();

    /// Several operations as one step for other threads (taken recursively by each operation).
    tessa::Mutex& mutex() const { return m_store.mutex(); }

    /// The writes of one update pass as one transaction; see tessa::DBStore::Batch. When it cannot
    /// be made durable the fields go back to what the store holds, but the order, which moves on,
    /// so that no snapshot of the lost state is ever taken for the present one.
    class Batch {
    public:
        explicit Batch(NisCache& cache);
        ~Batch();
        Batch(const Batch&) = delete;
        Batch& operator=(const Batch&) = delete;
        /// @throws BadCacheFile "storing to"
        void commit();

    private:
        NisCache& m_cache;
        tessa::DBStore::Batch m_batch;
        bool m_done = false;
    };

private:
    // Callers of these hold the cache lock.
    void incOrder();
    void storeOrder();
    void recover();
    template <typename Write> void writeWithOrder(const char* operation, const Write& write);

    void putDB(std::string_view key, std::string_view value);
    tessa::DBItem getDB(std::string_view key) const;
    void put(std::string_view metaKey, const std::string& text) { putDB(metaKey, text); }
    void put(std::string_view metaKey, const tessa::Int64& number);
    void put(std::string_view metaKey, long number);
    void get(std::string_view metaKey, std::string& text) const;
    void get(std::string_view metaKey, std::atomic<tessa::Int64>& number) const;
    void get(std::string_view metaKey, std::atomic<long>& number) const;

    void checkNames() const;
    void checkVersion() const;
    void openStore(tessa::DBMode mode);
    void readMetaData();
    MapEntry walk(tessa::DBStore::Record record, unsigned char layer) const;
    [[noreturn]] void fail(const char* operation, const tessa::DBException& cause) const;

    std::string m_filename;
    mutable tessa::DBStore m_store;
    int m_batchDepth = 0;     ///< cache batches that are open, one in the other
    bool m_orderOwed = false; ///< the stored order is behind the one in memory
    std::atomic<bool> m_deleteOnClose{false};
    std::string m_domain;
    std::string m_mapName;
    std::string m_server;
    std::string m_zoneHierarchy;
    std::string m_targetZones;
    std::string m_mapDN;
    std::atomic<long> m_lastCurrentTime{0};
    std::atomic<long> m_lastUpdateTime{0};
    std::atomic<std::uint64_t> m_order{0};
    std::atomic<tessa::Int64> m_highUSN{};
};

} // namespace nis
