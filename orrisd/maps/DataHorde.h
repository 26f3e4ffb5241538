#pragma once

#include "store/NisCache.h"

#include <boost/shared_ptr.hpp>

#include <cstdint>
#include <fstream>
#include <memory>
#include <string>

namespace nis {

/// The records of one enumeration of users or groups, collected in a nameless temporary file with a
/// running checksum, so that an enumeration that changes nothing leaves cache and order alone.
/// Configured off, the records go straight into a new cache. Used by one thread, for one
/// enumeration.
class DataHorde {
public:
    /// Which map the records are for: what a new cache of it needs.
    struct Identity {
        std::string name;
        std::string domain;
        std::string server;
        std::string zoneHierarchy;
        std::string targetZone;
    };

    /// @param baseName file name of the map's cache; ".temp" is appended for the temporary file
    /// @throws FileOpenFailed; BadCacheFile
    DataHorde(const std::string& baseName, const Identity& identity);
    /// Removes a new cache that nobody took.
    ~DataHorde();
    DataHorde(const DataHorde&) = delete;
    DataHorde& operator=(const DataHorde&) = delete;

    /// @throws FileWriteFailed, BadCacheFile
    void add(const std::string& name, const std::string& id, const std::string& line);
    std::uint32_t recordCount() const { return m_recordCount; }
    /// Whether the records go straight into a new cache.
    bool isDirect() const { return m_directCache != nullptr; }

    /// @throws NisException "checksum" when there is none: the records went elsewhere
    const std::string& getChecksum();
    /// A second checksum, which also tells records apart that exchanged something: the first one is
    /// a plain sum, and two users who swap their shells leave it as it was.
    /// @throws as getChecksum()
    std::string getDigest() const;
    /// A new cache with all records, complete on disk except for its high USN: whoever puts it into
    /// service sets that, and until then a start discards the file.
    /// @throws FileWriteFailed, FileReadFailed, BadCacheFile; no file is left then
    boost::shared_ptr<NisCache> createNisCache(const std::string& name, const std::string& domain,
                                               const std::string& server,
                                               const std::string& zoneHierarchy,
                                               const std::string& targetZone, unsigned int order,
                                               long lastCurrentTime);

    /// The running sum after a block of bytes.
    static std::uint32_t addToChecksum(std::uint32_t sum, const void* bytes, std::int32_t length);

private:
    void openTemporaryFile(const std::string& fileName);
    void write(const std::string& text);
    std::string readString();
    void digest(const std::string& text);
    void insureCollected() const;
    void read(std::string& name, std::string& id, std::string& line);
    void fill(NisCache& cache);
    void flush();

    std::string m_mapName;
    boost::shared_ptr<NisCache> m_directCache;
    std::unique_ptr<NisCache::Batch> m_directBatch; ///< of the direct cache
    std::fstream m_file;
    std::uint32_t m_checksum = 0;
    std::uint64_t m_digest;
    std::uint32_t m_recordCount = 0;
    std::string m_checksumText;
};

} // namespace nis
