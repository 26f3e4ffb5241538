#pragma once

#include "Index.h"
#include "IndexLoader.h"
#include "SourceFile.h"

#include <karst/Logger.h>
#include <karst/Mutex.h>

#include <chrono>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace quorad::ldif {

/// Keeps the index in step with the LDIF file. Thread-safe: the look mutex is held while the file
/// is looked at and loaded, the state mutex only to read and set what readers need.
class DirectoryLoader {
public:
    /// Opens the index, or makes it anew when it is damaged or to be discarded.
    DirectoryLoader(std::string filePath, std::string indexPath, bool discard);

    /// Loads the file when it has changed.
    void look();
    /// The same for a caller that waits: a large file is left to look(), and so is everything while
    /// another thread is at it.
    void lookIfQuick();

    /// The index, for questions about a domain ("" for any).
    /// @throws tessa::IPCException when the directory cannot be asked now
    std::shared_ptr<Index> index(const std::string& domain);

private:
    struct State {
        std::shared_ptr<Index> index;
        std::string unavailable; ///< reason; empty when questions can be answered
        std::string server;
        std::vector<std::string> domains;
    };

    void openIndex(bool discard) KARST_REQUIRES(m_lookMutex);
    void replaceDamagedIndex() KARST_REQUIRES(m_lookMutex);
    void lookAt(const FileIdentity& identity, const std::string& why, bool quick)
        KARST_REQUIRES(m_lookMutex);
    bool beingWritten(const FileIdentity& identity) KARST_REQUIRES(m_lookMutex);
    void load(const FileIdentity& identity) KARST_REQUIRES(m_lookMutex);
    bool transfer(LoadSummary& summary, std::vector<std::string>& warnings)
        KARST_REQUIRES(m_lookMutex);
    void loadFailed(const FileIdentity& identity, const std::string& why, bool retry)
        KARST_REQUIRES(m_lookMutex);
    void logLoad(const LoadSummary& summary, const std::vector<std::string>& warnings)
        KARST_REQUIRES(m_lookMutex);
    void setUnavailable(const std::string& reason);
    void setAvailable();
    void readState();
    std::string sourceText(const FileIdentity& identity) const;
    std::shared_ptr<Index> currentIndex();

    const std::string m_filePath;
    const std::string m_indexPath;
    const boost::shared_ptr<tessa::Logger> m_logger;

    tessa::Mutex m_lookMutex; ///< taken before m_mutex
    bool m_hasGoodState KARST_GUARDED_BY(m_lookMutex) = false;
    std::string m_loaded KARST_GUARDED_BY(m_lookMutex); ///< source that the index holds
    FileIdentity m_lastSeen KARST_GUARDED_BY(m_lookMutex);
    std::string m_failed KARST_GUARDED_BY(m_lookMutex); ///< source that could not be loaded
    std::string m_failure KARST_GUARDED_BY(m_lookMutex);
    std::chrono::steady_clock::time_point m_retryAt KARST_GUARDED_BY(m_lookMutex);
    bool m_missing KARST_GUARDED_BY(m_lookMutex) = false;
    std::set<std::string> m_warned KARST_GUARDED_BY(m_lookMutex);

    tessa::Mutex m_mutex;
    State m_state KARST_GUARDED_BY(m_mutex);
};

} // namespace quorad::ldif
