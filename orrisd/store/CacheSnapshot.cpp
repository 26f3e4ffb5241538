#include "store/CacheSnapshot.h"

#include "common/Globals.h"
#include "common/NisException.h"
#include "common/SafeName.h"
#include "store/FileGuard.h"
#include "store/SnapshotIterator.h"

#include <karst/Text.h>

#include <boost/make_shared.hpp>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace nis {

namespace {

constexpr char MAGIC[] = {'S', 'N', 'A', 'P'};
constexpr std::size_t WINDOW_SIZE = std::size_t{64} * 1024;
constexpr std::size_t WRITE_BUFFER = std::size_t{64} * 1024;
constexpr std::size_t BLOCK = 4096;
constexpr std::size_t LENGTH_SIZE = sizeof(std::uint16_t);

std::uint16_t storedLength(const std::string& text) {
    return static_cast<std::uint16_t>(text.size() % 65536);
}

/// pread() until all is read or the file ends. @return bytes read, less than asked on failure
std::size_t readFully(int file, char* bytes, std::size_t length, std::uint64_t position) {
    std::size_t done = 0;
    while (done < length) {
        const ssize_t got =
            ::pread(file, bytes + done, length - done, static_cast<off_t>(position + done));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            break;
        }
        done += static_cast<std::size_t>(got);
    }
    return done;
}

void writeString(std::ofstream& file, const std::string& text) {
    const std::uint16_t length = storedLength(text);
    file.write(reinterpret_cast<const char*>(&length), sizeof length);
    file.write(text.data(), length);
}

} // namespace

/// The first bytes of the file, little-endian as the machines that this runs on.
struct CacheSnapshot::Header {
    char magic[4] = {};
    std::uint32_t fileLength = 0;
    std::uint16_t domain = 0;
    std::uint16_t mapName = 0;
    std::uint16_t server = 0;
    std::uint16_t reserved1 = 0;
    std::uint32_t order = 0;
    std::uint16_t dataStart = 0;
    std::uint16_t reserved2 = 0;
};

std::streamoff write(std::ofstream& file, const std::string& text) {
    const std::streamoff position = file.tellp();
    writeString(file, text);
    return position;
}

CacheSnapshot::CacheSnapshot(const boost::shared_ptr<SnapshotSource>& map,
                             const std::string& domain, const std::string& server)
    : m_domain(domain), m_server(server) {
    const tessa::ReaderLock lock(map->getReaderWriterLock());
    m_mapName = map->getName();
    m_order = map->getOrder();
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "Creating CacheSnapshot for map %s, order = %u",
              m_mapName.c_str(), m_order);
    m_filename =
        domain + ":" + m_mapName + ":" + server + ":" + std::to_string(m_order) + SNAPSHOT_SUFFIX;
    create();
    FileGuard guard(m_filename);

    std::vector<char> buffer(WRITE_BUFFER);
    std::ofstream file;
    file.rdbuf()->pubsetbuf(buffer.data(), WRITE_BUFFER);
    file.open(m_filename, std::ios::out | std::ios::binary | std::ios::trunc);
    if (!file) {
        KARST_LOG(logger, tessa::LOG_WARN,
                  "Failed to open snapshot file '%s' for writing (disk space low?)",
                  m_filename.c_str());
        NIS_THROW(FileOpenFailed, "snapshot create failed", m_filename);
    }
    writeRecords(file, *map);
    file.close();
    if (!file) {
        KARST_LOG(logger, tessa::LOG_WARN,
                  "Failure when closing snapshot file '%s' (disk space low?)", m_filename.c_str());
        NIS_THROW(FileCloseFailed, "snapshot close failed", m_filename);
    }
    KARST_LOG(logger, tessa::LOG_TRACE,
              "Created snapshot file '%s'. HeaderLen=%ld, fileLength=%ld, %u records",
              m_filename.c_str(), static_cast<long>(sizeof(Header)),
              static_cast<long>(m_fileLength), m_records);
    if (!openForReading()) {
        NIS_THROW(FileOpenFailed, "snapshot reopen failed", m_filename);
    }
    guard.release();
}

