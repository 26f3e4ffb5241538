#pragma once

#include "daemon/transport/DeadlineTimer.h"
#include "daemon/transport/EventSource.h"
#include "daemon/transport/Listener.h"
#include "daemon/transport/TcpConnection.h"

#include <karst/Mutex.h>

#include <boost/intrusive/list.hpp>

#include <cstddef>
#include <list>

namespace nis {

class ServiceLoop;

/// Accepts connections on a listening socket and owns them. Ends those that keep the server busy
/// with nothing: half a call for too long, no call for too long, and, when there are too many, the
/// one without a call for longest. Does not own the listening socket. Thread-safe.
class TcpTransport final : public EventSource {
public:
    /// @throws tessa::SystemException when the socket cannot be set up
    TcpTransport(ServiceLoop& loop, int socket);
    ~TcpTransport() override;
    TcpTransport(const TcpTransport&) = delete;
    TcpTransport& operator=(const TcpTransport&) = delete;

    void onReady(Worker& worker) override;

    void stopAccepting();
    /// Shuts all connections down, those with a call under way included.
    void abortAll();

    ServiceLoop& loop() { return m_loop; }
    std::size_t connections() const;

    // For the connections.
    /// A call is complete and about to be served: no deadline holds until the calls have ended.
    void beginCall(TcpConnection& connection);
    /// The input so far has been dealt with.
    /// @param served calls have been answered
    /// @param begun a call has begun and its rest has not come
    void callsEnded(TcpConnection& connection, bool served, bool begun);
    /// Makes the poller report the connection's next input.
    /// @param isNew it does not know the connection yet
    /// @return false when that is impossible
    bool arm(TcpConnection& connection, bool isNew);
    /// Destroys the connection.
    void close(TcpConnection& connection);

private:
    template <TcpConnection::Hook TcpConnection::*HOOK>
    using Queue = boost::intrusive::list<
        TcpConnection, boost::intrusive::member_hook<TcpConnection, TcpConnection::Hook, HOOK>,
        boost::intrusive::constant_time_size<false>>;

    bool hasRoom();
    TcpConnection* acceptOne();
    void pause(int errorNumber);
    TcpConnection* admit(int socket, const sockaddr_in& peer);
    void evictLongestIdle() KARST_REQUIRES(m_mutex);
    void sweep();

    ServiceLoop& m_loop;

    mutable tessa::Mutex m_mutex;
    std::list<TcpConnection> m_connections KARST_GUARDED_BY(m_mutex);
    /// Without a call being served, longest idle first.
    Queue<&TcpConnection::idleHook> m_idle KARST_GUARDED_BY(m_mutex);
    /// In the middle of a call's record, oldest first.
    Queue<&TcpConnection::halfRecordHook> m_halfRecord KARST_GUARDED_BY(m_mutex);
    bool m_paused KARST_GUARDED_BY(m_mutex) = false; ///< the listener waits for room
    bool m_accepting KARST_GUARDED_BY(m_mutex) = true;
    DeadlineTimer m_timer KARST_GUARDED_BY(m_mutex);
    Listener m_listener;
};

} // namespace nis
