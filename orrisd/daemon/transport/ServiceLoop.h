#pragma once

#include "daemon/transport/CallTransport.h"
#include "daemon/transport/EventSource.h"
#include "daemon/transport/Poller.h"
#include "daemon/transport/SpareThreads.h"
#include "daemon/transport/TransportLimits.h"

#include <atomic>
#include <cstddef>
#include <memory>

namespace nis {

class TcpTransport;
class UdpTransport;

/// The RPC service: the transports and the loop in which any number of threads wait for calls on
/// all of them together. Any thread serves any call; a call runs from start to end on the thread
/// that received it.
///
/// Make it, add the sockets, call run() on each listener thread; then stop(), join these threads,
/// and destroy it. The sockets stay the caller's and outlive it. Adding belongs to one thread; the
/// rest is thread-safe.
class ServiceLoop {
public:
    /// @throws tessa::SystemException
    explicit ServiceLoop(const RpcProgram& program, const TransportLimits& limits = {});
    ~ServiceLoop();
    ServiceLoop(const ServiceLoop&) = delete;
    ServiceLoop& operator=(const ServiceLoop&) = delete;

    /// Serves the calls that come to a bound UDP socket.
    /// @throws tessa::SystemException
    void addUdp(int socket);
    /// Listens on a bound TCP socket and serves its connections.
    /// @throws tessa::SystemException
    void addTcp(int socket);

    /// Serves calls until stop(). The body of a listener thread.
    void run();

    /// Takes no more connections; those that are there go on.
    void stopAccepting();
    /// Makes run() return on all threads: calls being executed finish, replies that clients do not
    /// read are given up.
    void stop();

    std::size_t connections() const;
    std::size_t spareThreads() const { return m_spares.count(); }
    std::size_t stalledReplies() const { return m_spares.stalled(); }

    // For the transports.
    Poller& poller() { return m_poller; }
    SpareThreads& spares() { return m_spares; }
    const RpcProgram& program() const { return m_program; }
    const TransportLimits& limits() const { return m_limits; }
    /// Whether a thread waits for events at this moment, so that another one may stay away from
    /// them for a little.
    bool isWatched() const { return m_watching.load(std::memory_order_relaxed) > 0; }
    bool stopping() const { return m_stopping.load(std::memory_order_acquire); }

private:
    /// Wakes every thread that waits, for good: its descriptor stays readable.
    class StopSignal;

    void serveEvents();

    const RpcProgram m_program;
    const TransportLimits m_limits;
    std::atomic<bool> m_stopping{false};
    std::atomic<int> m_watching{0}; ///< threads that wait for events
    Poller m_poller;
    std::unique_ptr<StopSignal> m_stopSignal;
    std::unique_ptr<UdpTransport> m_udp;
    std::unique_ptr<TcpTransport> m_tcp;
    SpareThreads m_spares; ///< destroyed first: its threads use all of the above
};

} // namespace nis
