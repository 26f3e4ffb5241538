#include "Notify.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace quorad {

bool notifyServiceManager(const std::string& state) {
    const char* const named = std::getenv("NOTIFY_SOCKET");
    if (named == nullptr) {
        return false;
    }
    const std::string path = named;
    sockaddr_un address{};
    if (path.size() < 2 || path.size() >= sizeof(address.sun_path) ||
        (path.front() != '/' && path.front() != '@')) {
        return false;
    }
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    if (path.front() == '@') {
        address.sun_path[0] = '\0'; // a name that is no file
    }
    const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (socket < 0) {
        return false;
    }
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    const ssize_t sent = ::sendto(socket, state.data(), state.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
                                  reinterpret_cast<const sockaddr*>(&address), length);
    ::close(socket);
    return sent == static_cast<ssize_t>(state.size());
}

} // namespace quorad
