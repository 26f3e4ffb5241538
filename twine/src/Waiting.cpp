#include "Waiting.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <system_error>
#include <thread>

#include <sys/socket.h>
#include <unistd.h>

namespace twine {

std::string systemText(int errorNumber) {
    return std::error_code(errorNumber, std::generic_category()).message();
}

bool waitFor(int descriptor, short events, Clock::time_point deadline) {
    for (;;) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) {
            return false;
        }
        pollfd entry{descriptor, events, 0};
        const int wait =
            static_cast<int>(std::min<decltype(left)>(left, std::numeric_limits<int>::max()));
        const int ready = ::poll(&entry, 1, wait);
        if (ready > 0) {
            return true;
        }
        if (ready < 0 && errno != EINTR) {
            throw CallError("poll failed: " + systemText(errno));
        }
    }
}

void Descriptor::reset(int number) {
    if (m_number >= 0) {
        ::close(m_number);
    }
    m_number = number;
}

sockaddr_un socketAddress(const std::string& path) {
    sockaddr_un address{};
    if (path.empty() || path.size() >= sizeof(address.sun_path) ||
        path.find('\0') != std::string::npos) {
        throw std::invalid_argument("'" + path + "' cannot be the path of a socket");
    }
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    return address;
}

int connectTo(const std::string& path, Clock::time_point deadline) {
    constexpr std::chrono::milliseconds PAUSE(10);
    const sockaddr_un address = socketAddress(path);
    Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (socket.get() < 0) {
        return -1;
    }
    for (;;) {
        // A local connect either succeeds at once or says that the queue of the other side is full,
        // which cannot be waited for by poll.
        if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) ==
            0) {
            return socket.release();
        }
        if (errno != EAGAIN && errno != EINTR) {
            return -1;
        }
        if (Clock::now() + PAUSE >= deadline) {
            errno = ETIMEDOUT;
            return -1;
        }
        std::this_thread::sleep_for(PAUSE);
    }
}

} // namespace twine
