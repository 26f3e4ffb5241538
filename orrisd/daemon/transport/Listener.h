#pragma once

#include "daemon/transport/DeadlineTimer.h"
#include "daemon/transport/EventSource.h"

#include <karst/Mutex.h>

#include <atomic>
#include <cstdint>

namespace nis {

class Poller;

/// A listening socket in the poller, where it is one-shot: the thread that is told of a new client
/// has the socket, and nobody else is woken for clients until it is armed again. Thread-safe.
///
/// A thread may keep the socket while it serves a call. If the call takes long, the socket is armed
/// over its head: some milliseconds apart, another thread looks whether the call is still the same.
class Listener {
public:
    /// Names a call; never used twice, and never zero.
    using Call = std::uint64_t;

    /// Arms the socket.
    /// @param socket listens, and stays the caller's
    /// @param source told of new clients
    /// @throws tessa::SystemException when the poller does not take it
    Listener(Poller& poller, int socket, EventSource& source);
    /// Removes it.
    ~Listener();
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    int socket() const { return m_socket; }

    /// Some thread is told of the next client, which may be at once.
    void arm();
    /// Nobody is.
    /// @return false when the socket is removed
    bool disarm();
    /// Nobody is any more, even when it is armed.
    void remove();

    /// A turn at the socket begins: a thread accepts clients.
    void enter() { m_turns.fetch_add(1); }
    void leave() { m_turns.fetch_sub(1); }
    /// @return how many there are at this moment
    int turns() const { return m_turns.load(); }

    /// A turn that has the socket keeps it during a call.
    /// @return to be told to endCall() in the same turn
    Call beginCall();
    /// @return whether the turn still has the socket; otherwise the call took long
    bool endCall(Call call);

private:
    void watch() KARST_REQUIRES(m_mutex);
    void look();

    Poller& m_poller;
    const int m_socket;
    EventSource& m_source;
    std::atomic<int> m_turns{0};
    /// Under way with the socket kept, or zero. Whoever sets it back to zero has the socket.
    std::atomic<Call> m_call{0};

    tessa::Mutex m_mutex;
    Call m_lastCall KARST_GUARDED_BY(m_mutex) = 0;
    Call m_callAtLook KARST_GUARDED_BY(m_mutex) = 0;
    DeadlineTimer m_watch KARST_GUARDED_BY(m_mutex);
};

} // namespace nis
