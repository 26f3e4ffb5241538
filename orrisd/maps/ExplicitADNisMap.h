#pragma once

#include "maps/ADNisMap.h"
#include "maps/RecordLedger.h"
#include "store/NisCache.h"

#include <karst/ADObject.h>
#include <karst/LocalRpcSession.h>

#include <boost/shared_ptr.hpp>

#include <string>
#include <vector>

namespace nis {

/// A map whose entries administrators store in the directory, one object each. Refreshed by update
/// sequence number; may serve several derived maps from one set of objects.
///
/// Layers of the cache: 0 and, from index 1 on, index + 1 hold the keys of the derived maps; 1
/// holds object identifier -> the record's primary key. Two private ones remember what each object
/// stored and which keys several objects claim; see RecordLedger.
///
/// The writes of one pass are one transaction of the cache: a process that dies in the middle comes
/// back with the map as it was before the pass. A pass that fails keeps what it wrote, but not its
/// high USN, so the next one begins at the same point.
class ExplicitADNisMap : public ADNisMap {
public:
    using KeyList = boost::shared_ptr<std::vector<std::string>>;

    /// @param derivedNames names of the derived maps in the order of their index; they are
    ///        registered, so that the directory's maps of these names are never read
    explicit ExplicitADNisMap(boost::shared_ptr<NisCache> cache,
                              std::vector<std::string> derivedNames = {});
    ~ExplicitADNisMap() override;

    std::list<boost::shared_ptr<NisMap>> getDerivedMaps() override;
    void initialize(const tessa::Int64& highUSN) override;
    void update(const tessa::Int64& highUSN) override;
    void rebuild(const tessa::Int64& highUSN) override;
    bool mustCacheThisMap(const std::string& name) const override;
    bool neverDownloadMapFromAD(const std::string& name) const override;
    const char* type_name() const override { return "ExplicitADNisMap"; }

    /// Adds one record. A record that cannot be used is logged and left out. The caller holds the
    /// writer lock.
    virtual void addToCache(const std::string& key, const std::string& value,
                            const std::string& objectId);
    /// The keys under which a record is stored in the n-th derived map, and in `value` what is
    /// stored.
    /// @throws BadRecord
    virtual KeyList nth_key(const std::string& key, std::string& value, unsigned n) const;
    virtual unsigned numMapsServed() const;

protected:
    /// Whether the cache may hold something else than was last written, because a pass failed.
    virtual void cacheReverted() {}

    /// Stores all objects into the empty cache. The caller holds the writer lock.
    /// @return the number of records
    int load(tessa::ADObjectList& objects);
    /// Applies changed objects, each under the writer lock, so that clients are answered in
    /// between.
    /// @return the number of objects read
    int applyChanges(tessa::ADObjectList& objects);

private:
    friend class RecordLedger;

    static unsigned char layerOf(unsigned index) {
        return static_cast<unsigned char>(index == 0 ? 0 : index + 1);
    }
    /// Calls `use(layer, key, value)` for everything that a record stores, in order.
    template <typename Use>
    void forEachSlot(const std::string& key, const std::string& value, const Use& use) const;

    int hasDuplicateEntry(const std::string& key, const std::string& value) const;
    void deleteFromCache(const std::string& objectId);
    void deleteByPrimaryKey(const std::string& primary);
    bool updateCache(const MapEntry& record, const std::string& objectId, bool deleted);
    void addDeferred(const MapEntry& record, const std::string& objectId);

    void applyDeletions(const tessa::Int64& highUSN);
    void settleClaims();
    void keepWhatWasWritten(NisCache::Batch& batch);
    void commit(NisCache::Batch& batch);
    void restoreHighUSN(const tessa::Int64& usn);
    void checkServerUnchanged();
    void insureSameServer(const std::string& server) const;
    static std::string objectIdOf(const tessa::ADObject& object);

    const std::vector<std::string> m_derivedNames;
    RecordLedger m_ledger;
};

} // namespace nis
