#pragma once

#include "daemon/transport/EventSource.h"
#include "daemon/transport/RecordReader.h"
#include "daemon/transport/RecordWriter.h"
#include "daemon/transport/SpareThreads.h"

#include <karst/Mutex.h>

#include <boost/intrusive/list.hpp>

#include <atomic>
#include <chrono>
#include <list>
#include <optional>
#include <span>

#include <netinet/in.h>

namespace nis {

class Reception;
class TcpTransport;

/// One client's TCP connection. Its descriptor is one-shot in the poller, so one thread at a time
/// serves it: it reads what has come, answers each complete call in order and arms the descriptor
/// again. No thread waits for input, but for a moment on a connection that is new. A thread that
/// sends a long reply, or waits for room for output, is absent from its place meanwhile.
///
/// Owned by the transport. Only the thread that serves it lets it be destroyed; whoever else wants
/// it to end shuts its socket down, which wakes a thread to do so.
class TcpConnection final : public EventSource, public RecordSink, public SpareThreads::Stalled {
public:
    using Clock = std::chrono::steady_clock;
    using Hook = boost::intrusive::list_member_hook<
        boost::intrusive::link_mode<boost::intrusive::auto_unlink>>;

    TcpConnection(TcpTransport& transport, int socket, const sockaddr_in& peer);
    ~TcpConnection() override;
    TcpConnection(const TcpConnection&) = delete;
    TcpConnection& operator=(const TcpConnection&) = delete;

    /// Serves a new connection, which the poller does not know yet, then hands it over to it.
    void greet(Worker& worker, Reception& reception);
    void onReady(Worker& worker) override;
    bool sendAll(const char* data, std::size_t size) override;
    void longRecord() override;
    void beforeReply();
    void abort() override;

    int socket() const { return m_socket; }
    const sockaddr_in& peer() const { return m_peer; }
    /// Ends it soon; safe on any thread as long as the transport still has it.
    void shutDown() const;

    // The transport's bookkeeping, guarded by its mutex.
    std::list<TcpConnection>::iterator place;
    Hook idleHook;                 ///< linked while no call is being served
    Hook halfRecordHook;           ///< linked while a call has begun and not ended
    Clock::time_point lastActive;  ///< last complete call, or acceptance
    Clock::time_point recordBegan; ///< of the record under way

private:
    enum class Turn { Rearm, Close };
    enum class Input { THERE, NONE, ENDED };

    Turn serveNew(Worker& worker) KARST_REQUIRES(m_serving);
    Turn serveInput(Worker& worker) KARST_REQUIRES(m_serving);
    Input read(Worker& worker, std::size_t& size);
    void account() KARST_REQUIRES(m_serving);
    bool endTurn(bool isNew) KARST_REQUIRES(m_serving);
    bool serveRecords(std::span<char> input, Worker& worker) KARST_REQUIRES(m_serving);
    bool serveRecord(std::span<char> record, Worker& worker) KARST_REQUIRES(m_serving);
    void beAbsent();
    bool waitForRoom(Clock::time_point lastProgress);

    TcpTransport& m_transport;
    const int m_socket;
    const sockaddr_in m_peer;
    std::atomic<bool> m_aborted{false};
    /// Of a thread that sends a long reply. Short calls must not wait until it is through.
    std::optional<SpareThreads::Absence> m_absence;

    /// Of the thread that serves this as a new connection.
    Reception* m_reception = nullptr;

    /// Held from wake-up until the descriptor is armed again. The poller already lets one thread in
    /// at a time; the mutex orders their memory accesses.
    tessa::Mutex m_serving;
    RecordReader m_reader KARST_GUARDED_BY(m_serving);
    bool m_served KARST_GUARDED_BY(m_serving) = false;     ///< a call in this turn
    bool m_halfRecord KARST_GUARDED_BY(m_serving) = false; ///< reported to the transport
};

} // namespace nis
