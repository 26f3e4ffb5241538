#pragma once

#include "common/MapIterator.h"
#include "common/SnapshotSource.h"

#include <karst/Mutex.h>

#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>

#include <atomic>
#include <cstdint>
#include <string>

namespace nis {

class CacheSnapshot;

/// The map that a request ends at. Always held by a shared pointer. Owns the map's snapshot, a
/// frozen copy that whole-map transfers read.
///
/// Look-ups may come on any thread. The snapshot pointer is guarded by its own mutex, which is
/// taken before the map's reader/writer lock.
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
    /// @return whether it was taken
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
    /// Marks the map as discarded: its files go away with it.
    virtual void deleteOnClose();
    virtual bool getDeleteOnClose() const;

    /// Lets go of the snapshot and removes its file at once; running iterators keep reading it. For
    /// a map whose contents are replaced as a whole: its order may read the same after a restart,
    /// so the file of the old contents must not survive. updateSnapshot() then makes a new one.
    void dropSnapshot();
    /// The mutex of the snapshot, for whoever must keep new ones from being made meanwhile.
    tessa::Mutex& snapshotMutex() const { return m_snapshotProtect; }

private:
    boost::shared_ptr<CacheSnapshot> makeSnapshot() KARST_REQUIRES(m_snapshotProtect);

    mutable tessa::Mutex m_snapshotProtect;
    boost::shared_ptr<CacheSnapshot> m_snapshot KARST_GUARDED_BY(m_snapshotProtect);
    bool m_dropped KARST_GUARDED_BY(m_snapshotProtect) = false; ///< there was a snapshot
    std::atomic<bool> m_deleteOnClose{false};
};

} // namespace nis
