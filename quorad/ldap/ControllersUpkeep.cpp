// What is done from time to time: looking for controllers, going back to a preferred one, and
// noticing in good time what the next connection would fail at.
#include "Controllers.h"

#include <karst/Exceptions.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>

namespace quorad::ldap {

namespace {

constexpr std::chrono::seconds LOCATE_INTERVAL(300);
constexpr std::chrono::seconds LOCATE_LIMIT(8);
constexpr std::chrono::seconds CONNECT_LIMIT(15);
constexpr std::chrono::seconds TICKET_INTERVAL(10);
constexpr std::chrono::seconds TICKET_LIMIT(10);
constexpr std::chrono::seconds
    QUIET(30); // a client's pass has no longer gaps between its questions
constexpr long SKEW_WORTH_A_WARNING = 120;

} // namespace

// Asks DNS where controllers come from there. What it said last holds when it does not answer.
void Controllers::locate(Deadline deadline) {
    {
        const tessa::Lock lock(m_mutex);
        const bool fresh = !m_candidates.empty() && (!m_settings.servers.empty() ||
                                                     Clock::now() - m_located < LOCATE_INTERVAL);
        if (fresh) {
            return;
        }
    }
    const auto found = std::make_shared<std::vector<Candidate>>();
    try {
        m_workers.run(
            std::min(deadline, Clock::now() + LOCATE_LIMIT),
            [settings = m_settings, found] { *found = Locator::candidates(settings); },
            "looking for domain controllers of '" + m_settings.domain + "'");
    } catch (const tessa::IPCException& e) {
        const tessa::Lock lock(m_mutex);
        if (e.message() != m_locateFailure) {
            KARST_LOG(m_logger, tessa::LOG_WARN, "%s", e.what());
            m_locateFailure = e.message();
        }
        if (m_candidates.empty()) {
            throw;
        }
        m_located = Clock::now();
        return;
    }
    const tessa::Lock lock(m_mutex);
    m_locateFailure.clear();
    m_located = Clock::now();
    m_candidates = *found;
}

// A difference that is on its way to what Kerberos refuses.
void Controllers::checkClock(const Connection& connection) {
    const long skew = std::labs(static_cast<long>(connection.root().time - std::time(nullptr)));
    const bool skewed = connection.root().time != 0 && skew > SKEW_WORTH_A_WARNING;
    const tessa::Lock lock(m_mutex);
    Health& health = m_health[connection.endpoint().uri()];
    if (skewed && !health.skewed) {
        KARST_LOG(m_logger, tessa::LOG_WARN,
                  "The clocks of this machine and of domain controller %s differ by %ld seconds; "
                  "Kerberos refuses more than 300: set both by one time source",
                  connection.server().c_str(), skew);
    }
    health.skewed = skewed;
}

// Open connections go on without a keytab, so that its loss would be noticed only hours later.
void Controllers::checkTickets() {
    if (m_kerberos == nullptr) {
        return;
    }
    {
        const tessa::Lock lock(m_mutex);
        if (Clock::now() - m_ticketsChecked < TICKET_INTERVAL) {
            return;
        }
        m_ticketsChecked = Clock::now();
    }
    std::string failure;
    try {
        m_workers.run(
            Clock::now() + TICKET_LIMIT, [kerberos = m_kerberos] { kerberos->check(); },
            "asking for Kerberos tickets");
    } catch (const tessa::IPCException& e) {
        failure = e.message();
    }
    const tessa::Lock lock(m_mutex);
    if (!failure.empty() && failure != m_ticketFailure) {
        KARST_LOG(m_logger, tessa::LOG_WARN,
                  "New connections to the directory will not be possible: %s", failure.c_str());
    } else if (failure.empty() && !m_ticketFailure.empty()) {
        KARST_LOG(m_logger, tessa::LOG_INFORMATION, "Keytab and tickets are in order again");
    }
    m_ticketFailure = failure;
}

// Whether there are controllers that are preferred to the pinned one, and now is the time for them.
bool Controllers::mayGoBack(std::vector<Candidate>& preferred) {
    const tessa::Lock lock(m_mutex);
    const auto now = Clock::now();
    const auto interval = m_settings.failbackInterval;
    const auto quiet = std::min<Clock::duration>(QUIET, Clock::duration(interval) / 2);
    if (!m_isPinned || m_leases > 0 || now - m_activity < quiet ||
        now - std::max(m_pinnedSince, m_lastGoBack) < interval) {
        return false;
    }
    m_lastGoBack = now;
    const unsigned priority = m_pinned.priority;
    std::copy_if(m_candidates.begin(), m_candidates.end(), std::back_inserter(preferred),
                 [=](const Candidate& c) { return c.priority < priority; });
    return !preferred.empty();
}

void Controllers::goBack() {
    std::vector<Candidate> preferred;
    if (!mayGoBack(preferred)) {
        return;
    }
    for (const Candidate& candidate : preferred) {
        try {
            leaseFrom(candidate, Clock::now() + CONNECT_LIMIT);
            return;
        } catch (const tessa::TESSAException& e) {
            KARST_LOG(m_logger, tessa::LOG_DEBUGGING, "Not yet back at %s: %s",
                      candidate.endpoint.host.c_str(), e.what());
        }
    }
}

void Controllers::maintain() {
    checkTickets();
    goBack();
    lease(Clock::now() + CONNECT_LIMIT);
}

} // namespace quorad::ldap
