#include "daemon/transport/UdpTransport.h"

#include "common/Globals.h"
#include "daemon/transport/CallTransport.h"
#include "daemon/transport/Poller.h"
#include "daemon/transport/ServiceLoop.h"
#include "daemon/transport/Worker.h"

#include <karst/Exceptions.h>
#include <karst/Text.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <thread>

#include <sys/epoll.h>
#include <sys/socket.h>

namespace nis {

namespace {

/// Datagrams that one wake-up serves before the thread looks at other events.
constexpr int DATAGRAMS_A_TURN = 64;
constexpr int SOCKET_BUFFER = 1024 * 1024;
constexpr std::chrono::milliseconds WATCH_INTERVAL{5};
/// How long a thread waits at the socket itself for the next datagram before it goes back to the
/// poller. Clients that ask one question after the other come sooner.
constexpr timeval LINGER{0, 20'000};
constexpr std::uint32_t ONE_SHOT = EPOLLIN | EPOLLONESHOT;

} // namespace

/// One datagram's call. Keeps the local address that it came to for the reply.
class UdpTransport::DatagramCall final : public CallTransport {
public:
    DatagramCall(const RpcProgram& program, int socket, Worker& worker)
        : CallTransport(program, socket), m_socket(socket), m_worker(worker) {}

    /// Receives one datagram.
    /// @param flags MSG_DONTWAIT or 0: to wait for one as long as the socket's time limit says
    /// @return false when there is none, or receiving failed
    bool receive(int flags) {
        iovec piece{m_worker.datagramIn().data(), m_worker.datagramIn().size()};
        msghdr header = makeHeader(piece);
        header.msg_controllen = sizeof m_control;
        const ssize_t count = receive(header, flags);
        if (count < 0) {
            return false;
        }
        m_controlLength = header.msg_controllen;
        forgetInterface(header);
        const bool whole =
            (header.msg_flags & MSG_TRUNC) == 0 && header.msg_namelen == sizeof m_peer;
        m_received = m_worker.datagramIn().first(whole ? static_cast<std::size_t>(count) : 0);
        return true;
    }

    /// Serves the datagram that was received last; what is no call is passed over.
    void serve() {
        setPeer(m_peer);
        CallTransport::serve(m_received);
    }

private:
    msghdr makeHeader(iovec& piece) {
        msghdr header{};
        header.msg_name = &m_peer;
        header.msg_namelen = sizeof m_peer;
        header.msg_iov = &piece;
        header.msg_iovlen = 1;
        header.msg_control = m_control;
        return header;
    }

    ssize_t receive(msghdr& header, int flags) const {
        ssize_t count = 0;
        do {
            count = recvmsg(m_socket, &header, flags);
        } while (count < 0 && errno == EINTR);
        if (count < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
            KARST_LOG(logger, tessa::LOG_DEBUGGING, "Receiving over UDP failed: %s",
                      tessa::errorText(errno).c_str());
        }
        return count;
    }

    /// The reply goes back from the same address, by whatever interface the routes say.
    static void forgetInterface(msghdr& header) {
        for (cmsghdr* item = CMSG_FIRSTHDR(&header); item != nullptr;
             item = CMSG_NXTHDR(&header, item)) {
            if (item->cmsg_level == IPPROTO_IP && item->cmsg_type == IP_PKTINFO) {
                in_pktinfo info{};
                std::memcpy(&info, CMSG_DATA(item), sizeof info);
                info.ipi_ifindex = 0;
                std::memcpy(CMSG_DATA(item), &info, sizeof info);
            }
        }
    }

    bool send(rpc_msg& reply, bool& committed) override {
        XDR xdr{};
        const std::span<char> buffer = m_worker.datagramOut();
        xdrmem_create(&xdr, buffer.data(), static_cast<u_int>(buffer.size()), XDR_ENCODE);
        if (xdr_replymsg(&xdr, &reply) != TRUE) {
            return false;
        }
        committed = true;
        iovec piece{buffer.data(), xdr_getpos(&xdr)};
        msghdr header = makeHeader(piece);
        header.msg_controllen = m_controlLength;
        ssize_t count = 0;
        do {
            count = sendmsg(m_socket, &header, MSG_DONTWAIT | MSG_NOSIGNAL);
        } while (count < 0 && errno == EINTR);
        if (count < 0) {
            KARST_LOG(logger, tessa::LOG_DEBUGGING, "Replying over UDP failed: %s",
                      tessa::errorText(errno).c_str());
        }
        return count >= 0;
    }

