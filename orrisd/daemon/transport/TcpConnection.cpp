#include "daemon/transport/TcpConnection.h"

#include "common/Globals.h"
#include "daemon/transport/CallTransport.h"
#include "daemon/transport/ServiceLoop.h"
#include "daemon/transport/TcpTransport.h"
#include "daemon/transport/Worker.h"

#include <cerrno>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace nis {

namespace {

/// Reads that one wake-up does before the connection goes back to the end of the queue.
constexpr int READS_A_TURN = 16;

/// The calls of a connection, as the RPC library sees them.
class StreamCall final : public CallTransport {
public:
    StreamCall(const RpcProgram& program, TcpConnection& connection, Worker& worker)
        : CallTransport(program, connection.socket()), m_connection(connection), m_worker(worker) {
        setPeer(connection.peer());
    }

    /// A reply broke off: the client's stream is out of step for good.
    bool broken() const { return m_broken; }

private:
    bool send(rpc_msg& reply, bool& committed) override {
        RecordWriter writer(m_worker.streamOut(), m_connection);
        if (xdr_replymsg(writer.xdr(), &reply) == TRUE) {
            committed = true;
            m_broken = !writer.finish();
            return !m_broken;
        }
        committed = writer.committed();
        m_broken = committed;
        return false;
    }

    TcpConnection& m_connection;
    Worker& m_worker;
    bool m_broken = false;
};

} // namespace

TcpConnection::TcpConnection(TcpTransport& transport, int socket, const sockaddr_in& peer)
    : m_transport(transport), m_socket(socket), m_peer(peer), m_reader(CALL_RECORD_MAX) {}

TcpConnection::~TcpConnection() {
    close(m_socket);
}

void TcpConnection::shutDown() const {
    ::shutdown(m_socket, SHUT_RDWR);
}

void TcpConnection::abort() {
    m_aborted.store(true);
    shutDown();
}

void TcpConnection::onReady(Worker& worker) {
    {
        tessa::Lock lock(m_serving);
        if (serveInput(worker) == Turn::Rearm) {
            endTurn();
            return;
        }
    }
    m_transport.close(*this);
}

/// Once the descriptor is armed, another thread may wait for the mutex to serve this connection,
/// and then destroy it: nothing but the release of the mutex may follow.
void TcpConnection::endTurn() {
    const bool begun = m_reader.inRecord() && !m_halfRecord;
    m_halfRecord = m_reader.inRecord();
    if (m_served || begun) {
        m_transport.endTurn(*this, m_served, begun);
    }
    m_served = false;
    m_transport.rearm(*this);
}

TcpConnection::Turn TcpConnection::serveInput(Worker& worker) {
    for (int reads = 0; reads < READS_A_TURN; ++reads) {
        const std::span<char> buffer = worker.streamIn();
        const ssize_t count = recv(m_socket, buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            return errno == EAGAIN || errno == EWOULDBLOCK ? Turn::Rearm : Turn::Close;
        }
        const auto size = static_cast<std::size_t>(count);
        if (size == 0 || !serveRecords(buffer.first(size), worker)) {
            return Turn::Close;
        }
        if (size < buffer.size()) {
            break; // the poller reports what has come in the meantime
        }
    }
    return Turn::Rearm;
}

bool TcpConnection::serveRecords(std::span<char> input, Worker& worker) {
    while (!input.empty()) {
        std::span<char> record;
        switch (m_reader.feed(input, record)) {
        case RecordReader::Status::NeedMore:
            return true;
        case RecordReader::Status::Bogus:
            return false;
        case RecordReader::Status::Complete:
            if (m_transport.loop().stopping() || !serveRecord(record, worker)) {
                return false;
            }
            break;
        }
    }
    return true;
}

bool TcpConnection::serveRecord(std::span<char> record, Worker& worker) {
    if (!m_served) {
        m_transport.beginCall(*this);
        m_served = true;
    }
    m_halfRecord = false;
    StreamCall call(m_transport.loop().program(), *this, worker);
    const CallTransport::Outcome outcome = call.serve(record);
    m_absence.reset();
    return outcome != CallTransport::Outcome::Garbage && !call.broken();
}

void TcpConnection::beAbsent() {
    if (!m_absence) {
        m_absence.emplace(m_transport.loop().spares());
    }
}

void TcpConnection::longRecord() {
    beAbsent();
}

bool TcpConnection::sendAll(const char* data, std::size_t size) {
    Clock::time_point lastProgress{};
    while (size > 0) {
        const ssize_t count = ::send(m_socket, data, size, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count > 0) {
            data += count;
            size -= static_cast<std::size_t>(count);
            lastProgress = Clock::time_point{};
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            if (lastProgress == Clock::time_point{}) {
                lastProgress = Clock::now();
            }
            if (!waitForRoom(lastProgress)) {
                return false;
            }
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

/// @return false when the reply is given up
bool TcpConnection::waitForRoom(Clock::time_point lastProgress) {
    using std::chrono::milliseconds;
    const Clock::time_point deadline = lastProgress + m_transport.loop().limits().stall;
    pollfd room{m_socket, POLLOUT, 0};
    int ready = 0;
    {
        beAbsent();
        const SpareThreads::Stall stall(m_transport.loop().spares(), *this);
        do {
            const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now()).count();
            ready = m_transport.loop().stopping() || m_aborted || left <= 0
                        ? 0
                        : poll(&room, 1, static_cast<int>(left));
        } while (ready < 0 && errno == EINTR);
    }
    if (ready > 0 && !m_aborted) {
        return true;
    }
    char address[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &m_peer.sin_addr, address, sizeof address);
    KARST_LOG(logger, tessa::LOG_INFORMATION, "Giving up a reply that %s does not read", address);
    return false;
}

} // namespace nis
