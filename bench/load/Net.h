#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <unistd.h>

namespace load {

/// A descriptor that closes itself.
class Socket {
public:
    explicit Socket(int descriptor = -1) : m_descriptor(descriptor) {}
    ~Socket() {
        if (m_descriptor >= 0) {
            ::close(m_descriptor);
        }
    }
    Socket(Socket&& other) noexcept : m_descriptor(other.m_descriptor) { other.m_descriptor = -1; }
    Socket& operator=(Socket&& other) noexcept {
        std::swap(m_descriptor, other.m_descriptor);
        return *this;
    }
    int get() const { return m_descriptor; }

private:
    int m_descriptor;
};

/// Sockets of the loopback interface. All throw std::system_error.
Socket connectUdp(std::uint16_t port);
Socket connectTcp(std::uint16_t port);
Socket bindUdp(std::uint16_t port);
Socket listenTcp(std::uint16_t port);

/// Blocking transfer of exactly that many bytes; false when the peer is gone.
bool sendAll(int socket, std::string_view bytes);
bool receiveExactly(int socket, char* buffer, std::size_t size);

/// A record (RFC 5531, section 11) of a single fragment.
std::string asRecord(std::string_view message);
/// Reads one record of any number of fragments into the buffer, which grows as needed and is best
/// used again; nothing when the peer is gone.
std::optional<std::string_view> receiveRecord(int socket, std::string& buffer);

} // namespace load
