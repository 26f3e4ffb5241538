// The simplest servers that move the same bytes: what the machine can do without any protocol.
#include "load/Net.h"
#include "load/Rpc.h"
#include "load/Works.h"

#include <cstring>
#include <thread>

#include <netinet/in.h>
#include <sys/socket.h>

namespace load {

void serveUdpEcho(const Options& options) {
    const Socket socket = bindUdp(options.port);
    std::string buffer(65536, '\0');
    const std::size_t size = options.size < 4 ? 4 : options.size;
    for (;;) {
        sockaddr_in peer{};
        socklen_t length = sizeof peer;
        if (::recvfrom(socket.get(), buffer.data(), buffer.size(), 0,
                       reinterpret_cast<sockaddr*>(&peer), &length) >= 4) {
            ::sendto(socket.get(), buffer.data(), size, 0, reinterpret_cast<sockaddr*>(&peer),
                     length);
        }
    }
}

void serveTcpStream(const Options& options) {
    const Socket listener = listenTcp(options.port);
    for (;;) {
        std::thread([&options, connection = Socket(::accept(listener.get(), nullptr, nullptr))] {
            const std::string block(65536, 'x');
            std::size_t left = options.size;
            while (left > 0 && connection.get() >= 0) {
                const std::size_t now = std::min(left, block.size());
                if (!sendAll(connection.get(), {block.data(), now})) {
                    return;
                }
                left -= now;
            }
        }).detach();
    }
}

void serveTcpEcho(const Options& options) {
    const Socket listener = listenTcp(options.port);
    const std::string reply = asRecord(std::string(options.size, '\0'));
    std::string buffer;
    for (;;) {
        const Socket connection(::accept(listener.get(), nullptr, nullptr));
        if (connection.get() >= 0 && receiveRecord(connection.get(), buffer)) {
            sendAll(connection.get(), reply);
        }
    }
}

} // namespace load
