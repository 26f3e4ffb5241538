#pragma once

#include "daemon/transport/CallTransport.h"
#include "daemon/transport/EventSource.h"

#include <atomic>

namespace nis {

/// Serves the calls that come to a UDP socket, one datagram at a time on each thread that is woken
/// for it. Replies leave from the address that the call was sent to. Does not own the socket.
/// Thread-safe.
class UdpTransport final : public EventSource {
public:
    /// @throws tessa::SystemException when the socket cannot be set up
    UdpTransport(const RpcProgram& program, int socket);

    bool onReady(Worker& worker) override;

    /// Serves nothing any more.
    void stop() { m_stopped.store(true, std::memory_order_relaxed); }

private:
    const RpcProgram& m_program;
    const int m_socket;
    std::atomic<bool> m_stopped{false};
};

} // namespace nis
