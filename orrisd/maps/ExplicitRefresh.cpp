// The passes of an explicit map over the directory: load, update and rebuild.
#include "common/Globals.h"
#include "common/NisException.h"
#include "common/UpdatePace.h"
#include "maps/Directory.h"
#include "maps/ExplicitADNisMap.h"
#include "store/NisCache.h"

#include <karst/DN.h>

#include <list>
#include <unordered_set>
#include <utility>

namespace nis {

namespace {

constexpr char DELETED_MARK = '\x01';
constexpr std::size_t GUID_LENGTH = 16;

bool isDeleted(const tessa::ADObject& object) {
    return object[ADInterface::ENTRY_DEL_FLAG].asString().starts_with(DELETED_MARK);
}

/// An attribute that is missing reads as the empty string.
MapEntry recordOf(const tessa::ADObject& object) {
    return {object[ADInterface::ENTRY_KEY].asString(), object[ADInterface::ENTRY_VALUE].asString()};
}

} // namespace

void ExplicitADNisMap::insureSameServer(const std::string& server) const {
    if (server != getServer()) {
        NIS_THROW(ServerMismatch, "Data is from different server", server);
    }
}

/// The GUID of an entry, by which it is found again when its key has changed.
std::string ExplicitADNisMap::objectIdOf(const tessa::ADObject& object) {
    std::string id = object.guid();
    if (id.size() != GUID_LENGTH) {
        TESSA_THROW(tessa::BadDataException,
                    "entry '" + object[ADInterface::DN].asString() + "' has no GUID");
    }
    return id;
}

/// Asks once more who answers for the map's domain: what was read may come from two servers.
void ExplicitADNisMap::checkServerUnchanged() {
    const std::string domain = tessa::DN::domainFromDN(getMapDN());
    const tessa::ADObject root = directory()->getCurrentHighUSN(domain);
    insureSameServer(root[ADInterface::SERVER_NAME].asString());
}

void ExplicitADNisMap::initialize(const tessa::Int64& highUSN) {
    const tessa::WriterLock lock(getReaderWriterLock());
    setNextUpdateTime();
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "Beginning initial load for map '%s', server %s",
              getName().c_str(), getServer().c_str());
    const auto held = cache();
    NisCache::Batch batch(*held);
    int count = 0;
    try {
        const auto interface = directory();
        count = load(*interface->getMapEntries(getMapDN(), tessa::Int64::ZERO, highUSN));
        // The last write of the batch: a load that did not get here never looks complete.
        setLastUpdateTime();
        setHighUSN(highUSN);
        batch.commit();
    } catch (...) {
        m_ledger.abandon();
        cacheReverted();
        throw;
    }
    KARST_LOG(logger, tessa::LOG_DEBUGGING,
              "Initial load complete for map '%s', server %s. %d new records", getName().c_str(),
              getServer().c_str(), count);
}

int ExplicitADNisMap::load(tessa::ADObjectList& objects) {
    int count = 0;
    m_ledger.begin(true);
    tessa::ADObject object;
    while (objects.next(object)) {
        if (isDeleted(object)) {
            continue;
        }
        insureSameServer(object[ADInterface::SERVER_NAME].asString());
        const MapEntry record = recordOf(object);
        addToCache(record.key, record.value, objectIdOf(object));
        ++count;
    }
    m_ledger.settle();
    return count;
}

void ExplicitADNisMap::update(const tessa::Int64& highUSN) {
    setNextUpdateTime();
    if (getHighUSN() >= highUSN) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING,
                  "Skipping update for map '%s', server %s: no AD records have changed",
                  getName().c_str(), getServer().c_str());
        return;
    }
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "Beginning update for map '%s', server %s",
              getName().c_str(), getServer().c_str());
    const auto held = cache();
    NisCache::Batch batch(*held);
    int count = 0;
    try {
        const auto interface = directory();
        count = applyChanges(*interface->getMapEntries(getMapDN(), getHighUSN(), highUSN));
        checkServerUnchanged();
        setLastUpdateTime();
        setHighUSN(highUSN);
    } catch (...) {
        keepWhatWasWritten(batch);
        throw;
    }
    commit(batch);
    KARST_LOG(logger, tessa::LOG_DEBUGGING,
              "Update complete for map '%s', server %s. %d records updated", getName().c_str(),
              getServer().c_str(), count);
}

