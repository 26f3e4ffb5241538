#include "daemon/UpdateLoop.h"

#include "common/ConfigKeys.h"
#include "common/Globals.h"
#include "common/NisException.h"
#include "daemon/Portmapper.h"
#include "daemon/Waiting.h"
#include "directory/ADInterface.h"
#include "server/ADNisServer.h"

#include <karst/Exceptions.h>

#include <boost/make_shared.hpp>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <limits>
#include <string>

#include <malloc.h>
#include <sys/stat.h>

namespace nis {

namespace {

constexpr const char* CACHE_FOLDER = "/var/velmorix/nis";
constexpr std::time_t LONGEST_WAIT = 15; ///< seconds between looks at the portmapper
constexpr std::time_t END_OF_TIME = std::numeric_limits<std::time_t>::max();

// Results of Update().
constexpr int UPDATED = 0;
constexpr int DISK_FAILED = 2;
constexpr int UPDATE_FAILED = 4;
constexpr int QUORAD_FAILED = 5;

std::time_t later(std::time_t time, std::time_t seconds) {
    return time > END_OF_TIME - seconds ? END_OF_TIME : time + seconds;
}

bool cacheFolderIsGone() {
    struct stat status {};
    return stat(CACHE_FOLDER, &status) != 0 && (errno == ENOENT || errno == ENOTDIR);
}

int failedOnDisk(FileSystemError& e) {
    if (cacheFolderIsGone()) {
        KARST_LOG(logger, tessa::LOG_FAILURE,
                  "Directory '%s' is gone (was quordrop called?) Cannot continue.", CACHE_FOLDER);
        gShutdownNow = true;
    } else {
        KARST_LOG(logger, tessa::LOG_WARN, "Update from AD failed: %s '%s'", e.msg().c_str(),
                  e.arg().c_str());
    }
    return DISK_FAILED;
}

/// Seconds between updates; 0: none.
std::time_t readInterval() {
    const long interval = getConfig()->getTime(PROP_UPDATE, DEFAULT_UPDATE_INTERVAL);
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "UpdateLoop: %s=%d seconds", PROP_UPDATE,
              static_cast<int>(std::clamp<long>(interval, std::numeric_limits<int>::min(),
                                                std::numeric_limits<int>::max())));
    if (interval < 0) {
        KARST_LOG(logger, tessa::LOG_WARN,
                  "Negative value for property %s not allowed. Using %d seconds", PROP_UPDATE,
                  static_cast<int>(DEFAULT_UPDATE_INTERVAL));
        return DEFAULT_UPDATE_INTERVAL;
    }
    return interval;
}

bool signalled() {
    return gShutdownNow || gReconfigureNow || gRebuildMapNow || gRefreshMapNow;
}

/// Waits until the deadline or a signal; a portmapper that was restarted is told of the service
/// meanwhile.
void waitUntil(std::time_t deadline) {
    while (!signalled() && std::time(nullptr) < deadline) {
        pollUntil(std::min(deadline, later(std::time(nullptr), LONGEST_WAIT)), false);
        keepRegistered();
    }
}

/// The domain that is served was settled at the start, so a change of it in the directory can only
/// be reported.
void noteDomain(const ADNisServer& server) {
    static bool reported = false;
    try {
        const std::string domain = ADInterface::readNisDomain();
        if (server.isDomainSupported(domain.c_str())) {
            reported = false;
        } else if (!reported) {
            reported = true;
            KARST_LOG(logger, tessa::LOG_WARN,
                      "NIS domain is now '%s', but '%s' is served. Restart orrisd to serve the new "
                      "domain.",
                      domain.c_str(), server.getDomain().c_str());
        }
    } catch (const tessa::TESSAException& e) {
        KARST_LOG(logger, tessa::LOG_WARN, "While retrieving NisDomain from AD: %s", e.what());
    }
}

/// An update that leaves maps to serve ends the waiting of requests.
int updateAndNote(ADNisServer& server, bool rebuild, bool refresh) {
    const int result = Update(rebuild, refresh);
    if (result == UPDATED) {
        noteDomain(server);
    }
    if (!server.getMapList(server.getDomain().c_str())->empty()) {
        gInitialized = true;
    }
    return result;
}

/// When updates are due. A time of the facade that did not move shows a map that was not reached;
/// the next attempt at it comes one interval later.
class Schedule {
public:
    Schedule(ADNisServer& server, std::time_t interval) : m_server(server), m_interval(interval) {
        const std::time_t last = server.getLastUpdateTime();
        m_next = std::min(last == 0 ? 0 : later(last, interval), server.getNextUpdateTime());
    }

    std::time_t next() const { return m_next; }
    bool isDue() const { return std::time(nullptr) > m_next; }

