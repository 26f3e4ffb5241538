#include "daemon/transport/TcpTransport.h"

#include "common/Globals.h"
#include "daemon/transport/Poller.h"
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
constexpr int ACCEPTS_A_TURN = 16;
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

} // namespace

TcpTransport::TcpTransport(ServiceLoop& loop, int socket)
    : m_loop(loop), m_socket(socket), m_timer(loop.poller(), [this] { sweep(); }) {
    const int on = 1;
    // Accepted sockets inherit these.
    require(setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) == 0);
    setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &SEND_BUFFER, sizeof SEND_BUFFER);
    require(fcntl(socket, F_SETFL, fcntl(socket, F_GETFL) | O_NONBLOCK) == 0);
    require(listen(socket, SOMAXCONN) == 0);
    require(loop.poller().add(socket, ONE_SHOT, *this));
}

TcpTransport::~TcpTransport() {
    m_loop.poller().remove(m_socket);
    tessa::Lock lock(m_mutex);
    m_connections.clear();
}

std::size_t TcpTransport::connections() const {
    tessa::Lock lock(m_mutex);
    return m_connections.size();
}

void TcpTransport::onReady(Worker&) {
    for (int count = 0; count < ACCEPTS_A_TURN; ++count) {
        const Accepted result = acceptOne();
        if (result == Accepted::NoRoom) {
            return; // a closing connection or the timer arms the listener again
        }
        if (result == Accepted::None) {
            break;
        }
    }
    armListener();
}

TcpTransport::Accepted TcpTransport::acceptOne() {
    {
        tessa::Lock lock(m_mutex);
        if (!m_accepting) {
            return Accepted::NoRoom;
        }
        if (m_connections.size() >= m_loop.limits().connections + EVICTED_PENDING) {
            m_paused = true;
            m_timer.schedule(DeadlineTimer::Clock::now() + m_loop.limits().acceptRetry);
            return Accepted::NoRoom;
        }
    }
    sockaddr_in peer{};
    socklen_t size = sizeof peer;
    const int socket =
        accept4(m_socket, reinterpret_cast<sockaddr*>(&peer), &size, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (socket >= 0) {
        admit(socket, peer);
        return Accepted::One;
    }
    switch (errno) {
    case EAGAIN:
        return Accepted::None;
    case EMFILE:
    case ENFILE:
    case ENOBUFS:
    case ENOMEM:
        return pause(errno);
    default:
        return Accepted::One; // that connection failed, not the listener
    }
}

/// Out of descriptors or memory: trying again at once would only burn processor time.
TcpTransport::Accepted TcpTransport::pause(int errorNumber) {
    KARST_LOG(logger, tessa::LOG_DETAIL, "Accepting a connection failed: %s",
              tessa::errorText(errorNumber).c_str());
    tessa::Lock lock(m_mutex);
    m_paused = true;
    evictLongestIdle();
    m_timer.schedule(DeadlineTimer::Clock::now() + m_loop.limits().acceptRetry);
    return Accepted::NoRoom;
}

void TcpTransport::admit(int socket, const sockaddr_in& peer) {
    TcpConnection* connection = nullptr;
    {
        tessa::Lock lock(m_mutex);
        if (m_connections.size() >= m_loop.limits().connections) {
            evictLongestIdle();
        }
        m_connections.emplace_front(*this, socket, peer);
        connection = &m_connections.front();
        connection->place = m_connections.begin();
        connection->lastActive = TcpConnection::Clock::now();
        m_idle.push_back(*connection);
        m_timer.schedule(connection->lastActive + m_loop.limits().idle);
    }
    if (!m_loop.poller().add(socket, ONE_SHOT, *connection)) {
        close(*connection);
    }
}

void TcpTransport::armListener() {
    m_loop.poller().rearm(m_socket, ONE_SHOT, *this);
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

void TcpTransport::endTurn(TcpConnection& connection, bool served, bool begun) {
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

void TcpTransport::rearm(TcpConnection& connection) {
    m_loop.poller().rearm(connection.socket(), ONE_SHOT, connection);
}

void TcpTransport::close(TcpConnection& connection) {
    bool resume = false;
    {
        tessa::Lock lock(m_mutex);
        m_connections.erase(connection.place);
        resume = m_paused && m_accepting;
        m_paused = false;
    }
    if (resume) {
        armListener();
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
        armListener();
    }
}

void TcpTransport::stopAccepting() {
    {
        tessa::Lock lock(m_mutex);
        m_accepting = false;
    }
    m_loop.poller().remove(m_socket);
}

void TcpTransport::abortAll() {
    tessa::Lock lock(m_mutex);
    for (const TcpConnection& connection : m_connections) {
        connection.shutDown();
    }
}

} // namespace nis
