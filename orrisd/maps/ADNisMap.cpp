#include "maps/ADNisMap.h"

#include "common/ConfigKeys.h"
#include "common/Globals.h"
#include "common/NisException.h"
#include "store/NisCache.h"

#include <boost/smart_ptr/atomic_shared_ptr.hpp>

#include <algorithm>
#include <ctime>

namespace nis {

std::atomic<std::int32_t> ADNisMap::defaultUpdateInterval{-1};

namespace {

std::int32_t toInterval(long seconds) {
    return static_cast<std::int32_t>(std::clamp<long>(seconds, INT32_MIN, INT32_MAX));
}

} // namespace

ADNisMap::ADNisMap(boost::shared_ptr<NisCache> cache) : m_cache(std::move(cache)) {
    reconfigure();
}

ADNisMap::~ADNisMap() {
    if (NisMap::getDeleteOnClose()) {
        m_cache->deleteOnClose();
    }
}

boost::shared_ptr<NisCache> ADNisMap::cache() const {
    return boost::atomic_load(&m_cache);
}

void ADNisMap::setCache(boost::shared_ptr<NisCache> cache) {
    m_cache->deleteOnClose();
    boost::atomic_store(&m_cache, std::move(cache));
}

std::string ADNisMap::getName() const {
    return cache()->getMapName();
}

std::string ADNisMap::getDomain() const {
    return cache()->getDomain();
}

std::string ADNisMap::getServer() const {
    return cache()->getServer();
}

std::uint32_t ADNisMap::getOrder() const {
    return static_cast<std::uint32_t>(cache()->getOrder());
}

std::string ADNisMap::match(const std::string& key) const {
    const tessa::ReaderLock lock(m_lock);
    MapEntry entry = cache()->get(key, 0);
    if (entry.key.empty()) {
        NIS_THROW(UnknownKey, key);
    }
    return std::move(entry.value);
}

MapEntry ADNisMap::getFirst() const {
    const tessa::ReaderLock lock(m_lock);
    return cache()->getFirst(0);
}

MapEntry ADNisMap::getNext(const std::string& key) const {
    const tessa::ReaderLock lock(m_lock);
    return cache()->getNext(key, 0);
}

std::list<boost::shared_ptr<NisMap>> ADNisMap::getDerivedMaps() {
    return {};
}

void ADNisMap::derivedMapRemoved(const std::string& /*name*/) {}

bool ADNisMap::canServeToClients() const {
    return true;
}

void ADNisMap::setLastCurrentTime(long time) {
    cache()->setLastCurrentTime(time);
}

long ADNisMap::getLastCurrentTime() const {
    return cache()->getLastCurrentTime();
}

long ADNisMap::getLastUpdateTime() const {
    return cache()->getLastUpdateTime();
}

void ADNisMap::setOrder(unsigned int order) {
    cache()->setOrder(order);
}

bool ADNisMap::mustCacheThisMap(const std::string& /*name*/) const {
    return false;
}

bool ADNisMap::neverDownloadMapFromAD(const std::string& /*name*/) const {
    return false;
}

std::string ADNisMap::getMapDN() const {
    return cache()->getMapDN();
}

std::string ADNisMap::getZoneHierarchy() const {
    return cache()->getZoneHierarchy();
}

std::string ADNisMap::getTargetZone() const {
    return cache()->getTargetZone();
}

const char* ADNisMap::type_name() const {
    return "ADNisMap";
}

std::int64_t ADNisMap::getNextUpdateTime() const {
    return m_nextUpdateTime;
}

MapEntry ADNisMap::cacheGet(const std::string& key, unsigned char layer) const {
    MapEntry entry = cache()->get(key, layer);
    if (entry.key.empty()) {
        NIS_THROW(UnknownKey, key);
    }
    return entry;
}

void ADNisMap::cachePut(const std::string& key, const std::string& value, unsigned char layer) {
    if (key.empty()) {
        NIS_THROW(DatabaseError, "empty key from: " + value);
    }
    cache()->put(key, value, layer);
}

void ADNisMap::cacheRemove(const std::string& key, unsigned char layer) {
    cache()->remove(key, layer);
}

MapEntry ADNisMap::cacheGetFirst(unsigned char layer) const {
    return cache()->getFirst(layer);
}

MapEntry ADNisMap::cacheGetNext(const std::string& key, unsigned char layer) const {
    return cache()->getNext(key, layer);
}

void ADNisMap::setHighUSN(const tessa::Int64& usn) {
    cache()->setHighUSN(usn);
}

tessa::Int64 ADNisMap::getHighUSN() const {
    return cache()->getHighUSN();
}

void ADNisMap::setLastUpdateTime() {
    cache()->setLastUpdateTime(0);
}

void ADNisMap::setNextUpdateTime() {
    // An interval of 0 means that time never makes the map due.
    const std::int32_t interval = m_updateInterval;
    m_nextUpdateTime = interval == 0 ? NEVER : std::int64_t{std::time(nullptr)} + interval;
}

void ADNisMap::resetDefaultUpdateInterval() {
    defaultUpdateInterval = -1;
}

std::int32_t ADNisMap::readDefaultUpdateInterval() {
    std::int32_t seconds = defaultUpdateInterval;
    if (seconds >= 0) {
        return seconds;
    }
    seconds = toInterval(getConfig()->getTime(PROP_UPDATE, DEFAULT_UPDATE_INTERVAL));
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "ADNisMap: %s=%d seconds", PROP_UPDATE, seconds);
    if (seconds < 0) {
        KARST_LOG(logger, tessa::LOG_WARN,
                  "Negative value for property %s not allowed. Using %d seconds", PROP_UPDATE,
                  static_cast<int>(DEFAULT_UPDATE_INTERVAL));
        seconds = static_cast<std::int32_t>(DEFAULT_UPDATE_INTERVAL);
    }
    defaultUpdateInterval = seconds;
    return seconds;
}

void ADNisMap::reconfigure() {
    const std::int32_t common = readDefaultUpdateInterval();
    const std::string key = std::string(PROP_UPDATE) + "." + cache()->getMapName();
    std::int32_t interval = toInterval(getConfig()->getTime(key, common));
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "ADNisMap: %s=%d seconds", key.c_str(), interval);
    if (interval < 0) {
        KARST_LOG(logger, tessa::LOG_WARN,
                  "Negative value for property %s not allowed. Using %d seconds", key.c_str(),
                  common);
        interval = common;
    }
    m_updateInterval = interval;
    setNextUpdateTime();
}

} // namespace nis
