#pragma once

#include "Backend.h"
#include "Reporter.h"
#include "SocketAllow.h"

#include <karst/Mutex.h>
#include <karst/Properties.h>
#include <karst/Thread.h>
#include <twine/Server.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>

namespace quorad {

/// Where the daemon finds and keeps its things; tests use others.
struct Places {
    std::string configuration = "/etc/velmorix/velmorix.conf";
    std::string stateDirectory = STATE_DIRECTORY;
    std::string socket = tessa::QUORAD_SOCKET;
};

/// The running service: the socket, the back end in force, and a thread that keeps it up to date
/// and applies changes of the configuration. Made, run and destroyed by the main thread.
///
/// After the constructor the maintenance thread alone replaces server and back end, until stop()
/// has joined it. `m_mutex` guards what the main thread asks of it.
class Daemon {
public:
    /// Reads the configuration and begins to look at the directory, which need not be there.
    /// @param discardState begin without what was kept on disk
    /// @throws tessa::BadDataException for an unusable configuration; another
    ///         tessa::TESSAException when the state cannot be kept
    Daemon(Places places, bool discardState);
    ~Daemon(); ///< stop()
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    /// Waits until the directory has been looked at once, whether it could be asked or not.
    /// @return false when the time passed first
    bool awaitFirstLook(std::chrono::milliseconds limit);
    /// Binds the socket and starts to answer. Once.
    /// @throws std::system_error, std::runtime_error when the socket cannot be had
    void serve();
    /// Reads the configuration again, soon, on the maintenance thread. Only after serve().
    void reconfigure();
    /// Stops serving and waits for all threads.
    void stop();
    /// Whether the maintenance thread had to give up; the reason has been logged.
    bool failed() const { return m_failed; }

private:
    void maintenance();
    bool awaitTurn(bool& reconfigure);
    void maintainOnce(bool refreshZones);
    void applyConfiguration();
    void replaceBackend(const tessa::Properties& configuration);

    const Places m_places;
    const boost::shared_ptr<tessa::Logger> m_logger;
    SocketAllow m_allow;
    Reporter m_reporter;
    DirectoryHealth m_health;
    CurrentBackend m_backend;
    std::unique_ptr<twine::Server> m_server;

    tessa::Mutex m_mutex;
    bool m_stopping KARST_GUARDED_BY(m_mutex) = false;
    bool m_reconfigure KARST_GUARDED_BY(m_mutex) = false;
    bool m_looked KARST_GUARDED_BY(m_mutex) = false;
    std::atomic<bool> m_failed{false};
    tessa::Thread m_maintenance;
};

} // namespace quorad
