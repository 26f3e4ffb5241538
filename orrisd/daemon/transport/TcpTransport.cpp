#include "daemon/transport/TcpTransport.h"

#include "common/Globals.h"
#include "daemon/transport/Poller.h"
#include "daemon/transport/Reception.h"
#include "daemon/transport/ServiceLoop.h"

#include <karst/Exceptions.h>
#include <karst/Text.h>

#include <cerrno>

#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace nis {

namespace {

constexpr std::uint32_t ONE_SHOT = EPOLLIN | EPOLLONESHOT;
constexpr int CLIENTS_A_TURN = 64;
/// Connections beyond the limit that may wait for a thread to take them down.
constexpr std::size_t EVICTED_PENDING = 64;
/// Room for the replies of a client that reads slowly. With much less, each such client keeps a
/// thread busy.
constexpr int SEND_BUFFER = 256 * 1024;

void require(bool success) {
    if (!success) {
        TESSA_THROW(tessa::SystemException, tessa::errorText(errno));
    }
}

/// Makes a bound socket listen.
/// @return the socket
int listening(int socket) {
    const int on = 1;
    // Accepted sockets inherit these.
    require(setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) == 0);
    setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &SEND_BUFFER, sizeof SEND_BUFFER);
    require(fcntl(socket, F_SETFL, fcntl(socket, F_GETFL) | O_NONBLOCK) == 0);
    require(listen(socket, SOMAXCONN) == 0);
    return socket;
}

} // namespace

TcpTransport::TcpTransport(ServiceLoop& loop, int socket)
    : m_loop(loop), m_timer(loop.poller(), [this](Worker&) { sweep(); }),
      m_listener(loop.poller(), listening(socket), *this) {}

TcpTransport::~TcpTransport() {
    m_listener.remove();
    tessa::Lock lock(m_mutex);
    m_connections.clear();
}

std::size_t TcpTransport::connections() const {
    tessa::Lock lock(m_mutex);
    return m_connections.size();
}

void TcpTransport::onReady(Worker& worker) {
    Reception reception(m_loop, m_listener);
    for (int count = 0; count < CLIENTS_A_TURN; ++count) {
        if (!hasRoom()) {
            reception.leaveClosed(); // a closing connection or the timer arms the listener again
            return;
        }
        // The next client is mostly there when the one before it has left.
        TcpConnection* const connection = acceptOne();
        if (connection != nullptr) {
            connection->greet(worker, reception);
            reception.takeAgain();
        }
        const bool more = connection != nullptr ? reception.goesOn() : reception.waitForClient();
        if (!more) {
            return;
        }
    }
}

/// Otherwise accepting pauses until a connection closes, or for a while.
bool TcpTransport::hasRoom() {
    tessa::Lock lock(m_mutex);
    if (!m_accepting) {
        return false;
    }
    if (m_paused || m_connections.size() >= m_loop.limits().connections + EVICTED_PENDING) {
        m_paused = true;
        m_timer.schedule(DeadlineTimer::Clock::now() + m_loop.limits().acceptRetry);
    }
    return !m_paused;
}

/// @return null when there is none
TcpConnection* TcpTransport::acceptOne() {
    sockaddr_in peer{};
    socklen_t size = sizeof peer;
    const int socket = accept4(m_listener.socket(), reinterpret_cast<sockaddr*>(&peer), &size,
                               SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (socket >= 0) {
        return admit(socket, peer);
    }
    // Other errors are those of one connection, not of the listener.
    if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
        pause(errno);
    }
    return nullptr;
}

/// Out of descriptors or memory: trying again at once would only burn processor time.
void TcpTransport::pause(int errorNumber) {
    KARST_LOG(logger, tessa::LOG_DETAIL, "Accepting a connection failed: %s",
              tessa::errorText(errorNumber).c_str());
    tessa::Lock lock(m_mutex);
    m_paused = true;
    evictLongestIdle();
}

TcpConnection* TcpTransport::admit(int socket, const sockaddr_in& peer) {
    tessa::Lock lock(m_mutex);
    if (m_connections.size() >= m_loop.limits().connections) {
        evictLongestIdle();
    }
    m_connections.emplace_front(*this, socket, peer);
    TcpConnection& connection = m_connections.front();
    connection.place = m_connections.begin();
    connection.lastActive = TcpConnection::Clock::now();
    m_idle.push_back(connection);
    m_timer.schedule(connection.lastActive + m_loop.limits().idle);
    return &connection;
}

void TcpTransport::evictLongestIdle() {
    if (!m_idle.empty()) {
        TcpConnection& longest = m_idle.front();
        longest.idleHook.unlink();
        longest.halfRecordHook.unlink();
        longest.shutDown();
    }
}

void TcpTransport::beginCall(TcpConnection& connection) {
    tessa::Lock lock(m_mutex);
    connection.idleHook.unlink();
    connection.halfRecordHook.unlink();
}

void TcpTransport::callsEnded(TcpConnection& connection, bool served, bool begun) {
    const auto now = TcpConnection::Clock::now();
    tessa::Lock lock(m_mutex);
    if (served) {
        connection.lastActive = now;
        m_idle.push_back(connection);
        m_timer.schedule(now + m_loop.limits().idle);
    }
    if (begun) {
        connection.recordBegan = now;
        m_halfRecord.push_back(connection);
        m_timer.schedule(now + m_loop.limits().halfRecord);
    }
}

bool TcpTransport::arm(TcpConnection& connection, bool isNew) {
    return isNew ? m_loop.poller().add(connection.socket(), ONE_SHOT, connection)
                 : m_loop.poller().rearm(connection.socket(), ONE_SHOT, connection);
}

void TcpTransport::close(TcpConnection& connection) {
    bool resume = false;
    std::list<TcpConnection> closed; // others need not wait while the system closes it
    {
        tessa::Lock lock(m_mutex);
        connection.idleHook.unlink();
        connection.halfRecordHook.unlink();
        closed.splice(closed.begin(), m_connections, connection.place);
        resume = m_paused && m_accepting;
        m_paused = false;
    }
    if (resume) {
        m_listener.arm();
    }
}

/// Ends what has passed its deadline and looks out for the next one.
void TcpTransport::sweep() {
    const auto now = TcpConnection::Clock::now();
    bool resume = false;
    {
        tessa::Lock lock(m_mutex);
        m_timer.clear();
        while (!m_halfRecord.empty() &&
               m_halfRecord.front().recordBegan + m_loop.limits().halfRecord <= now) {
            TcpConnection& slow = m_halfRecord.front();
            slow.halfRecordHook.unlink();
            slow.shutDown();
        }
        while (!m_idle.empty() && m_idle.front().lastActive + m_loop.limits().idle <= now) {
            evictLongestIdle();
        }
        if (!m_halfRecord.empty()) {
            m_timer.schedule(m_halfRecord.front().recordBegan + m_loop.limits().halfRecord);
        }
        if (!m_idle.empty()) {
            m_timer.schedule(m_idle.front().lastActive + m_loop.limits().idle);
        }
        resume = m_paused && m_accepting;
        m_paused = false;
    }
    if (resume) {
        m_listener.arm();
    }
}

void TcpTransport::stopAccepting() {
    {
        tessa::Lock lock(m_mutex);
        m_accepting = false;
    }
    m_listener.remove();
}

void TcpTransport::abortAll() {
    tessa::Lock lock(m_mutex);
    for (const TcpConnection& connection : m_connections) {
        connection.shutDown();
    }
}

} // namespace nis
