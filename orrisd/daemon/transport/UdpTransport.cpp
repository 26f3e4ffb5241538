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
#include <optional>
#include <thread>

#include <sys/epoll.h>
#include <sys/socket.h>

namespace nis {

namespace {

/// Datagrams that one wake-up serves before the thread looks at other events.
constexpr unsigned DATAGRAMS_A_TURN = 64;
constexpr int SOCKET_BUFFER = 1024 * 1024;
constexpr std::chrono::milliseconds WATCH_INTERVAL{5};
/// How long a thread waits at the socket itself for the next datagram before it goes back to the
/// poller. Clients that ask one question after the other come sooner.
constexpr timeval LINGER{0, 20'000};
constexpr std::uint32_t ONE_SHOT = EPOLLIN | EPOLLONESHOT;

} // namespace

/// The calls of a batch, as the RPC library sees them: one after the other.
class UdpTransport::DatagramCall final : public CallTransport {
public:
    DatagramCall(const RpcProgram& program, int socket, DatagramBatch& batch)
        : CallTransport(program, socket), m_batch(batch) {}

    /// Serves one datagram; what is no call is passed over.
    void serve(unsigned index) {
        m_index = index;
        setPeer(m_batch.peer(index));
        CallTransport::serve(m_batch.call(index));
    }

private:
    /// The reply leaves with those of the other calls.
    bool send(rpc_msg& reply, bool& committed) override {
        XDR xdr{};
        const std::span<char> buffer = m_batch.replyBuffer(m_index);
        xdrmem_create(&xdr, buffer.data(), static_cast<u_int>(buffer.size()), XDR_ENCODE);
        if (xdr_replymsg(&xdr, &reply) != TRUE) {
            return false;
        }
        committed = true;
        m_batch.setReply(m_index, xdr_getpos(&xdr));
        return true;
    }

    DatagramBatch& m_batch;
    unsigned m_index = 0;
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
      m_watch(loop.poller(), [this](Worker& worker) { look(worker); }) {
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
    Drain drain(m_socket, worker);
    begin(drain);
    unsigned count = 0;
    bool probed = false;
    while (count < DATAGRAMS_A_TURN && !drain.overtaken.load(std::memory_order_relaxed) &&
           !m_loop.stopping()) {
        const bool probe = !probed && count >= DATAGRAMS_A_TURN / 2;
        probed = probed || probe;
        const unsigned received = receive(drain, probe);
        if (received == 0) {
            break;
        }
        count += received;
        serve(drain);
    }
    end(drain, count >= DATAGRAMS_A_TURN);
}

/// The next datagrams of a drain. A drain that is alone waits for them at the socket for a while,
/// as long as another thread looks after everything else: that saves the way through the poller.
/// @param probe see whether datagrams queue up already; then another thread is to join
unsigned UdpTransport::receive(Drain& drain, bool probe) {
    if (probe) {
        const unsigned received = drain.batch.receive(MSG_DONTWAIT);
        if (received > 0) {
            inviteAnother();
            return received;
        }
    }
    if (m_atWork.load(std::memory_order_relaxed) > 1 || !m_loop.isWatched()) {
        return drain.batch.receive(MSG_DONTWAIT);
    }
    drain.waiting.store(true, std::memory_order_relaxed);
    const unsigned received = drain.batch.receive(MSG_WAITFORONE);
    drain.waiting.store(false, std::memory_order_relaxed);
    return received;
}

/// The calls that were received, up to the end or to where another thread takes them over.
void UdpTransport::serve(Drain& drain) {
    DatagramCall call(m_loop.program(), m_socket, drain.batch);
    for (unsigned index = drain.batch.next(); index != DatagramBatch::NONE;
         index = drain.batch.next()) {
        call.serve(index);
        drain.served.fetch_add(1, std::memory_order_relaxed);
    }
    if (!drain.batch.takenOver()) {
        drain.batch.sendReplies();
    }
}

void UdpTransport::begin(Drain& drain) {
    tessa::Lock lock(m_mutex);
    add(drain);
}

void UdpTransport::add(Drain& drain) {
    m_drains.push_back(&drain);
    ++m_atWork;
    watch();
}

void UdpTransport::watch() {
    if (!m_watching) {
        m_watching = true;
        m_watch.schedule(DeadlineTimer::Clock::now() + WATCH_INTERVAL);
    }
}

void UdpTransport::end(Drain& drain, bool moreLikely) {
    tessa::Lock lock(m_mutex);
    m_drains.erase(std::find(m_drains.begin(), m_drains.end(), &drain));
    if (drain.batch.takenOver()) {
        drain.batch.sendReplies();
    }
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

/// A thread that has been with one call since the last look counts no more, and what it has
/// received behind that call is served here, so that no datagram waits for that call any longer.
void UdpTransport::look(Worker& worker) {
    Drain rest(m_socket, worker);
    {
        tessa::Lock lock(m_mutex);
        m_watch.clear();
        m_watching = false;
        if (findStuck() && m_atWork == 0) {
            rearm();
        }
        if (takeOver(rest)) {
            add(rest);
        }
        if (m_atWork > 0 || anyoneToHelp()) {
            watch();
        }
    }
    if (rest.helping) {
        serve(rest);
        end(rest, false);
    }
}

/// @return whether there are any that were not known yet
bool UdpTransport::findStuck() {
    bool found = false;
    for (Drain* drain : m_drains) {
        if (drain->waiting.load(std::memory_order_relaxed)) {
            drain->looked = false;
            continue;
        }
        const unsigned served = drain->served.load(std::memory_order_relaxed);
        if (!drain->overtaken && drain->looked && drain->servedAtLook == served) {
            drain->overtaken = true;
            --m_atWork;
            found = true;
        }
        drain->looked = true;
        drain->servedAtLook = served;
    }
    return found;
}

/// Takes what one of those that are stuck has not begun to serve.
/// @return false when there is nothing
bool UdpTransport::takeOver(Drain& rest) {
    for (Drain* drain : m_drains) {
        if (drain->overtaken && !drain->helped) {
            // One that was not stuck after all may be with its next batch: it is looked at again.
            const std::optional<unsigned> taken = rest.batch.takeOver(drain->batch);
            drain->helped = taken.has_value();
            rest.helping = taken.value_or(0) > 0;
            if (rest.helping) {
                return true;
            }
        }
    }
    return false;
}

bool UdpTransport::anyoneToHelp() const {
    return std::any_of(m_drains.begin(), m_drains.end(),
                       [](const Drain* drain) { return drain->overtaken && !drain->helped; });
}

} // namespace nis