/// Makes the file anew, so that who reads an older one of the same name is not disturbed, and only
/// for the daemon's eyes: maps hold password hashes.
void CacheSnapshot::create() {
    const bool safe = isSafeFileNamePart(m_domain) && isSafeFileNamePart(m_mapName) &&
                      isSafeFileNamePart(m_server) && fitsFileName(m_domain, m_mapName, m_server);
    int file = -1;
    if (safe) {
        ::unlink(m_filename.c_str());
        file =
            ::open(m_filename.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    }
    if (file < 0) {
        KARST_LOG(logger, tessa::LOG_WARN,
                  "Failed to open snapshot file '%s' for writing (disk space low?)",
                  tessa::printable(m_filename).c_str());
        NIS_THROW(FileOpenFailed, "snapshot create failed", m_filename);
    }
    ::close(file);
}

void CacheSnapshot::writeRecords(std::ofstream& file, const SnapshotSource& map) {
    Header header;
    file.write(reinterpret_cast<const char*>(&header), sizeof header);
    std::memcpy(header.magic, MAGIC, sizeof MAGIC);
    // The offsets fit: the three strings also fit in a file name.
    header.domain = static_cast<std::uint16_t>(write(file, m_domain));
    header.mapName = static_cast<std::uint16_t>(write(file, m_mapName));
    header.server = static_cast<std::uint16_t>(write(file, m_server));
    header.order = m_order;
    m_dataStart = static_cast<std::uint64_t>(std::max<std::streamoff>(file.tellp(), 0));
    header.dataStart = static_cast<std::uint16_t>(m_dataStart);
    if (!file) {
        KARST_LOG(logger, tessa::LOG_WARN,
                  "Failed while writing header to snapshot file '%s' (disk space low?)",
                  m_filename.c_str());
        NIS_THROW(FileWriteFailed, "write to snapshot failed", m_filename);
    }
    m_fileLength = m_dataStart;
    for (MapEntry entry = map.getFirst(); !entry.key.empty(); entry = map.getNext(entry.key)) {
        writeRecord(file, entry);
        ++m_records;
    }
    header.fileLength = static_cast<std::uint32_t>(m_fileLength);
    writeHeader(file, header);
}

void CacheSnapshot::writeRecord(std::ofstream& file, const MapEntry& entry) {
    m_fileLength += 2 * LENGTH_SIZE + storedLength(entry.key) + storedLength(entry.value);
    // A key that is cut to nothing would end the map for the reader, and beyond 4 GiB the length in
    // the header would be wrong. Both would pass a part of the map for the whole.
    const bool fits =
        storedLength(entry.key) != 0 && m_fileLength <= std::numeric_limits<std::uint32_t>::max();
    if (fits) {
        writeString(file, entry.key);
        writeString(file, entry.value);
    }
    if (!fits || !file) {
        KARST_LOG(logger, tessa::LOG_WARN,
                  "Failed while writing data to snapshot file '%s' (disk space low?)",
                  m_filename.c_str());
        NIS_THROW(FileWriteFailed, "write to snapshot failed", m_filename);
    }
}

/// Last of all, so that a file that was not finished has no magic.
void CacheSnapshot::writeHeader(std::ofstream& file, const Header& header) const {
    file.seekp(0);
    file.write(reinterpret_cast<const char*>(&header), sizeof header);
    file.flush();
    if (!file) {
        KARST_LOG(logger, tessa::LOG_WARN,
                  "Failed while writing header fix-ups to snapshot file '%s' (disk space low?)",
                  m_filename.c_str());
        NIS_THROW(FileWriteFailed, "write to snapshot failed", m_filename);
    }
}

CacheSnapshot::CacheSnapshot(const std::string& filename) : m_filename(filename) {
    if (!openForReading()) {
        NIS_THROW(FileOpenFailed, "snapshot open failed", m_filename);
    }
    try {
        checkFile();
    } catch (...) {
        ::close(m_file); // the destructor of an object that was never made does not run
        throw;
    }
}

void CacheSnapshot::checkFile() {
    Header header;
    if (readFully(m_file, reinterpret_cast<char*>(&header), sizeof header, 0) != sizeof header) {
        KARST_LOG(logger, tessa::LOG_WARN, "Failed while reading header from snapshot file '%s'",
                  m_filename.c_str());
        NIS_THROW(FileReadFailed, "snapshot header read failed", m_filename);
    }
    takeHeader(header);
    checkBlocks();
    checkRecords();
}

void CacheSnapshot::takeHeader(const Header& header) {
    static_assert(sizeof(Header) == 24);
    if (std::memcmp(header.magic, MAGIC, sizeof MAGIC) != 0) {
        NIS_THROW(BadSnapshotFile, "Bad magic number", m_filename);
    }
    if (std::max({header.domain, header.mapName, header.server}) > header.dataStart) {
        NIS_THROW(BadSnapshotFile, "Corrupt header in snapshot (string offsets)", m_filename);
    }
    struct stat status {};
    if (::fstat(m_file, &status) != 0 ||
        static_cast<std::uint32_t>(status.st_size) != header.fileLength) {
        NIS_THROW(BadSnapshotFile, "Corrupt header in snapshot (file length)", m_filename);
    }
    m_order = header.order;
    m_dataStart = header.dataStart;
    m_fileLength = header.fileLength;
    Window window;
    std::uint64_t end = header.domain;
    bool inSequence = end == sizeof header;
    try {
        m_domain = readString(end, window);
        inSequence = inSequence && end == header.mapName;
        end = header.mapName;
        m_mapName = readString(end, window);
        inSequence = inSequence && end == header.server;
        end = header.server;
        m_server = readString(end, window);
    } catch (const FileReadFailed&) {
        KARST_LOG(logger, tessa::LOG_WARN,
                  "Failed while reading header strings from snapshot file '%s'",
                  m_filename.c_str());
        NIS_THROW(BadSnapshotFile, "snapshot read failed string failed", m_filename);
    }
    // The strings lie one behind the other and the records behind them; a damaged offset would
    // lose records from the beginning.
    if (!inSequence || end != m_dataStart || header.reserved1 != 0 || header.reserved2 != 0) {
        NIS_THROW(BadSnapshotFile, "Corrupt header in snapshot (string offsets)", m_filename);
    }
}

/// Walks over all records, which must end exactly with the file: a damaged length would otherwise
/// end the map early, and what is left of it would be served as the whole.
void CacheSnapshot::checkRecords() {
    Window window;
    bool sound = true;
    std::uint64_t position = m_dataStart;
    try {
        while (sound && position < m_fileLength) {
            const std::size_t keyLength = lengthAt(position, window);
            position += LENGTH_SIZE + keyLength;
            position += LENGTH_SIZE + lengthAt(position, window);
            sound = keyLength > 0 && position <= m_fileLength;
        }
    } catch (const FileReadFailed&) {
        sound = false;
    }
    if (!sound) {
        NIS_THROW(BadSnapshotFile, "Corrupt record in snapshot", m_filename);
    }
}

/// Snapshots are not forced to disk. After a loss of power a block that never got there reads as
/// zeros, which could pass for a part of a long value.
void CacheSnapshot::checkBlocks() const {
    static constexpr char ZEROS[BLOCK] = {};
    constexpr std::size_t LEAST = 64; // fewer may well be the end of a value
    std::vector<char> bytes(WINDOW_SIZE);
    for (std::uint64_t start = 0; start < m_fileLength; start += bytes.size()) {
        const std::size_t got = readFully(m_file, bytes.data(), bytes.size(), start);
        for (std::size_t at = 0; at < got; at += BLOCK) {
            const std::size_t length = std::min(BLOCK, got - at);
            if (length >= LEAST && std::memcmp(bytes.data() + at, ZEROS, length) == 0) {
                NIS_THROW(BadSnapshotFile, "Corrupt record in snapshot", m_filename);
            }
        }
    }
}

CacheSnapshot::~CacheSnapshot() {
    KARST_LOG(logger, tessa::LOG_TRACE, "Destructing CacheSnapshot '%s' for map %s, order = %u",
              m_filename.c_str(), m_mapName.c_str(), m_order);
    struct stat opened {};
    struct stat named {};
    const bool ours = ::fstat(m_file, &opened) == 0 && ::lstat(m_filename.c_str(), &named) == 0 &&
                      opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
    if (::close(m_file) != 0) {
        KARST_LOG(logger, tessa::LOG_WARN,
                  "Failure while closing snapshot file '%s' during CacheSnapshot destruction",
                  m_filename.c_str());
    }
    if (m_unlinkOnClose && ours) {
        KARST_LOG(logger, tessa::LOG_TRACE, "unlinking CacheSnapshot file '%s'",
                  m_filename.c_str());
        ::unlink(m_filename.c_str());
    }
}

bool CacheSnapshot::openForReading() {
    // O_NONBLOCK: a named pipe must not stop the start of the daemon.
    m_file = ::open(m_filename.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (m_file < 0) {
        KARST_LOG(logger, tessa::LOG_WARN, "Failed to open snapshot file '%s' for reading",
                  m_filename.c_str());
    }
    return m_file >= 0;
}

boost::shared_ptr<MapIterator>
CacheSnapshot::getIterator(const boost::shared_ptr<CacheSnapshot>& self) {
    return boost::make_shared<SnapshotIterator>(self);
}

void CacheSnapshot::preserveOnClose() {
    m_unlinkOnClose = false;
}

bool CacheSnapshot::IsCacheSnapshotFile(const std::string& path) {
    return path.size() > std::strlen(SNAPSHOT_SUFFIX) && path.ends_with(SNAPSHOT_SUFFIX) &&
           ::access(path.c_str(), F_OK) == 0;
}

void CacheSnapshot::readFailed(std::uint64_t position) const {
    KARST_LOG(logger, tessa::LOG_WARN, "Failure while reading from '%s' @ %ld", m_filename.c_str(),
              static_cast<long>(position));
    NIS_THROW(FileReadFailed, "Reading from snapshot", m_filename);
}

/// Copies from the window, which is moved along as needed. @return false when the file ends before
bool CacheSnapshot::readBytes(std::uint64_t position, char* bytes, std::size_t length,
                              Window& window) const {
    if (position + length > m_fileLength) {
        return false;
    }
    if (position < window.start || position + length > window.start + window.length) {
        if (window.bytes.empty()) {
            window.bytes.resize(std::min<std::uint64_t>(WINDOW_SIZE, m_fileLength));
        }
        window.start = position;
        window.length = readFully(m_file, window.bytes.data(), window.bytes.size(), position);
        if (window.length < length) {
            return false;
        }
    }
    if (length > 0) {
        std::memcpy(bytes, window.bytes.data() + (position - window.start), length);
    }
    return true;
}

/// The length of the string at the position.
std::size_t CacheSnapshot::lengthAt(std::uint64_t position, Window& window) const {
    std::uint16_t length = 0;
    if (!readBytes(position, reinterpret_cast<char*>(&length), sizeof length, window)) {
        readFailed(position);
    }
    return length;
}

/// Reads the string at the position, which is moved behind it.
std::string CacheSnapshot::readString(std::uint64_t& position, Window& window) const {
    std::string text(lengthAt(position, window), '\0');
    if (!readBytes(position + LENGTH_SIZE, text.data(), text.size(), window)) {
        readFailed(position);
    }
    position += LENGTH_SIZE + text.size();
    return text;
}

/// The record at the position, which is moved behind it; it stays when reading fails.
MapEntry CacheSnapshot::readEntry(std::uint64_t& position, Window& window) const {
    std::uint64_t at = position == NOT_STARTED ? m_dataStart : position;
    if (at >= m_fileLength) {
        return MapEntry::NOT_FOUND;
    }
    MapEntry entry;
    entry.key = readString(at, window);
    entry.value = readString(at, window);
    position = at;
    return entry;
}

} // namespace nis
