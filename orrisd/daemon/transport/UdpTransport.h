#pragma once

#include "daemon/transport/DatagramBatch.h"
#include "daemon/transport/DeadlineTimer.h"
#include "daemon/transport/EventSource.h"
#include "daemon/transport/Worker.h"

#include <karst/Mutex.h>

#include <atomic>
#include <cstddef>
#include <vector>

namespace nis {

class ServiceLoop;

/// Serves the calls that come to a UDP socket. Replies leave from the address that the call was
/// sent to. Does not own the socket. Thread-safe.
///
/// The socket is one-shot in the poller: the thread that is woken drains it, some datagrams at a
/// time, while the others sleep on; when it finds no more it stays at the socket for a while before
/// it goes back to the poller. To wake a thread for each datagram costs more than to serve it.
/// Further threads join while datagrams keep coming faster, and as soon as a call takes long; what
/// the thread with that call has received behind it is taken off its hands.
class UdpTransport final : public EventSource {
public:
    /// @throws tessa::SystemException when the socket cannot be set up
    UdpTransport(ServiceLoop& loop, int socket);
    ~UdpTransport() override;
    UdpTransport(const UdpTransport&) = delete;
    UdpTransport& operator=(const UdpTransport&) = delete;

    void onReady(Worker& worker) override;

private:
    class DatagramCall;

    /// One thread's turn at the socket. Lives on its stack.
    struct Drain {
        Drain(int socket, Worker& worker)
            : batch(socket, worker.datagramsIn(), worker.datagramsOut()) {}

        DatagramBatch batch;
        std::atomic<unsigned> served{0};
        std::atomic<bool> overtaken{false}; ///< stuck with a call: no longer counted as at work
        std::atomic<bool> waiting{false};   ///< for a datagram, with no call to be stuck with
        // Of the last look; guarded by the transport's mutex.
        bool looked = false;
        unsigned servedAtLook = 0;
        bool helped = false;  ///< what it had not begun was taken over
        bool helping = false; ///< has the rest of another one
    };

    void begin(Drain& drain);
    void end(Drain& drain, bool moreLikely);
    unsigned receive(Drain& drain, bool probe);
    void serve(Drain& drain);
    void inviteAnother();
    void look(Worker& worker);
    void rearm();

    // Callers of these hold the mutex.
    void add(Drain& drain) KARST_REQUIRES(m_mutex);
    void watch() KARST_REQUIRES(m_mutex);
    bool findStuck() KARST_REQUIRES(m_mutex);
    bool takeOver(Drain& rest) KARST_REQUIRES(m_mutex);
    bool anyoneToHelp() const KARST_REQUIRES(m_mutex);

    ServiceLoop& m_loop;
    const int m_socket;
    const std::size_t m_mostDrains;

    tessa::Mutex m_mutex;
    std::vector<Drain*> m_drains KARST_GUARDED_BY(m_mutex);
    /// Drains that go on. While there is one, the socket need not wake anybody. Changed with the
    /// mutex held.
    std::atomic<std::size_t> m_atWork{0};
    bool m_watching KARST_GUARDED_BY(m_mutex) = false;
    DeadlineTimer m_watch KARST_GUARDED_BY(m_mutex);
};

} // namespace nis
