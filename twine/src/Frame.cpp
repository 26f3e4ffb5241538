#include "twine/Frame.h"

#include "Waiting.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/uio.h>

namespace twine {

namespace {

constexpr std::size_t HEADER = sizeof(std::uint32_t);
// The buffer grows from this as bytes arrive: an announced length alone costs the peer nothing and
// must cost us nothing.
constexpr std::size_t FIRST_BUFFER = 64UL * 1024;

enum class Arrival { Bytes, Closed };

Arrival receiveSome(int socket, char* to, std::size_t room, std::size_t& got,
                    Clock::time_point deadline) {
    for (;;) {
        const ssize_t count = ::recv(socket, to, room, MSG_DONTWAIT);
        if (count > 0) {
            got = static_cast<std::size_t>(count);
            return Arrival::Bytes;
        }
        if (count == 0) {
            return Arrival::Closed;
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno != EAGAIN && errno != EWOULDBLOCK) {
            throw CallError("connection broken while receiving: " + systemText(errno));
        }
        if (!waitFor(socket, POLLIN, deadline)) {
            throw CallError("deadline passed while waiting for the peer");
        }
    }
}

void receiveAll(int socket, char* to, std::size_t size, Clock::time_point deadline) {
    while (size > 0) {
        std::size_t got = 0;
        if (receiveSome(socket, to, size, got, deadline) == Arrival::Closed) {
            throw FrameError("connection closed in the middle of a frame");
        }
        to += got;
        size -= got;
    }
}

} // namespace

bool readFrame(int socket, std::string& payload, Clock::time_point deadline) {
    char header[HEADER];
    std::size_t got = 0;
    if (receiveSome(socket, header, HEADER, got, deadline) == Arrival::Closed) {
        return false;
    }
    receiveAll(socket, header + got, HEADER - got, deadline);
    std::uint32_t announced = 0;
    std::memcpy(&announced, header, HEADER);
    const std::size_t length = ntohl(announced);
    if (length > MAX_FRAME) {
        throw FrameError("frame of " + std::to_string(length) + " bytes announced; at most " +
                         std::to_string(MAX_FRAME) + " are allowed");
    }
    payload.clear();
    while (payload.size() < length) {
        const std::size_t have = payload.size();
        const std::size_t next = std::min(length, std::max(FIRST_BUFFER, have * 2));
        payload.resize(next);
        receiveAll(socket, payload.data() + have, next - have, deadline);
    }
    return true;
}

void writeFrame(int socket, std::string_view payload, Clock::time_point deadline) {
    if (payload.size() > MAX_FRAME) {
        throw FrameError("message of " + std::to_string(payload.size()) +
                         " bytes is larger than a frame (" + std::to_string(MAX_FRAME) + ")");
    }
    std::uint32_t header = htonl(static_cast<std::uint32_t>(payload.size()));
    iovec parts[2] = {{&header, HEADER}, {const_cast<char*>(payload.data()), payload.size()}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    while (message.msg_iovlen > 0) {
        const ssize_t count = ::sendmsg(socket, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            if (errno != EAGAIN && errno != EWOULDBLOCK) {
                throw CallError("connection broken while sending: " + systemText(errno));
            }
            if (!waitFor(socket, POLLOUT, deadline)) {
                throw CallError("deadline passed while sending");
            }
            continue;
        }
        auto sent = static_cast<std::size_t>(count);
        while (message.msg_iovlen > 0 && sent >= message.msg_iov->iov_len) {
            sent -= message.msg_iov->iov_len;
            ++message.msg_iov;
            --message.msg_iovlen;
        }
        if (message.msg_iovlen > 0) {
            message.msg_iov->iov_base = static_cast<char*>(message.msg_iov->iov_base) + sent;
            message.msg_iov->iov_len -= sent;
        }
    }
}

} // namespace twine
