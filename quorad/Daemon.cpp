#include "Daemon.h"

#include "Process.h"
#include "Service.h"

#include <karst/Exceptions.h>
#include <karst/Text.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <exception>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

namespace quorad {

namespace {

constexpr std::chrono::milliseconds TURN(1000);
// The zone and its ancestors seldom change; asking for them is a few small questions.
constexpr unsigned TURNS_BETWEEN_REFRESHES = 5;
constexpr unsigned MAX_CONNECTIONS = 64;

} // namespace

Daemon::Daemon(Places places, bool discardState)
    : m_places(std::move(places)), m_logger(tessa::Logger::get(LOGGER_NAME)), m_reporter(m_logger),
      m_health(m_logger), m_backend(nullptr) {
    tessa::Properties configuration;
    configuration.load(m_places.configuration); // a missing file has been reported: defaults hold
    tessa::Logger::configure(configuration);
    setCoreDumps(configuration.getBool(PROP_CORE_DUMPS, false));
    m_allow.set(configuration.getList(PROP_SOCKET_ALLOW));
    m_backend.set(makeBackend(configuration, m_places.stateDirectory, nullptr, discardState));
    m_maintenance.start("maintenance", [this] { maintenance(); });
}

Daemon::~Daemon() {
    stop();
}

void Daemon::serve() {
    twine::ServerOptions options;
    options.socketPath = m_places.socket;
    options.socketMode = m_allow.socketMode();
    options.maxConnections = MAX_CONNECTIONS;
    options.allow = [this](const twine::Peer& peer) { return m_allow.permits(peer.uid); };
    options.converse = [this](const twine::Peer& peer) {
        tessa::Thread::setName("client-" + std::to_string(peer.pid));
        return std::make_unique<Service>(m_backend, m_health, m_reporter,
                                         "process " + std::to_string(peer.pid) + " of user " +
                                             std::to_string(peer.uid));
    };
    options.report = [this](const std::string& text) { m_reporter.report(text); };
    m_server = std::make_unique<twine::Server>(std::move(options));
    m_server->start();
}

void Daemon::reconfigure() {
    const tessa::Lock lock(m_mutex);
    m_reconfigure = true;
    m_mutex.notifyAll();
}

bool Daemon::awaitFirstLook(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    const tessa::Lock lock(m_mutex);
    while (!m_looked) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            return false;
        }
        m_mutex.wait(left);
    }
    return true;
}

void Daemon::stop() {
    {
        const tessa::Lock lock(m_mutex);
        m_stopping = true;
        m_mutex.notifyAll();
    }
    m_maintenance.join();
    m_server.reset();
}

void Daemon::maintenance() {
    unsigned turn = 0;
    bool reconfigure = false;
    do {
        try {
            if (reconfigure) {
                applyConfiguration();
                turn = 0;
            }
            maintainOnce(turn++ % TURNS_BETWEEN_REFRESHES == 0);
        } catch (const std::exception& error) {
            KARST_LOG(m_logger, tessa::LOG_FATAL, "Cannot go on: %s", error.what());
            m_failed = true;
            ::kill(::getpid(), SIGTERM);
            return;
        }
        m_reporter.flush();
    } while (awaitTurn(reconfigure));
}

bool Daemon::awaitTurn(bool& reconfigure) {
    const tessa::Lock lock(m_mutex);
    m_looked = true;
    m_mutex.notifyAll();
    if (!m_stopping && !m_reconfigure) {
        m_mutex.wait(TURN);
    }
    reconfigure = std::exchange(m_reconfigure, false);
    return !m_stopping;
}

void Daemon::maintainOnce(bool refreshZones) {
    const auto backend = m_backend.get();
    try {
        backend->directory->maintain();
    } catch (const tessa::TESSAException& error) {
        // Told once; the next turn tries again.
        m_health.failed(error.message());
    }
    if (refreshZones) {
        backend->zones->refresh();
    }
}

void Daemon::applyConfiguration() {
    tessa::Properties configuration;
    if (!configuration.load(m_places.configuration)) {
        KARST_LOG(m_logger, tessa::LOG_WARN, "Configuration not changed");
        return;
    }
    try {
        checkConfiguration(configuration);
    } catch (const tessa::BadDataException& error) {
        KARST_LOG(m_logger, tessa::LOG_FAILURE, "Configuration not changed: %s", error.what());
        return;
    }
    tessa::Logger::configure(configuration);
    m_allow.set(configuration.getList(PROP_SOCKET_ALLOW));
    if (::chmod(m_places.socket.c_str(), m_allow.socketMode()) != 0) {
        KARST_LOG(m_logger, tessa::LOG_FAILURE, "chmod(%s) failed: %s", m_places.socket.c_str(),
                  tessa::errorText(errno).c_str());
    }
    replaceBackend(configuration);
    KARST_LOG(m_logger, tessa::LOG_INFORMATION, "Configuration read again");
}

void Daemon::replaceBackend(const tessa::Properties& configuration) {
    std::shared_ptr<Backend> before = m_backend.get();
    if (before->source == configuration.get(PROP_DIRECTORY, DEFAULT_DIRECTORY)) {
        m_backend.set(makeBackend(configuration, m_places.stateDirectory, before, false));
        return;
    }
    // Two directories cannot share the state: the old one goes first, and with it the conversations
    // that may have searches open in it. Clients connect again with their next call.
    KARST_LOG(m_logger, tessa::LOG_INFORMATION, "The directory is another one from now on");
    m_server.reset();
    m_backend.set(nullptr);
    before.reset();
    m_backend.set(makeBackend(configuration, m_places.stateDirectory, nullptr, false));
    serve();
}

} // namespace quorad
