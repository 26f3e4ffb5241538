#pragma once

#include "common/MapIterator.h"
#include "common/SnapshotSource.h"

#include <karst/Mutex.h>

#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>

#include <cstdint>
#include <string>

namespace nis {

class CacheSnapshot;

/// The map that a request ends at. Always held by a shared pointer. Owns the map's snapshot, a
/// frozen copy that whole-map transfers read.
///
/// Look-ups may come on any thread. The snapshot pointer is guarded by its own mutex.
class NisMap : public SnapshotSource, public boost::enable_shared_from_this<NisMap> {
public:
    NisMap() = default;
    /// Keeps the snapshot's file for the next start, unless deleteOnClose() was called.
    ~NisMap() override;
    NisMap(const NisMap&) = delete;
    NisMap& operator=(const NisMap&) = delete;

    std::string getName() const override = 0;
    tessa::ReaderWriterLock& getReaderWriterLock() const override = 0;
    /// Takes a snapshot found on disk if it is of this map and of its present order.
    virtual bool attachSnapshot(const boost::shared_ptr<CacheSnapshot>& snapshot);
    /// Makes a fresh snapshot when there is one whose order is no longer the map's.
    virtual void updateSnapshot();
    /// @throws UnknownKey
    virtual std::string match(const std::string& key) const = 0;
    MapEntry getFirst() const override = 0;
    MapEntry getNext(const std::string& key) const override = 0;
    /// An iterator over the whole map: of a snapshot, or of the live map when none can be made.
    virtual boost::shared_ptr<MapIterator> getAll();
    std::uint32_t getOrder() const override = 0;
    virtual std::string getDomain() const = 0;
    virtual std::string getServer() const = 0;
    virtual void deleteOnClose();
    virtual bool getDeleteOnClose() const;

private:
    mutable tessa::Mutex m_snapshotProtect;
    boost::shared_ptr<CacheSnapshot> m_snapshot KARST_GUARDED_BY(m_snapshotProtect);
    bool m_deleteOnClose = false;
};

} // namespace nis
