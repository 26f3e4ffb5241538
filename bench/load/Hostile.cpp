// Clients that a server must not let disturb the others.
#include "load/Net.h"
#include "load/Rpc.h"
#include "load/Works.h"

#include <thread>
#include <vector>

#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>

namespace load {

namespace {

void allowManyDescriptors() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
}

/// A socket that takes in little, so that the server soon finds no room.
Socket connectSmall(std::uint16_t port) {
    Socket socket = connectTcp(port);
    const int size = 4096;
    ::setsockopt(socket.get(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    return socket;
}

/// How many of the connections the server still holds.
std::uint64_t alive(const std::vector<Socket>& sockets) {
    std::uint64_t count = 0;
    for (const Socket& socket : sockets) {
        pollfd state{socket.get(), 0, 0};
        count += ::poll(&state, 1, 0) == 0 ? 1 : 0;
    }
    return count;
}

} // namespace

Report hostile(const Options& options) {
    allowManyDescriptors();
    const std::string call =
        asRecord(encodeCall(1, ALL, options.domain, options.map, std::nullopt));
    std::vector<Socket> sockets;
    for (unsigned i = 0; i < options.half; ++i) {
        sockets.push_back(connectTcp(options.port));
        sendAll(sockets.back().get(), std::string_view(call).substr(0, call.size() / 2));
    }
    for (unsigned i = 0; i < options.silent; ++i) {
        sockets.push_back(connectSmall(options.port));
        sendAll(sockets.back().get(), call);
    }
    for (unsigned i = 0; i < options.idle; ++i) {
        sockets.push_back(connectTcp(options.port));
    }
    Report report;
    report.work = "hostile";
    report.seconds = options.seconds;
    const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                        std::chrono::duration<double>(options.seconds));
    std::this_thread::sleep_until(end);
    report.answers = alive(sockets);
    return report;
}

} // namespace load
