#pragma once

#include "daemon/transport/Listener.h"

namespace nis {

class ServiceLoop;

/// One thread's turn at the listening socket: nobody else is woken for new clients until the turn
/// hands the listener back.
///
/// Many clients connect, ask one question, leave and connect again. As long as another thread looks
/// after everything else, a turn waits a moment for each of these steps, and at the listener
/// meanwhile: that saves waking a thread for each of them. It hands the listener back as soon as
/// another client comes, and before it serves its first call. If it could take the listener again
/// after that, clients come one after the other: from then on it keeps the listener during calls
/// too, until one takes long.
///
/// Lives on the stack of the thread.
class Reception {
public:
    /// The turn has the listener.
    Reception(ServiceLoop& loop, Listener& listener);
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

    /// A call is about to be served. Other clients do not wait for it if it takes long.
    void beginCall();
    /// It has been served, or its reply is ready to be sent. Does takeAgain().
    void endCall();
    /// The poller reports the next client to some thread.
    void handBack();
    /// This turn looks after the listener again, unless another one does already.
    void takeAgain();
    /// Nobody is to be woken for new clients after this turn.
    void leaveClosed() { m_mine = false; }

private:
    void endKeeping();

    ServiceLoop& m_loop;
    Listener& m_listener;
    bool m_mine = true;        ///< whether this turn has the listener
    bool m_keeps = false;      ///< during calls as well
    Listener::Call m_call = 0; ///< during which it is being kept
};

} // namespace nis
