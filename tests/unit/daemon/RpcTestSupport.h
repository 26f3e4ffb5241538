#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

/// RPC messages made and taken apart by hand, so that tests say exactly which bytes travel.
namespace test {

inline constexpr std::uint32_t PROGRAM = 100004;
/// How long a test waits for what must happen. Never decides how fast it has to be.
inline constexpr std::chrono::seconds PATIENCE{60};

inline std::string word(std::uint32_t value) {
    const std::uint32_t net = htonl(value);
    return {reinterpret_cast<const char*>(&net), sizeof net};
}

inline std::string opaque(const std::string& bytes) {
    return word(static_cast<std::uint32_t>(bytes.size())) + bytes +
           std::string((4 - bytes.size() % 4) % 4, '\0');
}

inline const std::string NO_AUTH = word(0) + word(0);

struct Call {
    std::uint32_t xid = 1;
    std::uint32_t procedure = 0;
    std::string arguments = {};
    std::uint32_t program = PROGRAM;
    std::uint32_t version = 2;
    std::uint32_t rpcVersion = 2;
    std::uint32_t direction = 0;
    std::string credentials = NO_AUTH;

    std::string bytes() const {
        return word(xid) + word(direction) + word(rpcVersion) + word(program) + word(version) +
               word(procedure) + credentials + NO_AUTH + arguments;
    }
};

/// An accepted reply with its status.
inline std::string accepted(std::uint32_t xid, std::uint32_t status,
                            const std::string& results = {}) {
    return word(xid) + word(1) + word(0) + NO_AUTH + word(status) + results;
}

inline std::string denied(std::uint32_t xid, std::uint32_t status, const std::string& rest) {
    return word(xid) + word(1) + word(1) + word(status) + rest;
}

inline std::string record(const std::string& bytes, bool last = true) {
    return word(static_cast<std::uint32_t>(bytes.size()) | (last ? 0x80000000U : 0)) + bytes;
}

/// Waits until a condition holds.
template <typename Condition> bool eventually(Condition condition) {
    const auto deadline = std::chrono::steady_clock::now() + PATIENCE;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

inline sockaddr_in loopback(std::uint16_t port, const char* address = "127.0.0.1") {
    sockaddr_in place{};
    place.sin_family = AF_INET;
    place.sin_port = htons(port);
    inet_pton(AF_INET, address, &place.sin_addr);
    return place;
}

class Socket {
public:
    explicit Socket(int type) : m_descriptor(::socket(AF_INET, type | SOCK_CLOEXEC, 0)) {
        EXPECT_GE(m_descriptor, 0);
    }
    ~Socket() { close(); }
    Socket(Socket&& other) noexcept : m_descriptor(std::exchange(other.m_descriptor, -1)) {}
    Socket& operator=(Socket&&) = delete;

    int descriptor() const { return m_descriptor; }
    void close() {
        if (m_descriptor >= 0) {
            ::close(std::exchange(m_descriptor, -1));
        }
    }
    void bind(const sockaddr_in& place) {
        EXPECT_EQ(::bind(m_descriptor, reinterpret_cast<const sockaddr*>(&place), sizeof place), 0);
    }
    std::uint16_t port() const {
        sockaddr_in place{};
        socklen_t size = sizeof place;
        getsockname(m_descriptor, reinterpret_cast<sockaddr*>(&place), &size);
        return ntohs(place.sin_port);
    }
    bool readable(std::chrono::milliseconds limit) const {
        pollfd wanted{m_descriptor, POLLIN, 0};
        return poll(&wanted, 1, static_cast<int>(limit.count())) > 0;
    }

private:
    int m_descriptor;
};

class UdpClient {
public:
    explicit UdpClient(std::uint16_t port, const char* address = "127.0.0.1")
        : m_server(loopback(port, address)), m_socket(SOCK_DGRAM) {}

    void send(const std::string& bytes) {
        EXPECT_EQ(sendto(m_socket.descriptor(), bytes.data(), bytes.size(), 0,
                         reinterpret_cast<const sockaddr*>(&m_server), sizeof m_server),
                  static_cast<ssize_t>(bytes.size()));
    }
    /// @return the reply, or nothing after the time
    std::optional<std::string> receive(std::chrono::milliseconds limit = PATIENCE) {
        if (!m_socket.readable(limit)) {
            return std::nullopt;
        }
        std::string buffer(65536, '\0');
        socklen_t size = sizeof sender;
        const ssize_t count = recvfrom(m_socket.descriptor(), buffer.data(), buffer.size(), 0,
                                       reinterpret_cast<sockaddr*>(&sender), &size);
        EXPECT_GE(count, 0);
        buffer.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
        return buffer;
    }
    std::optional<std::string> exchange(const Call& call) {
        send(call.bytes());
        return receive();
    }

    sockaddr_in sender{};

private:
    sockaddr_in m_server;
    Socket m_socket;
};

class TcpClient {
public:
    explicit TcpClient(std::uint16_t port, int receiveBuffer = 0) : m_socket(SOCK_STREAM) {
        if (receiveBuffer > 0) {
            setsockopt(m_socket.descriptor(), SOL_SOCKET, SO_RCVBUF, &receiveBuffer,
                       sizeof receiveBuffer);
        }
        const sockaddr_in place = loopback(port);
        m_connected = connect(m_socket.descriptor(), reinterpret_cast<const sockaddr*>(&place),
                              sizeof place) == 0;
        EXPECT_TRUE(m_connected);
    }

    /// Sends raw bytes; a connection that the server has closed is not a failure.
    void send(const std::string& bytes) {
        ::send(m_socket.descriptor(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }
    void call(const Call& call) { send(record(call.bytes())); }
    void close() { m_socket.close(); }
    int descriptor() const { return m_socket.descriptor(); }

    /// @return the next record, put together from its fragments; nothing at the connection's end
    std::optional<std::string> receive() {
        std::string whole;
        fragments = 0;
        for (;;) {
            const std::optional<std::string> head = take(4);
            if (!head) {
                return std::nullopt;
            }
            std::uint32_t mark = 0;
            head->copy(reinterpret_cast<char*>(&mark), sizeof mark);
            mark = ntohl(mark);
            const std::optional<std::string> body = take(mark & 0x7fffffffU);
            if (!body) {
                return std::nullopt;
            }
            whole += *body;
            ++fragments;
            if ((mark & 0x80000000U) != 0) {
                return whole;
            }
        }
    }
    std::optional<std::string> exchange(const Call& call) {
        this->call(call);
        return receive();
    }
    /// Whether the server has ended the connection; waits for it.
    bool ended() { return !take(1); }
    /// Whether there is neither data nor an end for a while.
    bool quiet(std::chrono::milliseconds time) { return !m_socket.readable(time); }

    unsigned fragments = 0; ///< of the last record

private:
    std::optional<std::string> take(std::size_t count) {
        std::string bytes(count, '\0');
        for (std::size_t have = 0; have < count;) {
            if (!m_socket.readable(PATIENCE)) {
                ADD_FAILURE() << "neither data nor end of the connection";
                return std::nullopt;
            }
            const ssize_t got = recv(m_socket.descriptor(), bytes.data() + have, count - have, 0);
            if (got <= 0) {
                return std::nullopt;
            }
            have += static_cast<std::size_t>(got);
        }
        return bytes;
    }

    Socket m_socket;
    bool m_connected = false;
};

} // namespace test
