// Connections to the pinned controller. Upkeep is in ControllersUpkeep.cpp.
#include "Controllers.h"

#include "../Reporter.h"

#include <karst/Exceptions.h>

#include <algorithm>
#include <ctime>

namespace quorad::ldap {

namespace {

constexpr unsigned MAX_LEASES = 64;
constexpr std::size_t MAX_IDLE = 8;
constexpr std::chrono::seconds IDLE_LIMIT(60);
constexpr std::chrono::seconds AGE_LIMIT(3600); // tickets end, controllers drop old connections
constexpr std::chrono::seconds RETRY_PAUSE(5);
constexpr unsigned UNFIT_LIMIT = 3; // questions sent away before a controller is in doubt

} // namespace

Controllers::Lease::Lease(Controllers& owner, std::unique_ptr<Connection> connection, Epoch epoch)
    : m_owner(&owner), m_connection(std::move(connection)), m_epoch(epoch) {}

Controllers::Lease::~Lease() {
    if (m_connection != nullptr) {
        if (m_discard || !m_connection->usable()) {
            m_connection.reset();
        }
        m_owner->giveBack(std::move(m_connection), m_epoch);
    }
}

Controllers::Controllers(Settings settings, Store& store)
    : m_settings(std::move(settings)), m_store(store),
      m_kerberos(m_settings.authentication == Authentication::GSSAPI
                     ? std::make_shared<Kerberos>(m_settings.keytab, m_settings.principal)
                     : nullptr),
      m_logger(tessa::Logger::get(LOGGER_NAME)) {}

void Controllers::giveBack(std::unique_ptr<Connection> connection, const Epoch& epoch) {
    const tessa::Lock lock(m_mutex);
    --m_leases;
    if (connection != nullptr && m_isPinned && connection->endpoint() == m_pinned.endpoint &&
        epoch.number == m_pinnedEpoch && m_idle.size() < MAX_IDLE) {
        m_idle.push_back({std::move(connection), epoch, Clock::now()});
    }
}

bool Controllers::takeIdle(std::unique_ptr<Connection>& connection, Epoch& epoch) {
    std::vector<Idle> old; // closed without the mutex
    const tessa::Lock lock(m_mutex);
    while (!m_idle.empty()) {
        Idle last = std::move(m_idle.back());
        m_idle.pop_back();
        if (Clock::now() - last.since < IDLE_LIMIT && last.connection->age() < AGE_LIMIT) {
            connection = std::move(last.connection);
            epoch = last.epoch;
            ++m_leases;
            return true;
        }
        old.push_back(std::move(last));
    }
    return false;
}

// The pinned controller first, then the others by preference; those that failed a moment ago not at
// all.
std::vector<Candidate> Controllers::inOrder() {
    const tessa::Lock lock(m_mutex);
    if (m_leases >= MAX_LEASES) {
        TESSA_THROW(tessa::IPCException, "too many questions to the directory at once");
    }
    std::vector<Candidate> all = m_candidates;
    if (m_isPinned) {
        const Candidate pinned = m_pinned;
        const auto isPinned = [&](const Candidate& c) { return c.endpoint == pinned.endpoint; };
        all.erase(std::remove_if(all.begin(), all.end(), isPinned), all.end());
        all.insert(all.begin(), pinned);
    }
    std::string reasons;
    std::vector<Candidate> usable;
    for (const Candidate& candidate : all) {
        const auto health = m_health.find(candidate.endpoint.uri());
        if (health == m_health.end() || health->second.retry <= Clock::now()) {
            usable.push_back(candidate);
        } else {
            reasons += (reasons.empty() ? "" : "; ") + health->second.reason;
        }
    }
    if (usable.empty()) {
        TESSA_THROW(tessa::IPCException, reasons);
    }
    return usable;
}

Controllers::Lease Controllers::lease(Deadline deadline) {
    std::unique_ptr<Connection> connection;
    Epoch epoch;
    if (takeIdle(connection, epoch)) {
        return Lease(*this, std::move(connection), epoch);
    }
    locate(deadline);
    std::string reasons;
    for (const Candidate& candidate : inOrder()) {
        if (Clock::now() >= deadline) {
            break;
        }
        try {
            return leaseFrom(candidate, deadline);
        } catch (const tessa::TESSAException& e) {
            if (reasons.find(e.message()) == std::string::npos) { // what is wrong here fails alike
                reasons += (reasons.empty() ? "" : "; ") + e.message();
            }
        }
    }
    TESSA_THROW(tessa::IPCException,
                reasons.empty() ? "no domain controller answered within the time limit" : reasons);
}

Controllers::Lease Controllers::leaseFrom(const Candidate& candidate, Deadline deadline) {
    try {
        auto connection = connect(candidate.endpoint, deadline);
        const Epoch epoch = checkEpoch(*connection);
        if (isDoubtful(candidate.endpoint)) {
            probe(*connection);
        }
        succeeded(candidate, *connection, epoch);
        {
            const tessa::Lock lock(m_mutex);
            ++m_leases;
        }
        return Lease(*this, std::move(connection), epoch);
    } catch (const tessa::TESSAException& e) {
        failed(candidate.endpoint, e.message(), true);
        throw;
    }
}

std::unique_ptr<Connection> Controllers::connect(const Endpoint& endpoint, Deadline deadline) {
    struct Result {
        std::unique_ptr<Connection> connection;
    };
    const auto result = std::make_shared<Result>();
    m_workers.run(
        deadline,
        [settings = m_settings, endpoint, kerberos = m_kerberos, result] {
            result->connection = std::make_unique<Connection>(settings, endpoint, kerberos.get());
        },
        endpoint.uri() + ": connecting");
    return std::move(result->connection);
}

// Which life of the controller's database this is.
Epoch Controllers::checkEpoch(Connection& connection) {
    const std::string& server = connection.server();
    const ServerState before = m_store.state(server);
    const RootObject root = connection.readRoot();
    std::string invocation;
    if (!root.settingsDn.empty()) {
        try {
            invocation = connection.read(root.settingsDn, {"invocationId"})["invocationId"];
        } catch (const tessa::NotFoundException&) { // NOLINT: hidden from this account
        } catch (const Refused& e) {
            KARST_LOG(m_logger, tessa::LOG_DEBUGGING, "No invocation id: %s", e.what());
        }
    }
    bool begun = false;
    const Epoch epoch = m_store.epoch(server, invocation, root.usn, before, begun);
    if (begun) {
        KARST_LOG(m_logger, tessa::LOG_WARN,
                  "Domain controller %s was restored from a backup or promoted anew: all maps are "
                  "read again in full",
                  server.c_str());
    }
    return epoch;
}

RootObject Controllers::readRoot(Lease& lease) {
    const std::string server = lease->server();
    const ServerState before = m_store.state(server);
    RootObject root = lease->readRoot();
    if (root.server != server || root.usn < before.usn ||
        before.epoch.number != lease.epoch().number) {
        lease.discard();
        TESSA_THROW(ConnectionLost,
                    lease->endpoint().uri() + ": the controller has gone back in its history");
    }
    m_store.raiseUsn(server, root.usn);
    return root;
}

void Controllers::lost(const Lease& lease, const ConnectionLost& failure) {
    // One that was only restarted answers a new connection at once.
    bool pause = dynamic_cast<const Silent*>(&failure) != nullptr;
    std::vector<Idle> idle;
    {
        const tessa::Lock lock(m_mutex);
        idle.swap(m_idle); // as old as the one that is lost
        if (const auto* unfit = dynamic_cast<const Unfit*>(&failure)) {
            const unsigned count = ++m_health[lease->endpoint().uri()].unfit;
            // Otherwise it may be the question that is at fault.
            pause = count >= UNFIT_LIMIT && unfit->isBusy() && m_candidates.size() > 1;
        }
    }
    failed(lease->endpoint(), failure.message(), pause);
}

void Controllers::answered(const Lease& lease) {
    const tessa::Lock lock(m_mutex);
    m_health[lease->endpoint().uri()].unfit = 0;
}

bool Controllers::isDoubtful(const Endpoint& endpoint) {
    const tessa::Lock lock(m_mutex);
    return m_health[endpoint.uri()].unfit >= UNFIT_LIMIT;
}

// A search that every controller answers which answers any.
void Controllers::probe(Connection& connection) {
    SearchOptions options;
    options.sizeLimit = 1;
    std::vector<tessa::ADObject> objects;
    connection.search(connection.root().namingContext, "(objectClass=*)", {"1.1"}, options)
        ->nextPage(objects);
    const tessa::Lock lock(m_mutex);
    m_health[connection.endpoint().uri()].unfit = 0;
}

void Controllers::failed(const Endpoint& endpoint, const std::string& reason, bool pause) {
    const tessa::Lock lock(m_mutex);
    Health& health = m_health[endpoint.uri()];
    const bool news = pause && (!health.failing || health.reason != reason);
    if (pause) {
        health.failing = true;
        health.reason = reason;
        health.retry = Clock::now() + RETRY_PAUSE;
    }
    KARST_LOG(m_logger, news ? tessa::LOG_WARN : tessa::LOG_DEBUGGING,
              "Domain controller %s cannot be used: %s", endpoint.host.c_str(), reason.c_str());
}

void Controllers::succeeded(const Candidate& candidate, const Connection& connection,
                            const Epoch& epoch) {
    {
        const tessa::Lock lock(m_mutex);
        Health& health = m_health[candidate.endpoint.uri()];
        if (health.failing) {
            KARST_LOG(m_logger, tessa::LOG_INFORMATION, "Domain controller %s answers again",
                      candidate.endpoint.host.c_str());
        }
        health.failing = false;
        health.retry = Deadline();
    }
    pin(candidate, connection.server(), epoch);
    checkClock(connection);
}

void Controllers::pin(const Candidate& candidate, const std::string& server, const Epoch& epoch) {
    std::vector<Idle> idle;
    const tessa::Lock lock(m_mutex);
    const bool same = m_isPinned && m_pinned.endpoint == candidate.endpoint;
    if (!same || epoch.number > m_pinnedEpoch) {
        idle.swap(m_idle); // to another controller, or of another life of this one
    }
    // Numbers of one server only rise: the lower one was found out earlier.
    m_pinnedEpoch = same ? std::max(m_pinnedEpoch, epoch.number) : epoch.number;
    if (same) {
        return;
    }
    m_isPinned = true;
    m_pinned = candidate;
    m_pinnedSince = Clock::now();
    KARST_LOG(m_logger, tessa::LOG_INFORMATION, "Domain controller %s (%s) is asked from now on",
              server.c_str(), candidate.endpoint.uri().c_str());
}

void Controllers::noteActivity() {
    const tessa::Lock lock(m_mutex);
    m_activity = Clock::now();
}

} // namespace quorad::ldap
