#include "maps/DataHorde.h"

#include "common/ConfigKeys.h"
#include "common/Globals.h"
#include "common/NisException.h"
#include "common/UpdatePace.h"
#include "maps/IntrinsicADNisMap.h"

#include <karst/Text.h>

#include <boost/make_shared.hpp>

#include <algorithm>
#include <cstring>

#include <unistd.h>

namespace nis {

namespace {

constexpr std::size_t LONGEST = 0xffff; ///< what a length of two bytes can say

// FNV-1a with 64 bits.
constexpr std::uint64_t DIGEST_START = 0xcbf29ce484222325;
constexpr std::uint64_t DIGEST_PRIME = 0x100000001b3;

/// A new cache whose file goes away again unless everything that must be in it is.
class NewCache {
public:
    explicit NewCache(boost::shared_ptr<NisCache> cache) : m_cache(std::move(cache)) {}
    ~NewCache() {
        if (m_cache) {
            m_cache->deleteOnClose();
        }
    }
    NewCache(const NewCache&) = delete;
    NewCache& operator=(const NewCache&) = delete;
    NisCache& operator*() const { return *m_cache; }
    boost::shared_ptr<NisCache> release() { return std::move(m_cache); }

private:
    boost::shared_ptr<NisCache> m_cache;
};

} // namespace

DataHorde::DataHorde(const std::string& baseName, const Identity& identity)
    : m_mapName(identity.name), m_digest(DIGEST_START) {
    if (getConfig()->getBool(PROP_DATAHORDE, true)) {
        openTemporaryFile(baseName + ".temp");
        return;
    }
    m_directCache = boost::make_shared<NisCache>(identity.domain, identity.name, identity.server,
                                                 identity.zoneHierarchy, identity.targetZone, "");
    m_directBatch = std::make_unique<NisCache::Batch>(*m_directCache);
}

DataHorde::~DataHorde() {
    if (m_directCache) {
        m_directCache->deleteOnClose();
    }
}

void DataHorde::openTemporaryFile(const std::string& fileName) {
    m_file.open(fileName, std::ios::in | std::ios::out | std::ios::trunc | std::ios::binary);
    if (!m_file.is_open()) {
        KARST_LOG(logger, tessa::LOG_WARN, "Failed to open temporary file '%s' (disk space low?)",
                  fileName.c_str());
        NIS_THROW(FileOpenFailed, "creating data horde", fileName);
    }
    // The stream keeps the data; nothing is left behind, however the daemon ends.
    ::unlink(fileName.c_str());
}

std::uint32_t DataHorde::addToChecksum(std::uint32_t sum, const void* bytes, std::int32_t length) {
    const char* at = static_cast<const char*>(bytes);
    std::int32_t left = length;
    while (left > 0) {
        const std::int32_t step = std::min(left, 4);
        std::uint32_t word = 0;
        std::memcpy(&word, at, static_cast<std::size_t>(step));
        sum += static_cast<std::uint32_t>(left) + word;
        at += step;
        left -= step;
    }
    return sum;
}

void DataHorde::add(const std::string& name, const std::string& id, const std::string& line) {
    if (m_directCache) {
        ++m_recordCount;
        m_directCache->put(name, line, IntrinsicADNisMap::NAME_LAYER);
        m_directCache->put(id, line, IntrinsicADNisMap::ID_LAYER);
        return;
    }
    if (!m_file.is_open()) {
        return;
    }
    ++m_recordCount;
    m_checksum = addToChecksum(m_checksum, &m_recordCount, sizeof m_recordCount);
    for (const std::string* text : {&name, &id, &line}) {
        m_checksum =
            addToChecksum(m_checksum, text->data(), static_cast<std::int32_t>(text->size()));
        digest(*text);
        write(*text);
    }
}

/// The length goes in as well, so that text never moves between fields unnoticed.
void DataHorde::digest(const std::string& text) {
    for (std::size_t rest = text.size(), i = 0; i < sizeof rest; ++i, rest >>= 8) {
        m_digest = (m_digest ^ (rest & 0xff)) * DIGEST_PRIME;
    }
    for (const char c : text) {
        m_digest = (m_digest ^ static_cast<unsigned char>(c)) * DIGEST_PRIME;
    }
}

/// The length is taken modulo 65536, and just as many bytes are written, so that the records behind
/// an oversized text are still found. No line of a user or group comes near that length.
void DataHorde::write(const std::string& text) {
    const auto length = static_cast<std::uint16_t>(text.size() & LONGEST);
    char prefix[sizeof length];
    std::memcpy(prefix, &length, sizeof length);
    m_file.write(prefix, sizeof prefix);
    m_file.write(text.data(), length);
    if (!m_file) {
        KARST_LOG(logger, tessa::LOG_WARN,
                  "Failed while writing data temporary file for map '%s' (disk space low?)",
                  m_mapName.c_str());
        NIS_THROW(FileWriteFailed, "writing to data horde temp file");
    }
}

/// What is still in the stream's buffer may meet a full disk, too.
void DataHorde::flush() {
    m_file.flush();
    if (!m_file) {
        KARST_LOG(logger, tessa::LOG_WARN,
                  "Failed while writing data temporary file for map '%s' (disk space low?)",
                  m_mapName.c_str());
        NIS_THROW(FileWriteFailed, "writing to data horde temp file");
    }
}

std::string DataHorde::readString() {
    std::uint16_t length = 0;
    char prefix[sizeof length];
    m_file.read(prefix, sizeof prefix);
    std::memcpy(&length, prefix, sizeof length);
    std::string text(m_file ? length : 0, '\0');
    m_file.read(text.data(), static_cast<std::streamsize>(text.size()));
    if (!m_file) {
        KARST_LOG(logger, tessa::LOG_WARN, "Failed while reading data temporary file for map '%s'",
                  m_mapName.c_str());
        NIS_THROW(FileReadFailed, "reading from data horde temp file");
    }
    return text;
}

void DataHorde::read(std::string& name, std::string& id, std::string& line) {
    name = readString();
    id = readString();
    line = readString();
}

void DataHorde::insureCollected() const {
    if (isDirect() || !m_file.is_open()) {
        NIS_THROW(NisException, "checksum");
    }
}

std::string DataHorde::getDigest() const {
    insureCollected();
    return tessa::uitoa(m_digest);
}

const std::string& DataHorde::getChecksum() {
    insureCollected();
    if (m_checksumText.empty()) {
        m_checksumText = tessa::itoa(static_cast<std::int32_t>(m_checksum), 16);
    }
    return m_checksumText;
}

/// Reads the collected records back into the cache.
void DataHorde::fill(NisCache& cache) {
    flush();
    m_file.seekg(0);
    std::string name;
    std::string id;
    std::string line;
    UpdatePace pace;
    for (std::uint32_t i = 0; i < m_recordCount; ++i) {
        pace.step();
        read(name, id, line);
        cache.put(name, line, IntrinsicADNisMap::NAME_LAYER);
        cache.put(id, line, IntrinsicADNisMap::ID_LAYER);
    }
    cache.put(IntrinsicADNisMap::DIGEST_KEY, getDigest(), IntrinsicADNisMap::DIGEST_LAYER);
    cache.put(IntrinsicADNisMap::CHECKSUM_KEY, getChecksum(), IntrinsicADNisMap::CHECKSUM_LAYER);
}

boost::shared_ptr<NisCache>
DataHorde::createNisCache(const std::string& name, const std::string& domain,
                          const std::string& server, const std::string& zoneHierarchy,
                          const std::string& targetZone, unsigned int order, long lastCurrentTime) {
    const bool direct = isDirect();
    NewCache cache(
        direct ? std::move(m_directCache)
               : boost::make_shared<NisCache>(domain, name, server, zoneHierarchy, targetZone, ""));
    auto batch = direct ? std::move(m_directBatch) : std::make_unique<NisCache::Batch>(*cache);
    if (!direct) {
        fill(*cache);
    }
    (*cache).setOrder(order);
    (*cache).setLastCurrentTime(lastCurrentTime);
    (*cache).setLastUpdateTime(0);
    batch->commit();
    return cache.release();
}

} // namespace nis
