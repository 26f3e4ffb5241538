#include "maps/IntrinsicADNisMap.h"

#include "common/ConfigKeys.h"
#include "common/Globals.h"
#include "common/NisException.h"
#include "common/ServingFilter.h"
#include "maps/DerivedMap.h"
#include "maps/GroupMap.h"
#include "maps/PasswdMap.h"
#include "store/NisCache.h"

#include <karst/Text.h>

#include <boost/make_shared.hpp>

#include <memory>

namespace nis {

namespace {

/// High USN of a cache that is not kept by USN: not 0, which would mean that it was never filled.
constexpr std::int64_t COMPLETE_USN = 1;

/// Keeps new snapshots of several maps from being made. A snapshot's mutex comes before the map's
/// lock, so these are taken before the writer side.
class SnapshotHold {
public:
    explicit SnapshotHold(const std::vector<boost::shared_ptr<NisMap>>& maps)
        KARST_NO_THREAD_SAFETY_ANALYSIS : m_maps(maps) {
        for (const auto& map : m_maps) {
            map->snapshotMutex().lock();
        }
    }
    ~SnapshotHold() KARST_NO_THREAD_SAFETY_ANALYSIS {
        for (const auto& map : m_maps) {
            map->snapshotMutex().unlock();
        }
    }
    SnapshotHold(const SnapshotHold&) = delete;
    SnapshotHold& operator=(const SnapshotHold&) = delete;

private:
    const std::vector<boost::shared_ptr<NisMap>>& m_maps;
};

} // namespace

IntrinsicADNisMap::IntrinsicADNisMap(boost::shared_ptr<NisCache> cache, std::string byName,
                                     std::string byId)
    : ADNisMap(std::move(cache)), m_byName(std::move(byName)), m_byId(std::move(byId)) {
    ServingFilter::addDerivedMap(m_byName);
    ServingFilter::addDerivedMap(m_byId);
}

std::vector<std::string> IntrinsicADNisMap::getIntrinsicNames() {
    return {PasswdMap::PASSWD_MAP_NAME, GroupMap::GROUP_MAP_NAME};
}

std::list<boost::shared_ptr<NisMap>> IntrinsicADNisMap::getDerivedMaps() {
    std::list<boost::shared_ptr<NisMap>> maps;
    const auto self = boost::static_pointer_cast<ADNisMap>(shared_from_this());
    if (ServingFilter::canServeToClients(m_byId)) {
        maps.push_back(boost::make_shared<DerivedMap>(m_byId, self, ID_LAYER));
    }
    if (ServingFilter::canServeToClients(m_byName)) {
        maps.push_back(boost::make_shared<DerivedMap>(m_byName, self, NAME_LAYER));
    }
    const tessa::Lock lock(m_derivedProtect);
    m_derived.remove_if([](const boost::weak_ptr<NisMap>& map) { return map.expired(); });
    m_derived.insert(m_derived.end(), maps.begin(), maps.end());
    return maps;
}

bool IntrinsicADNisMap::neverDownloadMapFromAD(const std::string& name) const {
    return name == m_byId || name == m_byName;
}

std::string IntrinsicADNisMap::matchByID(const std::string& id) const {
    const tessa::ReaderLock lock(getReaderWriterLock());
    return cacheGet(id, ID_LAYER).value;
}

MapEntry IntrinsicADNisMap::getFirstByID() const {
    const tessa::ReaderLock lock(getReaderWriterLock());
    return cacheGetFirst(ID_LAYER);
}

MapEntry IntrinsicADNisMap::getNextByID(const std::string& id) const {
    const tessa::ReaderLock lock(getReaderWriterLock());
    return cacheGetNext(id, ID_LAYER);
}

boost::shared_ptr<DataHorde> IntrinsicADNisMap::startHorde() const {
    const DataHorde::Identity identity{getName(), getDomain(), getServer(), getZoneHierarchy(),
                                       getTargetZone()};
    return boost::make_shared<DataHorde>(cache()->getFilename(), identity);
}

/// This map and those of its derived maps that are still in use.
std::vector<boost::shared_ptr<NisMap>> IntrinsicADNisMap::servedMaps() {
    std::vector<boost::shared_ptr<NisMap>> maps{shared_from_this()};
    const tessa::Lock lock(m_derivedProtect);
    for (const auto& derived : m_derived) {
        if (auto map = derived.lock()) {
            maps.push_back(std::move(map));
        }
    }
    return maps;
}

/// Whether the administrator wants an enumeration without any entry to be taken for a mistake.
bool IntrinsicADNisMap::keepInsteadOf(const DataHorde& horde) const {
    if (horde.recordCount() != 0 || cacheGetFirst(NAME_LAYER).key.empty() ||
        tessa::lower(getConfig()->get(PROP_EMPTY_ENUMERATION)) != "keep") {
        return false;
    }
    KARST_LOG(logger, tessa::LOG_WARN,
              "The directory delivers no entry at all for map '%s': keeping the old data (%s)",
              getName().c_str(), PROP_EMPTY_ENUMERATION);
    return true;
}

bool IntrinsicADNisMap::isUnchanged(DataHorde& horde) const {
    if (horde.isDirect()) {
        return false;
    }
    const std::string before = cache()->get(CHECKSUM_KEY, CHECKSUM_LAYER).value;
    const std::string& now = horde.getChecksum();
    KARST_LOG(logger, tessa::LOG_TRACE, "map '%s'  old checksum=%s  new checksum=%s",
              getName().c_str(), before.c_str(), now.c_str());
    if (before != now) {
        return false;
    }
    const MapEntry digest = cache()->get(DIGEST_KEY, DIGEST_LAYER);
    return digest.key.empty() || digest.value == horde.getDigest();
}

void IntrinsicADNisMap::dataHordeComplete(DataHorde& horde) {
    if (keepInsteadOf(horde)) {
        return;
    }
    if (isUnchanged(horde)) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "Data has not changed for map '%s', server %s",
                  getName().c_str(), getServer().c_str());
        return;
    }
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "Replacing old data for map '%s', server %s",
              getName().c_str(), getServer().c_str());
    // Filling the new cache takes long and changes nothing that clients see, so that their look-ups
    // go on meanwhile; the writer lock is for the replacement alone.
    const auto fresh = horde.createNisCache(getName(), getDomain(), getServer(), getZoneHierarchy(),
                                            getTargetZone(), getOrder() + 1, getLastCurrentTime());
    try {
        putIntoService(fresh);
    } catch (...) {
        fresh->deleteOnClose();
        throw;
    }
}

/// Orders read back as 0 after a restart, so a snapshot of the old data that survived next to the
/// new cache could be taken for its own: the old snapshots go before the new cache is complete.
void IntrinsicADNisMap::putIntoService(const boost::shared_ptr<NisCache>& fresh) {
    const auto maps = servedMaps();
    const SnapshotHold hold(maps);
    const tessa::WriterLock lock(getReaderWriterLock());
    for (const auto& map : maps) {
        map->dropSnapshot();
    }
    NisCache::Batch batch(*fresh);
    fresh->setHighUSN(COMPLETE_USN);
    batch.commit();
    setCache(fresh);
}

} // namespace nis
