#pragma once

#include "Connection.h"
#include "Locator.h"
#include "Store.h"
#include "Workers.h"

#include <karst/Logger.h>
#include <karst/Mutex.h>

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace quorad::ldap {

/// The controllers of the domain, and open connections to the one that is asked: the pinned one.
///
/// All questions go to the pinned controller as long as it answers; when it does not, or sends one
/// search after the other away, the next one in the order of preference takes its place. A
/// preferred one that answers again gets its place back, but not while a search is open or within a
/// pass of a client over its maps, and not more often than the configuration says. Each change is
/// logged once. Thread-safe; the mutex is not held while a controller is asked.
class Controllers {
public:
    using Clock = std::chrono::steady_clock;
    using Deadline = Clock::time_point;

    /// Gives the connection back when it ends, unless it is not usable any more or its search was
    /// not read to the end.
    class Lease {
    public:
        Lease(Controllers& owner, std::unique_ptr<Connection> connection, Epoch epoch);
        ~Lease();
        Lease(Lease&&) noexcept = default;
        Lease& operator=(Lease&&) = delete;

        Connection& operator*() const { return *m_connection; }
        Connection* operator->() const { return m_connection.get(); }
        const Epoch& epoch() const { return m_epoch; }
        /// The connection is in a state that the next user must not find it in.
        void discard() { m_discard = true; }

    private:
        Controllers* m_owner;
        std::unique_ptr<Connection> m_connection;
        Epoch m_epoch;
        bool m_discard = false;
    };

    Controllers(Settings settings, Store& store);

    /// A connection to the pinned controller, a new one if need be.
    /// @throws tessa::IPCException when no controller can be asked
    Lease lease(Deadline deadline);
    /// A question over that connection failed because of the controller.
    void lost(const Lease& lease, const ConnectionLost& failure);
    /// A page of a search came.
    void answered(const Lease& lease);
    /// Reads the root object. Finds out whether the controller was restored meanwhile; such a one
    /// is a new epoch of its numbers, and the lease must not be used any more.
    RootObject readRoot(Lease& lease);
    /// A client is at work on its maps, so that the pinned controller stays.
    void noteActivity();

    /// Looks for controllers, connects, and goes back to a preferred one.
    /// @throws tessa::IPCException when no controller can be asked
    void maintain();

    const Settings& settings() const { return m_settings; }

private:
    struct Health {
        bool failing = false;
        std::string reason;
        Deadline retry; ///< not asked again before
        bool skewed = false;
        unsigned unfit = 0; ///< so many questions in a row were sent away
    };
    struct Idle {
        std::unique_ptr<Connection> connection;
        Epoch epoch;
        Deadline since;
    };

    std::unique_ptr<Connection> connect(const Endpoint& endpoint, Deadline deadline);
    bool takeIdle(std::unique_ptr<Connection>& connection, Epoch& epoch);
    void giveBack(std::unique_ptr<Connection> connection, const Epoch& epoch);
    std::vector<Candidate> inOrder();
    void locate(Deadline deadline);
    Lease leaseFrom(const Candidate& candidate, Deadline deadline);
    Epoch checkEpoch(Connection& connection);
    void succeeded(const Candidate& candidate, const Connection& connection, const Epoch& epoch);
    void failed(const Endpoint& endpoint, const std::string& reason, bool pause);
    void pin(const Candidate& candidate, const std::string& server, const Epoch& epoch);
    bool isDoubtful(const Endpoint& endpoint);
    void probe(Connection& connection);
    void checkClock(const Connection& connection);
    void checkTickets();
    bool mayGoBack(std::vector<Candidate>& preferred);
    void goBack();

    const Settings m_settings;
    Store& m_store;
    const std::shared_ptr<Kerberos> m_kerberos;
    const boost::shared_ptr<tessa::Logger> m_logger;

    tessa::Mutex m_mutex;
    std::vector<Candidate> m_candidates KARST_GUARDED_BY(m_mutex);
    Deadline m_located KARST_GUARDED_BY(m_mutex);
    bool m_isPinned KARST_GUARDED_BY(m_mutex) = false;
    Candidate m_pinned KARST_GUARDED_BY(m_mutex);
    std::int64_t m_pinnedEpoch KARST_GUARDED_BY(m_mutex) = 0;
    Deadline m_pinnedSince KARST_GUARDED_BY(m_mutex);
    Deadline m_lastGoBack KARST_GUARDED_BY(m_mutex);
    Deadline m_activity KARST_GUARDED_BY(m_mutex);
    unsigned m_leases KARST_GUARDED_BY(m_mutex) = 0;
    std::vector<Idle> m_idle KARST_GUARDED_BY(m_mutex);               ///< to the pinned controller
    std::map<std::string, Health> m_health KARST_GUARDED_BY(m_mutex); ///< by URI
    std::string m_locateFailure KARST_GUARDED_BY(m_mutex);
    std::string m_ticketFailure KARST_GUARDED_BY(m_mutex);
    Deadline m_ticketsChecked KARST_GUARDED_BY(m_mutex);

    Workers m_workers; ///< destroyed first: its threads use what is above
};

} // namespace quorad::ldap