    void runUpdate(bool refresh) {
        const std::time_t t1 = m_server.getNextUpdateTime();
        const int result = updateAndNote(m_server, false, refresh);
        const std::time_t now = std::time(nullptr);
        const std::time_t t2 = later(now, m_interval);
        const std::time_t moved = m_server.getNextUpdateTime();
        // A time that lies ahead is due then, moved or not: after a restart the maps' own times are
        // later than that of the last update before it.
        const bool usable = result == UPDATED && (moved != t1 || moved > now);
        m_next = usable ? std::min(t2, moved) : t2;
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "t1 = %u, t2 = %u, old_t2 = %u, next = %u",
                  static_cast<unsigned>(t1), static_cast<unsigned>(t2),
                  static_cast<unsigned>(m_oldT2), static_cast<unsigned>(m_next));
        m_oldT2 = t2;
    }

private:
    ADNisServer& m_server;
    std::time_t m_interval;
    std::time_t m_next = 0;
    std::time_t m_oldT2 = 0;
};

/// Updates at their times until a signal comes.
void runSchedule(ADNisServer& server, bool& forceFirst) {
    const std::time_t interval = readInterval();
    if (interval == 0) {
        waitUntil(END_OF_TIME);
        return;
    }
    Schedule schedule(server, interval);
    while (!signalled()) {
        if (!forceFirst && !schedule.isDue()) {
            waitUntil(later(schedule.next(), 1));
            continue;
        }
        const bool refresh = forceFirst;
        forceFirst = false;
        schedule.runUpdate(refresh);
    }
}

void readConfigurationAgain(ADNisServer& server) {
    KARST_LOG(logger, tessa::LOG_INFORMATION, "Re-reading config file %s", CONFIG_FILE);
    const auto config = boost::make_shared<tessa::Properties>();
    if (config->load(CONFIG_FILE)) {
        setConfig(config);
        tessa::Logger::configure(*config);
    }
    try {
        server.reconfigure();
    } catch (NisException& e) {
        KARST_LOG(logger, tessa::LOG_FAILURE, "Reconfiguration failed: %s '%s'", e.msg().c_str(),
                  e.arg().c_str());
    } catch (const std::exception& e) {
        KARST_LOG(logger, tessa::LOG_FAILURE, "Reconfiguration failed: %s", e.what());
    }
}

/// What the load of a large map needed for a while goes back to the system when it is over.
struct MemoryReturned {
    MemoryReturned() = default;
    ~MemoryReturned() { malloc_trim(0); }
    MemoryReturned(const MemoryReturned&) = delete;
    MemoryReturned& operator=(const MemoryReturned&) = delete;
};

/// What an update threw, in the order from the particular to the general.
int explainFailure() {
    try {
        throw;
    } catch (FileSystemError& e) {
        return failedOnDisk(e);
    } catch (NisException& e) {
        KARST_LOG(logger, tessa::LOG_WARN, "Update from AD failed: %s '%s'", e.msg().c_str(),
                  e.arg().c_str());
        return UPDATE_FAILED;
    } catch (const tessa::IOException& e) {
        KARST_LOG(logger, tessa::LOG_WARN, "Update failed. Failure communicating with quorad: %s",
                  e.what());
        return QUORAD_FAILED;
    } catch (const tessa::IPCException& e) {
        KARST_LOG(logger, tessa::LOG_WARN, "Update from AD failed: %s", e.what());
        return QUORAD_FAILED;
    } catch (const std::exception& e) {
        KARST_LOG(logger, tessa::LOG_WARN, "Update from AD failed: %s (unexpected exception type)",
                  e.what());
        return UPDATE_FAILED;
    } catch (...) {
        KARST_LOG(logger, tessa::LOG_WARN,
                  "Update from AD failed: unknown exception (unexpected exception type)");
        return UPDATE_FAILED;
    }
}

} // namespace

void InitiateShutdown(int /*signalNumber*/) {
    gShutdownNow = true;
}

void InitiateReconfigure(int /*signalNumber*/) {
    gReconfigureNow = true;
}

void InitiateRebuildMap(int /*signalNumber*/) {
    gRebuildMapNow = true;
}

void InitiateRefreshMap(int /*signalNumber*/) {
    gRefreshMapNow = true;
}

int Update(bool rebuild, bool refresh) {
    const tessa::Lock lock(gUpdateModeProtect);
    const MemoryReturned returned;
    try {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "Update begin");
        getNisServer()->update(rebuild, refresh);
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "Update complete");
        return UPDATED;
    } catch (...) {
        return explainFailure();
    }
}

LoopEnd UpdateLoop() {
    const boost::shared_ptr<ADNisServer> server = getNisServer();
    bool forceFirst = !gInitialized;
    for (;;) {
        runSchedule(*server, forceFirst);
        if (gRebuildMapNow.exchange(false)) {
            KARST_LOG(logger, tessa::LOG_INFORMATION, "Re-building existing explicit maps");
            updateAndNote(*server, true, true);
        }
        if (gRefreshMapNow.exchange(false)) {
            KARST_LOG(logger, tessa::LOG_INFORMATION, "Refresh existing maps");
            updateAndNote(*server, false, true);
        }
        if (gReconfigureNow.exchange(false)) {
            readConfigurationAgain(*server);
            return LoopEnd::Reconfigured;
        }
        if (gShutdownNow) {
            return LoopEnd::Shutdown;
        }
    }
}

} // namespace nis
