#pragma once

#include "daemon/transport/EventSource.h"

#include <atomic>

namespace nis {

class ServiceLoop;

/// One thread's turn at the listening socket, which is one-shot in the poller: nobody else is woken
/// for new clients until the turn hands the listener back.
///
/// Many clients connect, ask one question, leave and connect again. As long as another thread looks
/// after everything else, a turn waits a moment for each of these steps, and at the listener
/// meanwhile: that saves waking a thread for each of them. It hands the listener back as soon as
/// another client comes, and before it serves a call, which may take long.
///
/// Lives on the stack of the thread.
class Reception {
public:
    /// @param listener the socket, reported by the poller to `source`
    /// @param turns how many turns at it there are at this moment
    Reception(ServiceLoop& loop, int listener, EventSource& source, std::atomic<int>& turns);
    /// Hands the listener back.
    ~Reception();
    Reception(const Reception&) = delete;
    Reception& operator=(const Reception&) = delete;

    /// Whether the next client is this turn's as well.
    bool goesOn() const;
    /// Waits for a new client for a moment.
    /// @return whether there is one, as far as can be told
    bool waitForClient() const;
    /// Waits for input of the new client for a moment.
    /// @return false when there is none
    bool waitForInput(int connection);
    /// The poller reports the next client to some thread.
    void handBack();
    /// This turn looks after the listener again, unless another one does already.
    void takeAgain();
    /// Nobody is to be woken for new clients after this turn.
    void leaveClosed() { m_mine = false; }

private:
    ServiceLoop& m_loop;
    const int m_listener;
    EventSource& m_source;
    std::atomic<int>& m_turns;
    bool m_mine = true; ///< whether this turn has the listener
};

} // namespace nis
