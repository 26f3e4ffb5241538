#include "DirectoryLoader.h"

#include "../Reporter.h"
#include "IndexLoader.h"
#include "LdifReader.h"

#include <karst/Exceptions.h>
#include <karst/Text.h>

#include <algorithm>
#include <ctime>

namespace quorad::ldif {

namespace {

/// Files up to this size are read while a caller waits.
constexpr std::int64_t QUICK_SIZE = std::int64_t{8} << 20U;
constexpr std::chrono::seconds RETRY{60};
constexpr std::size_t MAX_WARNED = 1000;

/// Gives up a mutex that the thread holds already.
class KARST_SCOPED_CAPABILITY HeldLock {
public:
    explicit HeldLock(tessa::Mutex& mutex) KARST_REQUIRES(mutex) : m_mutex(mutex) {}
    ~HeldLock() KARST_RELEASE() { m_mutex.unlock(); }
    HeldLock(const HeldLock&) = delete;
    HeldLock& operator=(const HeldLock&) = delete;

private:
    tessa::Mutex& m_mutex;
};

bool endsWith(std::string_view text, std::string_view end) {
    return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

// Whether one of two DNS names is the other or lies in it.
bool related(const std::string& a, const std::string& b) {
    return a == b || endsWith(a, "." + b) || endsWith(b, "." + a);
}

} // namespace

DirectoryLoader::DirectoryLoader(std::string filePath, std::string indexPath, bool discard)
    : m_filePath(std::move(filePath)), m_indexPath(std::move(indexPath)),
      m_logger(tessa::Logger::get(LOGGER_NAME)) {
    const tessa::Lock lock(m_lookMutex);
    openIndex(discard);
    std::string why;
    const FileIdentity identity = FileIdentity::of(m_filePath, why);
    if (!identity.exists()) {
        setUnavailable("directory file '" + m_filePath + "' is missing: " + why);
    } else if (m_hasGoodState) {
        setAvailable();
    } else {
        setUnavailable("directory file '" + m_filePath + "' has not been read yet");
    }
}

void DirectoryLoader::openIndex(bool discard) {
    std::shared_ptr<Index> index;
    if (discard) {
        Index::remove(m_indexPath);
    }
    try {
        index = std::make_shared<Index>(m_indexPath);
    } catch (const sqlite::Damaged& e) {
        KARST_LOG(m_logger, tessa::LOG_WARN,
                  "The directory index is damaged and made anew; all objects count as new: %s",
                  e.what());
        Index::remove(m_indexPath);
        index = std::make_shared<Index>(m_indexPath);
    }
    {
        const tessa::Lock lock(m_mutex);
        m_state.index = index;
    }
    m_loaded = index->reader()->source();
    // The state of another file is none of ours, though its objects keep their identity.
    m_hasGoodState = m_loaded.substr(0, m_filePath.size() + 1) == m_filePath + "\n";
    m_failed.clear();
    readState();
}

void DirectoryLoader::replaceDamagedIndex() {
    if (!currentIndex()->damaged()) {
        return;
    }
    KARST_LOG(m_logger, tessa::LOG_WARN,
              "The directory index is damaged and made anew; all objects count as new");
    setUnavailable("the directory index is being made anew");
    m_hasGoodState = false;
    openIndex(true);
}

std::string DirectoryLoader::sourceText(const FileIdentity& identity) const {
    return m_filePath + "\n" + identity.toString();
}

std::shared_ptr<Index> DirectoryLoader::currentIndex() {
    const tessa::Lock lock(m_mutex);
    return m_state.index;
}

void DirectoryLoader::setUnavailable(const std::string& reason) {
    const tessa::Lock lock(m_mutex);
    m_state.unavailable = reason;
}

void DirectoryLoader::setAvailable() {
    setUnavailable("");
}

// What the index says about itself, for those who ask.
void DirectoryLoader::readState() {
    const std::shared_ptr<Index> index = currentIndex();
    const Index::Lease reader = index->reader();
    std::string server = reader->server();
    std::vector<std::string> domains = reader->domains();
    const tessa::Lock lock(m_mutex);
    m_state.server = std::move(server);
    m_state.domains = std::move(domains);
}

std::shared_ptr<Index> DirectoryLoader::index(const std::string& domain) {
    const std::string name = tessa::lower(domain);
    const tessa::Lock lock(m_mutex);
    if (!m_state.unavailable.empty()) {
        TESSA_THROW(tessa::IPCException, m_state.unavailable);
    }
    const auto& domains = m_state.domains;
    const bool ours = name.empty() || domains.empty() || name == m_state.server ||
                      std::any_of(domains.begin(), domains.end(),
                                  [&](const std::string& own) { return related(own, name); });
    if (!ours) {
        TESSA_THROW(tessa::IPCException, "no server for domain " + domain);
    }
    return m_state.index;
}

void DirectoryLoader::look() {
    const tessa::Lock lock(m_lookMutex);
    try {
        replaceDamagedIndex();
    } catch (const tessa::TESSAException& e) {
        setUnavailable(std::string("the directory index cannot be made anew: ") + e.what());
        return;
    }
    std::string why;
    const FileIdentity identity = FileIdentity::of(m_filePath, why);
    lookAt(identity, why, false);
}

void DirectoryLoader::lookIfQuick() {
    if (!m_lookMutex.try_lock()) {
        return;
    }
    const HeldLock lock(m_lookMutex);
    std::string why;
    const FileIdentity identity = FileIdentity::of(m_filePath, why);
    lookAt(identity, why, true);
}

void DirectoryLoader::lookAt(const FileIdentity& identity, const std::string& why, bool quick) {
    if (!identity.exists()) {
        const std::string reason = "directory file '" + m_filePath + "' is missing: " + why;
        if (!m_missing) {
            KARST_LOG(m_logger, tessa::LOG_WARN, "%s", reason.c_str());
        }
        m_missing = true;
        m_lastSeen = identity;
        setUnavailable(reason);
        return;
    }
    m_missing = false;
    const std::string source = sourceText(identity);
    if (source == m_loaded) {
        m_lastSeen = identity;
        m_failed.clear();
        setAvailable();
        return;
    }
    if (source == m_failed && std::chrono::steady_clock::now() < m_retryAt) {
        setUnavailable(m_hasGoodState ? "" : m_failure);
        return;
    }
    if (quick && (identity.size > QUICK_SIZE || (identity.sameFile(m_lastSeen)))) {
        return;
    }
    if (!beingWritten(identity)) {
        load(identity);
    }
}

// A file that is replaced as a whole comes with another inode. One that changes in place is left
// alone until it has not changed between two looks.
bool DirectoryLoader::beingWritten(const FileIdentity& identity) {
    const bool changes = identity.sameFile(m_lastSeen) && !(identity == m_lastSeen);
    m_lastSeen = identity;
    return changes;
}

void DirectoryLoader::load(const FileIdentity& identity) {
    const std::string source = sourceText(identity);
    LoadSummary summary;
    std::vector<std::string> warnings;
    try {
        if (!transfer(summary, warnings)) {
            KARST_LOG(m_logger, tessa::LOG_INFORMATION,
                      "Directory file '%s' has changed while it was read; it will be read again",
                      m_filePath.c_str());
            return;
        }
        readState();
    } catch (const tessa::BadDataException& e) {
        loadFailed(identity, e.what(), false);
        return;
    } catch (const sqlite::Damaged& e) {
        currentIndex()->reportDamage();
        loadFailed(identity, e.what(), true);
        return;
    } catch (const tessa::TESSAException& e) {
        loadFailed(identity, e.what(), true);
        return;
    }
    m_hasGoodState = true;
    m_loaded = source;
    m_failed.clear();
    setAvailable();
    logLoad(summary, warnings);
}

// Reads the file into the index. False, with the index as it was, when the file changed meanwhile.
bool DirectoryLoader::transfer(LoadSummary& summary, std::vector<std::string>& warnings) {
    SourceFile file(m_filePath);
    const FileIdentity before = file.identity();
    const std::unique_ptr<sqlite::Database> writer = currentIndex()->writer();
    sqlite::Transaction transaction(*writer, "BEGIN IMMEDIATE");
    {
        IndexLoader loader(*writer, std::time(nullptr));
        LdifReader reader(m_filePath,
                          [&](char* buffer, std::size_t size) { return file.read(buffer, size); });
        LdifRecord record;
        while (reader.next(record)) {
            try {
                loader.add(record);
            } catch (const tessa::BadDataException& e) {
                reader.fail(record.line, e.what());
            }
        }
        std::string why;
        if (!(file.identity() == before) || !(FileIdentity::of(m_filePath, why) == before)) {
            return false;
        }
        // An empty file is one that somebody is about to write, or lost: not a directory without
        // objects.
        if (!loader.hasObjects()) {
            reader.fail(1, "there are no records");
        }
        summary = loader.finish(sourceText(before));
        warnings = loader.warnings();
    }
    transaction.commit();
    m_lastSeen = before;
    try {
        Index::settle(*writer);
    } catch (const sqlite::Damaged&) {
        throw;
    } catch (const tessa::DBException& e) {
        // All that is lost is space in the log.
        KARST_LOG(m_logger, tessa::LOG_DEBUGGING, "Log of the directory index: %s", e.what());
    }
    return true;
}

void DirectoryLoader::loadFailed(const FileIdentity& identity, const std::string& why, bool retry) {
    const std::string source = sourceText(identity);
    if (m_failed != source || m_failure != why) {
        KARST_LOG(m_logger, tessa::LOG_WARN, "Directory file not taken over: %s (%s)", why.c_str(),
                  m_hasGoodState ? "the directory stays as it was" : "there is no directory");
    }
    m_failed = source;
    m_failure = "directory file '" + m_filePath + "' cannot be used: " + why;
    m_retryAt = retry ? std::chrono::steady_clock::now() + RETRY
                      : std::chrono::steady_clock::time_point::max();
    setUnavailable(m_hasGoodState ? "" : m_failure);
}

void DirectoryLoader::logLoad(const LoadSummary& summary,
                              const std::vector<std::string>& warnings) {
    KARST_LOG(m_logger, tessa::LOG_INFORMATION,
              "Directory file '%s' read: %zu objects, %zu new, %zu changed, %zu deleted",
              m_filePath.c_str(), summary.objects, summary.added, summary.changed, summary.deleted);
    if (m_warned.size() > MAX_WARNED) {
        m_warned.clear();
    }
    for (const std::string& warning : warnings) {
        if (m_warned.insert(warning).second) {
            KARST_LOG(m_logger, tessa::LOG_WARN, "Directory file '%s': %s", m_filePath.c_str(),
                      warning.c_str());
        }
    }
}

} // namespace quorad::ldif
