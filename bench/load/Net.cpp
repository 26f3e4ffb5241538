#include "load/Net.h"

#include <cerrno>
#include <cstring>
#include <system_error>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace load {

namespace {

constexpr std::uint32_t LAST_FRAGMENT = 0x80000000U;

sockaddr_in loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

Socket make(int type) {
    Socket result(::socket(AF_INET, type | SOCK_CLOEXEC, 0));
    if (result.get() < 0) {
        fail("socket");
    }
    return result;
}

using Call = int (*)(int, const sockaddr*, socklen_t);

void withLoopback(const Socket& socket, std::uint16_t port, Call call, const char* what) {
    const sockaddr_in address = loopback(port);
    if (call(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        fail(what);
    }
}

} // namespace

Socket connectUdp(std::uint16_t port) {
    Socket result = make(SOCK_DGRAM);
    withLoopback(result, port, ::connect, "connect");
    return result;
}

Socket connectTcp(std::uint16_t port) {
    Socket result = make(SOCK_STREAM);
    withLoopback(result, port, ::connect, "connect");
    const int on = 1;
    ::setsockopt(result.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return result;
}

Socket bindUdp(std::uint16_t port) {
    Socket result = make(SOCK_DGRAM);
    withLoopback(result, port, ::bind, "bind");
    return result;
}

Socket listenTcp(std::uint16_t port) {
    Socket result = make(SOCK_STREAM);
    const int on = 1;
    ::setsockopt(result.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    withLoopback(result, port, ::bind, "bind");
    if (::listen(result.get(), 512) != 0) {
        fail("listen");
    }
    return result;
}

bool sendAll(int socket, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t sent = ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent < 0 && errno != EINTR) {
            return false;
        }
        bytes.remove_prefix(sent > 0 ? static_cast<std::size_t>(sent) : 0);
    }
    return true;
}

bool receiveExactly(int socket, char* buffer, std::size_t size) {
    while (size > 0) {
        const ssize_t got = ::recv(socket, buffer, size, 0);
        if (got == 0 || (got < 0 && errno != EINTR)) {
            return false;
        }
        if (got > 0) {
            buffer += got;
            size -= static_cast<std::size_t>(got);
        }
    }
    return true;
}

std::string asRecord(std::string_view message) {
    const std::uint32_t mark = htonl(LAST_FRAGMENT | static_cast<std::uint32_t>(message.size()));
    std::string record(reinterpret_cast<const char*>(&mark), sizeof mark);
    return record.append(message);
}

std::optional<std::string_view> receiveRecord(int socket, std::string& buffer) {
    std::size_t size = 0;
    for (;;) {
        std::uint32_t mark = 0;
        if (!receiveExactly(socket, reinterpret_cast<char*>(&mark), sizeof mark)) {
            return std::nullopt;
        }
        mark = ntohl(mark);
        const std::size_t length = mark & ~LAST_FRAGMENT;
        if (buffer.size() < size + length) {
            buffer.resize(2 * (size + length));
        }
        if (!receiveExactly(socket, buffer.data() + size, length)) {
            return std::nullopt;
        }
        size += length;
        if ((mark & LAST_FRAGMENT) != 0) {
            return std::string_view(buffer).substr(0, size);
        }
    }
}

} // namespace load
