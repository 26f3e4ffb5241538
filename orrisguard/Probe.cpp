#include "Probe.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace orrisguard {

namespace {

using Clock = std::chrono::steady_clock;
using Words = std::vector<std::uint32_t>; ///< of a message, in host byte order

constexpr std::uint32_t RPC_CALL = 0;
constexpr std::uint32_t RPC_REPLY = 1;
constexpr std::uint32_t RPC_VERSION = 2;
constexpr std::uint32_t PORTMAPPER = 100000;
constexpr std::uint32_t PORTMAPPER_VERSION = 2;
constexpr std::uint32_t GET_PORT = 3;
constexpr std::uint32_t YPPROG = 100004;
constexpr std::uint32_t YPVERS = 2;
constexpr std::uint32_t NULL_PROCEDURE = 0;
constexpr std::size_t REPLY_HEADER = 6; ///< words: id, reply, accepted, no verifier (2), success
constexpr std::size_t MAX_REPLY = 64;
constexpr std::chrono::milliseconds REPEAT{2000}; ///< datagrams get lost

/// A datagram socket that talks to one port.
class Socket {
public:
    Socket(std::uint32_t address, std::uint16_t port)
        : m_socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
        struct sockaddr_in to {};
        to.sin_family = AF_INET;
        to.sin_addr.s_addr = address;
        to.sin_port = htons(port);
        struct sockaddr generic {};
        std::memcpy(&generic, &to, sizeof(to));
        m_good = m_socket >= 0 && ::connect(m_socket, &generic, sizeof(to)) == 0;
    }
    ~Socket() {
        if (m_socket >= 0) {
            ::close(m_socket);
        }
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    bool good() const { return m_good; }

    void send(const Words& words) const {
        Words network;
        for (const std::uint32_t word : words) {
            network.push_back(htonl(word));
        }
        // A failure shows as a missing answer.
        static_cast<void>(::send(m_socket, network.data(), network.size() * 4, 0));
    }

    /// @return false when nothing came in that time
    bool receive(Words& words, std::chrono::milliseconds time) const {
        struct pollfd waiting {};
        waiting.fd = m_socket;
        waiting.events = POLLIN;
        if (::poll(&waiting, 1, static_cast<int>(time.count())) <= 0) {
            return false;
        }
        std::array<std::uint32_t, MAX_REPLY> buffer{};
        const ssize_t size = ::recv(m_socket, buffer.data(), buffer.size() * 4, 0);
        words.clear();
        for (ssize_t i = 0; i < size / 4; ++i) {
            words.push_back(ntohl(buffer[static_cast<std::size_t>(i)]));
        }
        if (size < 0) { // a port that nobody listens at: the answer to the next try may be better
            ::poll(nullptr, 0, static_cast<int>(std::min(time, REPEAT).count()));
        }
        return true;
    }

private:
    const int m_socket;
    bool m_good = false;
};

Words callOf(std::uint32_t transaction, std::uint32_t program, std::uint32_t version,
             std::uint32_t procedure) {
    return {transaction, RPC_CALL, RPC_VERSION, program, version, procedure, 0, 0, 0, 0};
}

bool isSuccess(const Words& reply, std::uint32_t transaction) {
    return reply.size() >= REPLY_HEADER && reply[0] == transaction && reply[1] == RPC_REPLY &&
           reply[2] == 0 && reply[3] == 0 && reply[4] == 0 && reply[5] == 0;
}

/// Sends the call, again now and then, until its reply comes or the time is over.
bool exchange(const Socket& socket, const Words& call, Words& reply, Clock::time_point deadline) {
    while (socket.good() && Clock::now() < deadline) {
        socket.send(call);
        const Clock::time_point again = std::min(deadline, Clock::now() + REPEAT);
        while (Clock::now() < again) {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(again - Clock::now()) +
                std::chrono::milliseconds(1);
            if (socket.receive(reply, left) && isSuccess(reply, call[0])) {
                return true;
            }
        }
    }
    return false;
}

} // namespace

Probe::Probe(std::uint32_t address, std::uint16_t portmapperPort)
    : m_address(address), m_portmapperPort(portmapperPort),
      m_transaction(static_cast<std::uint32_t>(::getpid()) << 16U) {}

Answer Probe::ask(std::chrono::milliseconds timeout) {
    const Clock::time_point begin = Clock::now();
    std::uint16_t port = m_lastPort;
    {
        const Socket portmapper(htonl(INADDR_LOOPBACK), m_portmapperPort);
        Words call = callOf(++m_transaction, PORTMAPPER, PORTMAPPER_VERSION, GET_PORT);
        call.insert(call.end(), {YPPROG, YPVERS, IPPROTO_UDP, 0});
        Words reply;
        if (exchange(portmapper, call, reply, begin + timeout / 2) && reply.size() > REPLY_HEADER &&
            reply[REPLY_HEADER] != 0) {
            port = static_cast<std::uint16_t>(reply[REPLY_HEADER]);
        }
    }
    if (port == 0) {
        return Answer::UNKNOWN;
    }
    const Socket server(m_address, port);
    Words reply;
    if (!exchange(server, callOf(++m_transaction, YPPROG, YPVERS, NULL_PROCEDURE), reply,
                  begin + timeout)) {
        return Answer::SILENT;
    }
    m_lastPort = port;
    return Answer::ANSWERED;
}

} // namespace orrisguard
