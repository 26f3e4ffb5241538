#include "daemon/SystemdNotify.h"

#include "common/Globals.h"

#include <karst/Text.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace nis {

void notifySupervisor(const char* state) {
    const char* path = std::getenv("NOTIFY_SOCKET");
    sockaddr_un address{};
    if (path == nullptr || *path == '\0' || std::strlen(path) >= sizeof address.sun_path) {
        return;
    }
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path, std::strlen(path));
    if (*path == '@') {
        address.sun_path[0] = '\0'; // a name in the abstract space
    }
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + std::strlen(path));
    const int channel = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (channel < 0 || sendto(channel, state, std::strlen(state), MSG_NOSIGNAL,
                              reinterpret_cast<const sockaddr*>(&address), size) < 0) {
        KARST_LOG(logger, tessa::LOG_DETAIL, "Telling the service manager %s failed: %s", state,
                  tessa::errorText(errno).c_str());
    }
    if (channel >= 0) {
        close(channel);
    }
}

} // namespace nis
