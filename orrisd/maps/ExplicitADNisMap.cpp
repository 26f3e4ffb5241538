#include "maps/ExplicitADNisMap.h"

#include "common/Globals.h"
#include "common/NisException.h"
#include "common/ServingFilter.h"
#include "maps/DerivedMap.h"
#include "maps/ExplicitSlots.h"
#include "maps/RecordRules.h"
#include "store/NisCache.h"

#include <boost/make_shared.hpp>

#include <algorithm>

namespace nis {

namespace {

constexpr unsigned char OBJECT_LAYER = 1;

void logBadRecord(const BadRecord& e) {
    KARST_LOG(logger, tessa::LOG_WARN, "Error when parsing record '%s'", e.what());
}

} // namespace

ExplicitADNisMap::ExplicitADNisMap(boost::shared_ptr<NisCache> cache,
                                   std::vector<std::string> derivedNames)
    : ADNisMap(std::move(cache)), m_derivedNames(std::move(derivedNames)), m_ledger(*this) {
    for (const std::string& name : m_derivedNames) {
        ServingFilter::addDerivedMap(name);
    }
}

ExplicitADNisMap::~ExplicitADNisMap() = default;

unsigned ExplicitADNisMap::numMapsServed() const {
    return std::max(1U, static_cast<unsigned>(m_derivedNames.size()));
}

bool ExplicitADNisMap::neverDownloadMapFromAD(const std::string& name) const {
    return std::find(m_derivedNames.begin(), m_derivedNames.end(), name) != m_derivedNames.end();
}

bool ExplicitADNisMap::mustCacheThisMap(const std::string& name) const {
    return name == getName() && (m_derivedNames.empty() || neverDownloadMapFromAD(name));
}

std::list<boost::shared_ptr<NisMap>> ExplicitADNisMap::getDerivedMaps() {
    std::list<boost::shared_ptr<NisMap>> maps;
    const auto self = boost::static_pointer_cast<ADNisMap>(shared_from_this());
    unsigned index = 0;
    for (const std::string& name : m_derivedNames) {
        if (ServingFilter::canServeToClients(name)) {
            maps.push_back(boost::make_shared<DerivedMap>(name, self, layerOf(index)));
        }
        ++index;
    }
    return maps;
}

ExplicitADNisMap::KeyList ExplicitADNisMap::nth_key(const std::string& key, std::string& value,
                                                    unsigned n) const {
    return boost::make_shared<std::vector<std::string>>(
        m_derivedNames.empty() ? rules::Keys{key} : rules::fields(key, value, n));
}

void ExplicitADNisMap::addToCache(const std::string& key, const std::string& value,
                                  const std::string& objectId) {
    try {
        std::string copy = value;
        const KeyList primaries = nth_key(key, copy, 0);
        const std::string& primary = primaries->empty() ? key : primaries->front();
        if (primary.empty()) {
            NIS_THROW(BadRecord, "bad record:" + value);
        }
        cachePut(objectId, primary, OBJECT_LAYER);
        m_ledger.remember(objectId, {key, value});
        m_ledger.storing();
        forEachSlot(
            key, value,
            [this](unsigned char layer, const std::string& slotKey, const std::string& stored) {
                cachePut(slotKey, stored, layer);
                m_ledger.stored(layer, slotKey);
            });
    } catch (const BadRecord& e) {
        logBadRecord(e);
    }
}

int ExplicitADNisMap::hasDuplicateEntry(const std::string& key, const std::string& value) const {
    int found = -1;
    forEachSlot(
        key, value,
        [this, &found](unsigned char layer, const std::string& slotKey, const std::string&) {
            if (found == -1 && !cache()->get(slotKey, layer).key.empty()) {
                found = layer;
            }
        });
    return found;
}

void ExplicitADNisMap::deleteFromCache(const std::string& objectId) {
    const MapEntry primary = cache()->get(objectId, OBJECT_LAYER);
    if (primary.key.empty()) {
        return;
    }
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "%s - %s", getName().c_str(), primary.value.c_str());
    MapEntry record;
    if (!m_ledger.recall(objectId, record)) {
        deleteByPrimaryKey(primary.value);
        cacheRemove(objectId, OBJECT_LAYER);
        return;
    }
    try {
        forEachSlot(record.key, record.value,
                    [this](unsigned char layer, const std::string& key, const std::string& value) {
                        const MapEntry held = cache()->get(key, layer);
                        // Another value is the entry of another object, which claimed the key
                        // later.
                        if (!held.key.empty() && held.value == value) {
                            cacheRemove(key, layer);
                            m_ledger.vacated(layer, key);
                        }
                    });
    } catch (const BadRecord&) {
        // Its keys up to here are all that the record ever stored.
    }
    m_ledger.forget(objectId);
    cacheRemove(objectId, OBJECT_LAYER);
}

/// For an object of which nothing but its primary key is known.
void ExplicitADNisMap::deleteByPrimaryKey(const std::string& primary) {
    const MapEntry held = cache()->get(primary, 0);
    if (held.value.empty()) {
        return;
    }
    for (unsigned index = 0; index < numMapsServed(); ++index) {
        std::string value = held.value;
        const KeyList keys = nth_key(primary, value, index);
        for (const std::string& key : *keys) {
            cacheRemove(key, layerOf(index));
        }
    }
}

bool ExplicitADNisMap::updateCache(const MapEntry& record, const std::string& objectId,
                                   bool deleted) {
    // One step for derived maps, which read without the map's lock: a record that is only rewritten
    // must not be missing for a moment.
    const auto held = cache();
    const tessa::Lock step(held->mutex());
    try {
        if (deleted) {
            deleteFromCache(objectId);
            return true;
        }
        deleteFromCache(objectId);
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "%s + %s: %s", getName().c_str(),
                  record.key.c_str(), record.value.c_str());
        const int layer = hasDuplicateEntry(record.key, record.value);
        if (layer == -1) {
            addToCache(record.key, record.value, objectId);
            return true;
        }
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "meet duplicate %s: %s in layer %i",
                  record.key.c_str(), record.value.c_str(), layer);
        return false;
    } catch (const BadRecord& e) {
        logBadRecord(e);
        return true;
    }
}

void ExplicitADNisMap::addDeferred(const MapEntry& record, const std::string& objectId) {
    const auto held = cache();
    const tessa::Lock step(held->mutex());
    try {
        const int layer = hasDuplicateEntry(record.key, record.value);
        if (layer != -1) {
            KARST_LOG(logger, tessa::LOG_DEBUGGING, "%s: %s is still duplicate in layer %i",
                      record.key.c_str(), record.value.c_str(), layer);
            forEachSlot(
                record.key, record.value,
                [this](unsigned char slotLayer, const std::string& key, const std::string&) {
                    if (!cache()->get(key, slotLayer).key.empty()) {
                        m_ledger.contested(slotLayer, key);
                    }
                });
        }
    } catch (const BadRecord&) {
        // addToCache() says so.
    }
    addToCache(record.key, record.value, objectId);
}

} // namespace nis
