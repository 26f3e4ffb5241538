#pragma once

#include "common/MapIterator.h"
#include "common/SnapshotSource.h"

#include <boost/shared_ptr.hpp>

#include <cstdint>
#include <string>

namespace nis {

/// Flat, read-only copy of one map in a file, written in one pass under the map's reader lock and
/// then read by any number of iterators at once. Immutable after construction and thread-safe. The
/// file format is described in docs/formats.md.
class CacheSnapshot {
public:
    static constexpr const char* SNAPSHOT_SUFFIX = ".snap";

    /// Writes a snapshot of the map and leaves it open for reading.
    /// @throws FileOpenFailed, FileWriteFailed, FileCloseFailed; no file is left then
    CacheSnapshot(const boost::shared_ptr<SnapshotSource>& map, const std::string& domain,
                  const std::string& server);
    /// Opens and checks an existing snapshot; the file stays when it is refused.
    /// @throws FileOpenFailed, FileReadFailed, BadSnapshotFile
    explicit CacheSnapshot(const std::string& filename);
    /// Deletes the file unless preserveOnClose() was called.
    ~CacheSnapshot();
    CacheSnapshot(const CacheSnapshot&) = delete;
    CacheSnapshot& operator=(const CacheSnapshot&) = delete;

    const std::string& getFilename() const { return m_filename; }
    const std::string& getDomain() const { return m_domain; }
    const std::string& getMapName() const { return m_mapName; }
    const std::string& getServer() const { return m_server; }
    std::uint32_t getOrder() const { return m_order; }

    /// A fresh iterator over the whole copy, which keeps the snapshot alive.
    static boost::shared_ptr<MapIterator> getIterator(const boost::shared_ptr<CacheSnapshot>& self);
    void preserveOnClose();
    static bool IsCacheSnapshotFile(const std::string& path);

private:
    class SnapshotIterator;
    // The rest belongs to the implementation.
    std::string m_filename;
    std::string m_domain;
    std::string m_mapName;
    std::string m_server;
    std::uint32_t m_order = 0;
};

} // namespace nis
