#include "daemon/transport/TcpConnection.h"

#include "common/Globals.h"
#include "daemon/transport/CallTransport.h"
#include "daemon/transport/Reception.h"
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
            m_connection.beforeReply();
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

void TcpConnection::greet(Worker& worker, Reception& reception) {
    {
        tessa::Lock lock(m_serving);
        m_reception = &reception;
        const Turn turn = serveNew(worker);
        m_reception = nullptr;
        if (turn == Turn::Rearm && endTurn(true)) {
            return;
        }
    }
    m_transport.close(*this);
}

void TcpConnection::onReady(Worker& worker) {
    {
        tessa::Lock lock(m_serving);
        if (serveInput(worker) == Turn::Rearm && endTurn(false)) {
            return;
        }
    }
    m_transport.close(*this);
}

/// Tells the transport what the calls and the input so far mean for the deadlines.
void TcpConnection::account() {
    const bool begun = m_reader.inRecord() && !m_halfRecord;
    m_halfRecord = m_reader.inRecord();
    if (m_served || begun) {
        m_transport.callsEnded(*this, m_served, begun);
    }
    m_served = false;
}

/// Once the descriptor is armed, another thread may wait for the mutex to serve this connection,
/// and then destroy it: nothing but the release of the mutex may follow.
/// @return false when it cannot be armed
bool TcpConnection::endTurn(bool isNew) {
    account();
    return m_transport.arm(*this, isNew);
}

TcpConnection::Turn TcpConnection::serveNew(Worker& worker) {
    for (int reads = 0; reads < READS_A_TURN; ++reads) {
        std::size_t size = 0;
        // The first call is mostly there already; what comes after it is waited for.
        Input input = reads == 0 ? read(worker, size) : Input::NONE;
        if (input == Input::NONE && m_reception->waitForInput(m_socket)) {
            input = read(worker, size);
        }
        if (input == Input::NONE) {
            break;
        }
        if (input == Input::ENDED || !serveRecords(worker.streamIn().first(size), worker)) {
            return Turn::Close;
        }
        account();
    }
    return Turn::Rearm;
}

TcpConnection::Turn TcpConnection::serveInput(Worker& worker) {
    std::size_t size = worker.streamIn().size();
    // The poller reports what comes after a read that did not fill the buffer.
    for (int reads = 0; reads < READS_A_TURN && size == worker.streamIn().size(); ++reads) {
        const Input input = read(worker, size);
        if (input == Input::NONE) {
            break;
        }
        if (input == Input::ENDED || !serveRecords(worker.streamIn().first(size), worker)) {
            return Turn::Close;
        }
    }
    return Turn::Rearm;
}

/// Reads what has come.
/// @param size set to its bytes
TcpConnection::Input TcpConnection::read(Worker& worker, std::size_t& size) {
    const std::span<char> buffer = worker.streamIn();
    ssize_t count = 0;
    do {
        count = recv(m_socket, buffer.data(), buffer.size(), MSG_DONTWAIT);
    } while (count < 0 && errno == EINTR);
    size = count > 0 ? static_cast<std::size_t>(count) : 0;
    if (count > 0) {
        return Input::THERE;
    }
    return count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK) ? Input::NONE : Input::ENDED;
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
    if (m_reception != nullptr) {
        m_reception->beginCall();
    }
    StreamCall call(m_transport.loop().program(), *this, worker);
    const CallTransport::Outcome outcome = call.serve(record);
    m_absence.reset();
    if (m_reception != nullptr) {
        m_reception->endCall();
    }
    return outcome != CallTransport::Outcome::Garbage && !call.broken();
}

/// The reply is ready. To wake another thread for what its client does next would be in vain.
void TcpConnection::beforeReply() {
    if (m_reception != nullptr && !m_absence) {
        m_reception->endCall();
    }
}

void TcpConnection::beAbsent() {
    if (m_reception != nullptr) {
        m_reception->handBack();
    }
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