int ExplicitADNisMap::applyChanges(tessa::ADObjectList& objects) {
    int count = 0;
    std::list<std::pair<MapEntry, std::string>> deferred;
    std::unordered_set<std::string> waiting; // identifiers of those
    m_ledger.begin(false);
    tessa::ADObject object;
    UpdatePace pace;
    while (objects.next(object)) {
        ++count;
        pace.step();
        insureSameServer(object[ADInterface::SERVER_NAME].asString());
        MapEntry record = recordOf(object);
        std::string id = objectIdOf(object);
        const tessa::WriterLock lock(getReaderWriterLock());
        if (waiting.erase(id) != 0) {
            // Delivered once more: what came later holds.
            deferred.remove_if([&id](const auto& earlier) { return earlier.second == id; });
        }
        if (!updateCache(record, id, isDeleted(object))) {
            waiting.insert(id);
            deferred.emplace_back(std::move(record), std::move(id));
        }
    }
    // Objects that exchange their keys have let go of them by now; what still collides is claimed
    // twice, and the object that was changed last gets it.
    for (const auto& [record, id] : deferred) {
        pace.step();
        const tessa::WriterLock lock(getReaderWriterLock());
        addDeferred(record, id);
    }
    settleClaims();
    return count;
}

void ExplicitADNisMap::settleClaims() {
    const tessa::WriterLock lock(getReaderWriterLock());
    m_ledger.settle();
}

/// After a failure: what was written stays, as one step. If even that cannot be made durable, that
/// is the failure to report.
void ExplicitADNisMap::keepWhatWasWritten(NisCache::Batch& batch) {
    try {
        settleClaims();
        batch.commit();
    } catch (...) {
        m_ledger.abandon();
        cacheReverted();
        throw;
    }
    cacheReverted();
}

void ExplicitADNisMap::commit(NisCache::Batch& batch) {
    try {
        batch.commit();
    } catch (...) {
        cacheReverted();
        throw;
    }
}

void ExplicitADNisMap::restoreHighUSN(const tessa::Int64& usn) {
    try {
        setHighUSN(usn);
    } catch (const FileSystemError&) {
        // The store has given the writes of the batch up, so it still has the number; the end of
        // the batch reports the failure.
    }
}

/// What a reading from the start cannot show: the objects that are gone since the last pass.
void ExplicitADNisMap::applyDeletions(const tessa::Int64& highUSN) {
    if (getHighUSN() >= highUSN) {
        return;
    }
    const auto interface = directory();
    const auto objects = interface->getMapEntries(getMapDN(), getHighUSN(), highUSN);
    m_ledger.begin(false);
    tessa::ADObject object;
    UpdatePace pace;
    try {
        while (objects->next(object)) {
            pace.step();
            insureSameServer(object[ADInterface::SERVER_NAME].asString());
            if (isDeleted(object)) {
                const tessa::WriterLock lock(getReaderWriterLock());
                updateCache(recordOf(object), objectIdOf(object), true);
            }
        }
    } catch (...) {
        settleClaims();
        throw;
    }
    settleClaims();
}

void ExplicitADNisMap::rebuild(const tessa::Int64& highUSN) {
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "Beginning rebuild for map '%s', server %s",
              getName().c_str(), getServer().c_str());
    // One transaction with the pass: a cache whose high USN is 0 would be discarded at the next
    // start, however the pass ends.
    const auto held = cache();
    NisCache::Batch batch(*held);
    const tessa::Int64 previous = getHighUSN();
    try {
        applyDeletions(highUSN);
        setHighUSN(tessa::Int64::ZERO);
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "Set the highest USN of the map to 0");
        update(highUSN);
    } catch (...) {
        restoreHighUSN(previous);
        commit(batch);
        throw;
    }
    commit(batch);
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "Rebuild complete for map '%s', server %s.",
              getName().c_str(), getServer().c_str());
}

} // namespace nis
