#include "daemon/Sockets.h"

#include "common/ConfigKeys.h"
#include "common/Globals.h"

#include <karst/Text.h>

#include <rpc/rpc.h>

#include <cerrno>
#include <cstdint>
#include <limits>
#include <string>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace nis {

namespace {

/// Reads one port setting; `name` is how logs call the protocol.
unsigned configuredPort(const char* key, const char* name, sockaddr_in& address) {
    const std::string setting = getConfig()->get(key);
    unsigned port = tessa::atoui(setting);
    if (port > std::numeric_limits<std::uint16_t>::max()) {
        KARST_LOG(logger, tessa::LOG_WARN, "%s is set to invalid number: %s", key, setting.c_str());
        port = 0;
    }
    if (port == 0) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "%s PORT: using random port number", name);
        return 0;
    }
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "%s PORT: %u", name, port);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return port;
}

/// Reads the address setting.
/// @return whether one was configured
bool configuredAddress(in_addr& address) {
    const auto config = getConfig();
    const std::string setting = config->get(PROP_NET_ADDR);
    if (config->exists(PROP_NET_ADDR)) {
        if (inet_aton(setting.c_str(), &address) != 0) {
            KARST_LOG(logger, tessa::LOG_DEBUGGING, "socket address: %s", setting.c_str());
            return true;
        }
        KARST_LOG(logger, tessa::LOG_WARN, "bad socket address config %s", setting.c_str());
        address.s_addr = INADDR_ANY;
    }
    // The text is older than the behaviour, which is the wildcard address.
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "socket address: using localhost address");
    return false;
}

void bindAsConfigured(int socket, const sockaddr_in& address, const char* name) {
    if (bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        KARST_LOG(logger, tessa::LOG_WARN, "bind %s ifc %x port %d failed: %s", name,
                  ntohl(address.sin_addr.s_addr), ntohs(address.sin_port),
                  tessa::errorText(errno).c_str());
    }
}

void createSockets() {
    gUdpSocket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
    if (gUdpSocket >= 0) {
        gTcpSocket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
    }
    if (gUdpSocket < 0 || gTcpSocket < 0) {
        KARST_LOG(logger, tessa::LOG_FAILURE, "RPC socket creation failed: %s",
                  tessa::errorText(errno).c_str());
        terminate(EXIT_NETWORK);
    }
    // A restart must not wait for the connections of the run before to be forgotten.
    const int on = 1;
    setsockopt(gTcpSocket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
}

} // namespace

void PrepareSocket() {
    sockaddr_in tcp{};
    tcp.sin_family = AF_INET;
    sockaddr_in udp = tcp;
    gTcpPort = configuredPort(PROP_NET_TCP_PORT, "TCP", tcp);
    gUdpPort = configuredPort(PROP_NET_UDP_PORT, "UDP", udp);
    const bool addressed = configuredAddress(tcp.sin_addr);
    udp.sin_addr = tcp.sin_addr;
    createSockets();
    if (addressed || gTcpPort != 0) {
        bindAsConfigured(gTcpSocket, tcp, "tcp");
    }
    if (addressed || gUdpPort != 0) {
        bindAsConfigured(gUdpSocket, udp, "udp");
    }
}

unsigned boundPort(int socket) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    if (getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        return 0;
    }
    return ntohs(address.sin_port);
}

bool bindToReservedPort(int socket) {
    return boundPort(socket) != 0 || bindresvport(socket, nullptr) == 0;
}

} // namespace nis