    const int m_socket;
    Worker& m_worker;
    sockaddr_in m_peer{};
    alignas(cmsghdr) char m_control[CMSG_SPACE(sizeof(in_pktinfo))] = {};
    std::size_t m_controlLength = 0;
    std::span<char> m_received;
};

namespace {

void setBuffer(int socket, int forced, int option) {
    if (setsockopt(socket, SOL_SOCKET, forced, &SOCKET_BUFFER, sizeof SOCKET_BUFFER) != 0) {
        setsockopt(socket, SOL_SOCKET, option, &SOCKET_BUFFER, sizeof SOCKET_BUFFER);
    }
}

void require(bool success) {
    if (!success) {
        TESSA_THROW(tessa::SystemException, tessa::errorText(errno));
    }
}

} // namespace

UdpTransport::UdpTransport(ServiceLoop& loop, int socket)
    : m_loop(loop), m_socket(socket),
      m_mostDrains(std::max(1U, std::thread::hardware_concurrency())),
      m_watch(loop.poller(), [this] { look(); }) {
    const int on = 1;
    require(setsockopt(socket, IPPROTO_IP, IP_PKTINFO, &on, sizeof on) == 0);
    require(setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &LINGER, sizeof LINGER) == 0);
    // Bursts of calls should wait in the kernel rather than be lost; without it they come again.
    setBuffer(socket, SO_RCVBUFFORCE, SO_RCVBUF);
    setBuffer(socket, SO_SNDBUFFORCE, SO_SNDBUF);
    require(loop.poller().add(socket, ONE_SHOT, *this));
}

UdpTransport::~UdpTransport() {
    m_loop.poller().remove(m_socket);
}

void UdpTransport::rearm() {
    m_loop.poller().rearm(m_socket, ONE_SHOT, *this);
}

void UdpTransport::onReady(Worker& worker) {
    Drain drain;
    begin(drain);
    DatagramCall call(m_loop.program(), m_socket, worker);
    int count = 0;
    while (count < DATAGRAMS_A_TURN && !drain.overtaken.load(std::memory_order_relaxed) &&
           !m_loop.stopping() && receive(call, drain, count == DATAGRAMS_A_TURN / 2)) {
        call.serve();
        drain.served.store(static_cast<unsigned>(++count), std::memory_order_relaxed);
    }
    end(drain, count == DATAGRAMS_A_TURN);
}

/// The next datagram of a drain. A drain that is alone waits for it at the socket for a while, as
/// long as another thread looks after everything else: that saves the way through the poller.
/// @param probe see whether datagrams queue up already; then another thread is to join
bool UdpTransport::receive(DatagramCall& call, Drain& drain, bool probe) {
    if (probe && call.receive(MSG_DONTWAIT)) {
        inviteAnother();
        return true;
    }
    if (m_atWork.load(std::memory_order_relaxed) > 1 || !m_loop.isWatched()) {
        return call.receive(MSG_DONTWAIT);
    }
    drain.waiting.store(true, std::memory_order_relaxed);
    const bool received = call.receive(0);
    drain.waiting.store(false, std::memory_order_relaxed);
    return received;
}

void UdpTransport::begin(Drain& drain) {
    tessa::Lock lock(m_mutex);
    m_drains.push_back(&drain);
    ++m_atWork;
    if (!m_watching) {
        m_watching = true;
        m_watch.schedule(DeadlineTimer::Clock::now() + WATCH_INTERVAL);
    }
}

void UdpTransport::end(Drain& drain, bool moreLikely) {
    tessa::Lock lock(m_mutex);
    m_drains.erase(std::find(m_drains.begin(), m_drains.end(), &drain));
    if (!drain.overtaken) {
        --m_atWork;
    }
    if (m_atWork == 0 || moreLikely) {
        rearm();
    }
}

/// Datagrams come faster than one thread serves them.
void UdpTransport::inviteAnother() {
    tessa::Lock lock(m_mutex);
    if (m_atWork < m_mostDrains) {
        rearm();
    }
}

/// A thread that has been with one call since the last look counts no more, so that the datagrams
/// behind that call wait no longer.
void UdpTransport::look() {
    tessa::Lock lock(m_mutex);
    m_watch.clear();
    bool overtaken = false;
    for (Drain* drain : m_drains) {
        if (drain->waiting.load(std::memory_order_relaxed)) {
            drain->looked = false;
            continue;
        }
        const unsigned served = drain->served.load(std::memory_order_relaxed);
        if (!drain->overtaken && drain->looked && drain->servedAtLook == served) {
            drain->overtaken = true;
            --m_atWork;
            overtaken = true;
        }
        drain->looked = true;
        drain->servedAtLook = served;
    }
    if (overtaken && m_atWork == 0) {
        rearm();
    }
    m_watching = m_atWork > 0;
    if (m_watching) {
        m_watch.schedule(DeadlineTimer::Clock::now() + WATCH_INTERVAL);
    }
}

} // namespace nis
