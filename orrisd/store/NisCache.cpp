#include "store/NisCache.h"

#include "common/Globals.h"
#include "common/NisException.h"
#include "common/SafeName.h"

#include <karst/Text.h>

#include <algorithm>
#include <cstring>
#include <ctime>

#include <sys/stat.h>
#include <unistd.h>

namespace nis {

namespace {

using std::string_view_literals::operator""sv;

// Keys of the meta-data, in stored form: layer 255, then the name.
constexpr std::string_view USN_KEY = "\xff\0usn"sv;
constexpr std::string_view MAP_NAME_KEY = "\xff\0map name"sv;
constexpr std::string_view LAST_UPDATE_TIME_KEY = "\xff\0last update time"sv;
constexpr std::string_view SERVER_KEY = "\xff\0server"sv;
constexpr std::string_view DOMAIN_KEY = "\xff\0domain"sv;
constexpr std::string_view MAP_DN_KEY = "\xff\0map DN"sv;
constexpr std::string_view LAST_CURRENT_TIME_KEY = "\xff\0last current time"sv;
constexpr std::string_view VERSION_KEY = "\xff\0version"sv;
constexpr std::string_view ORDER_KEY = "\xff\0order"sv;
constexpr std::string_view ZONE_HIERARCHY = "\xff\0zone hierarchy"sv;
constexpr std::string_view TARGET_ZONES = "\xff\0target zones"sv;

/// A number as the record's bytes; little-endian on every machine that this runs on.
template <typename Number> std::string_view bytesOf(const Number& number) {
    return {reinterpret_cast<const char*>(&number), sizeof number};
}

/// Only eight bytes are a number; anything else, a missing record included, reads as 0.
std::int64_t numberOf(const tessa::DBItem& item) {
    std::int64_t number = 0;
    if (item.length() == sizeof number) {
        std::memcpy(&number, item.data(), sizeof number);
    }
    return number;
}

/// A dangling symbolic link counts as well: nothing can be created under its name.
bool exists(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0;
}

} // namespace

std::string NisCache::MakeCacheFilename(const std::string& domain, const std::string& mapName,
                                        const std::string& server, unsigned n) {
    const std::string stem = domain + ":" + mapName + ":" + server;
    while (true) {
        std::string name = stem;
        if (n > 0) {
            name.append(".").append(std::to_string(n));
        }
        name += MAP_SUFFIX;
        // The journal of a vanished store must not be taken for the new one's.
        if (!exists(name) && !exists(name + "-journal")) {
            return name;
        }
        ++n;
    }
}

bool NisCache::IsCacheFile(const std::string& path) {
    return path.size() > std::strlen(MAP_SUFFIX) && path.ends_with(MAP_SUFFIX) &&
           ::access(path.c_str(), F_OK) == 0;
}

std::string NisCache::MakeInternalKey(std::string_view key, unsigned char layer) {
    std::string stored;
    if (layer != 0 || (key.size() >= 2 && key[1] == '\0')) {
        stored.reserve(key.size() + 2);
        stored += static_cast<char>(layer);
        stored += '\0';
    }
    stored += key;
    return stored;
}

unsigned char NisCache::GetLayer(std::string_view storedKey) {
    if (storedKey.size() < 2 || storedKey[1] != '\0') {
        return 0;
    }
    return static_cast<unsigned char>(storedKey[0]);
}

std::string_view NisCache::StripLayer(std::string_view storedKey) {
    if (storedKey.size() >= 2 && storedKey[1] == '\0') {
        storedKey.remove_prefix(2);
    }
    return storedKey;
}

NisCache::NisCache(const std::string& domain, const std::string& mapName, const std::string& server,
                   const std::string& zoneHierarchy, const std::string& targetZones,
                   const std::string& mapDN)
    : m_domain(domain), m_mapName(mapName), m_server(server), m_zoneHierarchy(zoneHierarchy),
      m_targetZones(targetZones), m_mapDN(mapDN) {
    checkNames();
    m_filename = MakeCacheFilename(domain, mapName, server, 0);
    try {
        openStore(tessa::DB_CREATE); // leaves no half-made file
    } catch (const tessa::DBException& e) {
        fail("Failed to open NisCache", e);
    }
    try {
        tessa::DBStore::Batch batch(m_store, tessa::DBSync::TO_KERNEL);
        put(DOMAIN_KEY, m_domain);
        put(MAP_NAME_KEY, m_mapName);
        put(SERVER_KEY, m_server);
        put(ZONE_HIERARCHY, m_zoneHierarchy);
        put(TARGET_ZONES, m_targetZones);
        put(MAP_DN_KEY, m_mapDN);
        putDB(VERSION_KEY, bytesOf(FORMAT_VERSION));
        batch.commit();
    } catch (const tessa::DBException& e) {
        m_store.destroy();
        fail("storing to", e);
    } catch (const BadCacheFile&) {
        m_store.destroy();
        throw;
    }
}

NisCache::NisCache(const std::string& filename) : m_filename(filename) {
    try {
        openStore(tessa::DB_OPEN);
        m_store.checkStructure();
        if (!m_store.getIterator()->hasNext()) {
            NIS_THROW(BadCacheFile, "Attempt to load empty database", m_filename);
        }
    } catch (const tessa::DBException& e) {
        fail("Failed to open NisCache", e);
    } catch (const std::exception& e) {
        KARST_LOG(logger, tessa::LOG_WARN, "Map cache '%s': %s", m_filename.c_str(), e.what());
        NIS_THROW(BadCacheFile, "NisCache is not intact", m_filename);
    }
    checkVersion();
    try {
        readMetaData();
    } catch (const BadCacheFile&) {
        NIS_THROW(BadCacheFile, "Meta-data missing or corrupt", m_filename);
    }
}

NisCache::~NisCache() {
    try {
        m_store.close();
    } catch (const tessa::DBException& e) {
        KARST_LOG(logger, tessa::LOG_WARN, "Closing map cache '%s' for server %s: %s",
                  m_mapName.c_str(), m_server.c_str(), e.what());
    }
    if (!m_deleteOnClose) {
        return;
    }
    KARST_LOG(logger, tessa::LOG_TRACE, "Destructing map cache '%s' for server %s",
              m_mapName.c_str(), m_server.c_str());
    try {
        m_store.destroy();
    } catch (const tessa::DBException& e) {
        KARST_LOG(logger, tessa::LOG_WARN, "Destroying map cache '%s' for server %s: %s",
                  m_mapName.c_str(), m_server.c_str(), e.what());
    }
}

void NisCache::openStore(tessa::DBMode mode) {
    m_store.open(m_filename, mode, 0600);
    m_store.beforeCommit([this] { storeOrder(); });
}

/// Names come from the directory: one that would leave the cache directory must not reach a path.
void NisCache::checkNames() const {
    const std::string name = m_domain + ":" + m_mapName + ":" + m_server;
    if (isSafeFileNamePart(m_domain) && isSafeFileNamePart(m_mapName) &&
        isSafeFileNamePart(m_server) && fitsFileName(m_domain, m_mapName, m_server)) {
        return;
    }
    KARST_LOG(logger, tessa::LOG_WARN, "Map cache '%s' refused: the name makes no safe file name",
              tessa::printable(name).c_str());
    NIS_THROW(BadCacheFile, "unsafe name", name);
}

void NisCache::checkVersion() const {
    const tessa::DBItem item = getDB(VERSION_KEY);
    if (item.length() == 0) {
        NIS_THROW(BadCacheFile, "Cache file version is too old", m_filename);
    }
    std::uint32_t version = 0;
    if (item.length() != sizeof version) {
        NIS_THROW(BadCacheFile, "Cache file version unreadable", m_filename);
    }
    std::memcpy(&version, item.data(), sizeof version);
    if (version != FORMAT_VERSION) {
        NIS_THROW(BadCacheFile, "Incorrect version", m_filename);
    }
}

void NisCache::readMetaData() {
    get(DOMAIN_KEY, m_domain);
    get(MAP_NAME_KEY, m_mapName);
    get(SERVER_KEY, m_server);
    get(ZONE_HIERARCHY, m_zoneHierarchy);
    get(TARGET_ZONES, m_targetZones);
    get(MAP_DN_KEY, m_mapDN);
    get(LAST_CURRENT_TIME_KEY, m_lastCurrentTime);
    get(LAST_UPDATE_TIME_KEY, m_lastUpdateTime);
    m_order = static_cast<std::uint64_t>(numberOf(getDB(ORDER_KEY)));
    get(USN_KEY, m_highUSN);
}

void NisCache::putDB(std::string_view key, std::string_view value) {
    try {
        m_store.store(key, value, true);
    } catch (const tessa::DBException& e) {
        fail("storing to", e);
    }
}

tessa::DBItem NisCache::getDB(std::string_view key) const {
    try {
        return m_store.fetch(key);
    } catch (const tessa::DBException& e) {
        fail("fetching from", e);
    } catch (const std::exception&) {
        NIS_THROW(BadCacheFile, "fetching from", m_filename);
    }
}

void NisCache::put(std::string_view metaKey, const tessa::Int64& number) {
    put(metaKey, static_cast<long>(number.value()));
}

void NisCache::put(std::string_view metaKey, long number) {
    putDB(metaKey, bytesOf(number));
}

void NisCache::get(std::string_view metaKey, std::string& text) const {
    text = getDB(metaKey).view();
}

void NisCache::get(std::string_view metaKey, std::atomic<tessa::Int64>& number) const {
    number = tessa::Int64(numberOf(getDB(metaKey)));
}

void NisCache::get(std::string_view metaKey, std::atomic<long>& number) const {
    number = numberOf(getDB(metaKey));
}

void NisCache::fail(const char* operation, const tessa::DBException& cause) const {
    KARST_LOG(logger, tessa::LOG_WARN, "Map cache: %s %s", operation, cause.what());
    NIS_THROW(BadCacheFile, operation, m_filename);
}

void NisCache::put(const std::string& key, const std::string& value, unsigned char layer) {
    const tessa::Lock lock(mutex());
    writeWithOrder("storing to", [&] { putDB(MakeInternalKey(key, layer), value); });
}

void NisCache::remove(const std::string& key, unsigned char layer) {
    const tessa::Lock lock(mutex());
    writeWithOrder("remove from", [&] {
        try {
            m_store.remove(MakeInternalKey(key, layer));
        } catch (const tessa::DBException& e) {
            fail("remove from", e);
        }
    });
}

MapEntry NisCache::get(const std::string& key, unsigned char layer) const {
    const tessa::DBItem item = getDB(MakeInternalKey(key, layer));
    return item.present() ? MapEntry{key, item.toString()} : MapEntry::NOT_FOUND;
}

MapEntry NisCache::getFirst(unsigned char layer) const {
    try {
        // Layer 0 has no block of its own: it is what lies around the blocks of the others.
        const std::string start = layer == 0 ? std::string() : MakeInternalKey({}, layer);
        return walk(m_store.seek(start, false), layer);
    } catch (const tessa::DBException& e) {
        fail("getFirst or getNext from", e);
    }
}

MapEntry NisCache::getNext(const std::string& key, unsigned char layer) const {
    try {
        return walk(m_store.seek(MakeInternalKey(key, layer), false), layer);
    } catch (const tessa::DBException& e) {
        fail("getNext from", e);
    }
}

/// The first record of the layer from the given one on. Keys are in byte order, so all keys of a
/// layer but 0 lie side by side, and a walk over layer 0 passes each such block in one step.
MapEntry NisCache::walk(tessa::DBStore::Record record, unsigned char layer) const {
    while (record.found && GetLayer(record.key) != layer) {
        if (layer != 0) {
            return MapEntry::NOT_FOUND;
        }
        const char behind[] = {record.key[0], '\1'};
        record = m_store.seek(std::string_view(behind, sizeof behind), true);
    }
    if (!record.found) {
        return MapEntry::NOT_FOUND;
    }
    return {std::string(StripLayer(record.key)), std::move(record.value)};
}

/// A change of an entry and the order number that tells of it: both or neither. Within a batch the
/// number is stored once, at its end; nobody sees the file before.
template <typename Write> void NisCache::writeWithOrder(const char* operation, const Write& write) {
    const std::uint64_t order = m_order;
    const bool owed = m_orderOwed;
    try {
        tessa::DBStore::Batch batch(m_store, tessa::DBSync::TO_KERNEL);
        write();
        incOrder();
        batch.commit();
    } catch (const tessa::DBException& e) {
        m_order = order;
        m_orderOwed = owed;
        fail(operation, e);
    }
}

void NisCache::incOrder() {
    ++m_order;
    m_orderOwed = true;
}

/// Called before a batch is committed.
void NisCache::storeOrder() {
    if (m_orderOwed) {
        const std::uint64_t order = m_order;
        m_store.store(ORDER_KEY, bytesOf(order), true);
        m_orderOwed = false;
    }
}

void NisCache::setOrder(unsigned int order) {
    const tessa::Lock lock(mutex());
    // Four bytes, unlike incOrder(): an order set from outside reads as 0 after a restart.
    putDB(ORDER_KEY, bytesOf(order));
    m_order = order;
    m_orderOwed = false;
}

void NisCache::setLastUpdateTime(long t) {
    const tessa::Lock lock(mutex());
    const long time = t != 0 ? t : std::time(nullptr);
    put(LAST_UPDATE_TIME_KEY, time);
    m_lastUpdateTime = time;
}

void NisCache::setLastCurrentTime(long t) {
    const tessa::Lock lock(mutex());
    put(LAST_CURRENT_TIME_KEY, t);
    m_lastCurrentTime = t;
}

void NisCache::setHighUSN(const tessa::Int64& usn) {
    const tessa::Lock lock(mutex());
    put(USN_KEY, usn);
    m_highUSN = usn;
}

void NisCache::deleteOnClose() {
    m_deleteOnClose = true;
}

/// Brings the fields back in line with a store that went back to an earlier state.
void NisCache::recover() {
    try {
        get(LAST_CURRENT_TIME_KEY, m_lastCurrentTime);
        get(LAST_UPDATE_TIME_KEY, m_lastUpdateTime);
        get(USN_KEY, m_highUSN);
    } catch (const BadCacheFile&) {
        m_highUSN = tessa::Int64::ZERO; // the next refresh reads everything again
    }
    incOrder();
    try {
        storeOrder();
    } catch (const tessa::DBException& e) {
        // It stays owed to the next write.
        KARST_LOG(logger, tessa::LOG_WARN, "Map cache: order not stored: %s", e.what());
    }
}

NisCache::Batch::Batch(NisCache& cache) try : m_cache(cache), m_batch(cache.m_store) {
    const tessa::Lock lock(cache.mutex());
    ++cache.m_batchDepth;
} catch (const tessa::DBException& e) {
    cache.fail("storing to", e);
}

NisCache::Batch::~Batch() {
    const tessa::Lock lock(m_cache.mutex());
    if (!m_done && !m_cache.m_store.isOpen()) {
        m_done = true; // closing the store has committed the batch
        --m_cache.m_batchDepth;
    }
    try {
        commit();
    } catch (const BadCacheFile&) {
        KARST_LOG(logger, tessa::LOG_WARN,
                  "Changes of map cache '%s' for server %s are lost; the next refresh repeats them",
                  m_cache.m_mapName.c_str(), m_cache.m_server.c_str());
    }
}

void NisCache::Batch::commit() {
    const tessa::Lock lock(m_cache.mutex());
    if (m_done) {
        return;
    }
    m_done = true;
    const bool outermost = --m_cache.m_batchDepth == 0;
    try {
        m_batch.commit();
    } catch (const tessa::DBException& e) {
        if (outermost) {
            m_cache.recover();
        }
        m_cache.fail("storing to", e);
    }
}

} // namespace nis
