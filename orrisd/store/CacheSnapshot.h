#pragma once

#include "common/MapIterator.h"
#include "common/SnapshotSource.h"

#include <boost/shared_ptr.hpp>

#include <atomic>
#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

namespace nis {

/// Writes a string in the form of a snapshot file: its length in two bytes, then that many bytes. A
/// string of 65536 bytes or more is cut to its length modulo 65536.
/// @return where in the file the length begins
std::streamoff write(std::ofstream& file, const std::string& text);

/// Flat, read-only copy of one map in a file, written in one pass under the map's reader lock and
/// then read by any number of iterators at once, each through a buffer of its own and without a
/// lock. Immutable after construction and thread-safe. The file format is described in
/// docs/formats.md.
class CacheSnapshot {
public:
    static constexpr const char* SNAPSHOT_SUFFIX = ".snap";

    /// Writes a snapshot of the map and leaves it open for reading. A file of the same name is
    /// replaced; a snapshot object that has it open goes on reading the old one.
    /// @throws FileOpenFailed, FileWriteFailed, FileCloseFailed; no file is left then
    CacheSnapshot(const boost::shared_ptr<SnapshotSource>& map, const std::string& domain,
                  const std::string& server);
    /// Opens and checks an existing snapshot; the file stays when it is refused.
    /// @throws FileOpenFailed, FileReadFailed, BadSnapshotFile
    explicit CacheSnapshot(const std::string& filename);
    /// Deletes the file unless preserveOnClose() was called or another file has its name by now.
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
    struct Header;
    /// A part of the file in memory. Each reader has its own.
    struct Window {
        std::vector<char> bytes;
        std::uint64_t start = 0;
        std::size_t length = 0;
    };
    static constexpr std::uint64_t NOT_STARTED = 0;

    void create();
    void writeRecords(std::ofstream& file, const SnapshotSource& map);
    void writeRecord(std::ofstream& file, const MapEntry& entry);
    void writeHeader(std::ofstream& file, const Header& header) const;
    bool openForReading();
    void checkFile();
    void takeHeader(const Header& header);
    void checkRecords();
    void checkBlocks() const;

    std::size_t lengthAt(std::uint64_t position, Window& window) const;
    bool readBytes(std::uint64_t position, char* bytes, std::size_t length, Window& window) const;
    std::string readString(std::uint64_t& position, Window& window) const;
    MapEntry readEntry(std::uint64_t& position, Window& window) const;
    [[noreturn]] void readFailed(std::uint64_t position) const;

    std::string m_filename;
    std::string m_domain;
    std::string m_mapName;
    std::string m_server;
    std::uint32_t m_order = 0;
    std::uint64_t m_dataStart = 0;  ///< offset of the first record
    std::uint64_t m_fileLength = 0; ///< bytes; also the end of the last record
    std::uint32_t m_records = 0;    ///< of a snapshot just written
    int m_file = -1;
    std::atomic<bool> m_unlinkOnClose{true};
};

} // namespace nis
