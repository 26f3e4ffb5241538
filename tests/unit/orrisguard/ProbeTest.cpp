#include "Probe.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using namespace orrisguard;
using namespace std::chrono_literals;

using Words = std::vector<std::uint32_t>;

/// A UDP server on loopback that answers each call with what a function makes of it.
class Server {
public:
    using Handler = std::function<Words(const Words& call)>; ///< no words: no answer

    explicit Server(Handler handler) : m_handler(std::move(handler)) {
        m_socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        struct sockaddr_in address {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        struct sockaddr generic {};
        std::memcpy(&generic, &address, sizeof(address));
        socklen_t size = sizeof(generic);
        if (m_socket < 0 || ::bind(m_socket, &generic, size) != 0 ||
            ::getsockname(m_socket, &generic, &size) != 0) {
            throw std::runtime_error("no socket");
        }
        std::memcpy(&address, &generic, sizeof(address));
        m_port = ntohs(address.sin_port);
        m_thread = std::thread([this] { serve(); });
    }
    ~Server() {
        m_stop = true;
        m_thread.join();
        ::close(m_socket);
    }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    std::uint16_t port() const { return m_port; }
    int calls() const { return m_calls; }

private:
    void serve() {
        while (!m_stop) {
            struct pollfd waiting {};
            waiting.fd = m_socket;
            waiting.events = POLLIN;
            if (::poll(&waiting, 1, 20) <= 0) {
                continue;
            }
            std::array<std::uint32_t, 64> buffer{};
            struct sockaddr from {};
            socklen_t size = sizeof(from);
            const ssize_t count =
                ::recvfrom(m_socket, buffer.data(), sizeof(buffer), 0, &from, &size);
            Words call;
            for (ssize_t i = 0; i < count / 4; ++i) {
                call.push_back(ntohl(buffer[static_cast<std::size_t>(i)]));
            }
            ++m_calls;
            Words reply = m_handler(call);
            for (auto& word : reply) {
                word = htonl(word);
            }
            if (!reply.empty()) {
                ::sendto(m_socket, reply.data(), reply.size() * 4, 0, &from, size);
            }
        }
    }

    Handler m_handler;
    int m_socket = -1;
    std::uint16_t m_port = 0;
    std::atomic<bool> m_stop{false};
    std::atomic<int> m_calls{0};
    std::thread m_thread;
};

Words success(const Words& call) {
    return {call.at(0), 1, 0, 0, 0, 0};
}

Server::Handler portmapperFor(std::uint32_t port) {
    return [port](const Words& call) {
        const Words expected{call.at(0), 0, 2, 100000, 2, 3, 0, 0, 0, 0, 100004, 2, 17, 0};
        EXPECT_EQ(call, expected);
        Words reply = success(call);
        reply.push_back(port);
        return reply;
    };
}

Words nullReply(const Words& call) {
    const Words expected{call.at(0), 0, 2, 100004, 2, 0, 0, 0, 0, 0};
    EXPECT_EQ(call, expected);
    return success(call);
}

Probe probeAt(const Server& portmapper) {
    return Probe(htonl(INADDR_LOOPBACK), portmapper.port());
}

TEST(Probe, aServerThatAnswers) {
    Server server(nullReply);
    Server portmapper(portmapperFor(server.port()));
    Probe probe = probeAt(portmapper);
    EXPECT_EQ(probe.ask(20s), Answer::ANSWERED);
    EXPECT_EQ(probe.ask(20s), Answer::ANSWERED);
    EXPECT_EQ(server.calls(), 2);
}

TEST(Probe, aServerThatIsSilent) {
    Server server([](const Words&) { return Words(); });
    Server portmapper(portmapperFor(server.port()));
    EXPECT_EQ(probeAt(portmapper).ask(300ms), Answer::SILENT);
    EXPECT_EQ(server.calls(), 1);
}

TEST(Probe, nobodyListensAtTheRegisteredPort) {
    std::uint16_t port = 0;
    {
        const Server gone(nullReply);
        port = gone.port();
    }
    Server portmapper(portmapperFor(port));
    EXPECT_EQ(probeAt(portmapper).ask(300ms), Answer::SILENT);
}

TEST(Probe, notRegisteredOrNoPortmapper) {
    Server portmapper(portmapperFor(0));
    EXPECT_EQ(probeAt(portmapper).ask(300ms), Answer::UNKNOWN);
    Server silent([](const Words&) { return Words(); });
    EXPECT_EQ(probeAt(silent).ask(300ms), Answer::UNKNOWN);
}

TEST(Probe, theLastPortIsKnownWhileThePortmapperIsAway) {
    std::atomic<bool> away{false};
    Server server(nullReply);
    Server portmapper(
        [&](const Words& call) { return away ? Words() : portmapperFor(server.port())(call); });
    Probe probe = probeAt(portmapper);
    EXPECT_EQ(probe.ask(20s), Answer::ANSWERED);
    away = true;
    EXPECT_EQ(probe.ask(600ms), Answer::ANSWERED);
}

TEST(Probe, whatIsNoReplyToTheCallDoesNotCount) {
    const std::vector<Server::Handler> answers{
        [](const Words& call) { return Words{call.at(0) + 1, 1, 0, 0, 0, 0}; }, // another call's
        [](const Words& call) { return Words{call.at(0), 1, 1, 0, 0, 0}; },     // denied
        [](const Words& call) { return Words{call.at(0), 1, 0, 0, 0, 1}; },     // no such program
        [](const Words& call) { return Words{call.at(0), 0, 0, 0, 0, 0}; },     // a call
        [](const Words& call) {
            return Words{call.at(0), 1};
        }, // cut off
        [](const Words&) { return Words(60, 0xffffffff); }};
    for (const auto& answer : answers) {
        Server server(answer);
        Server portmapper(portmapperFor(server.port()));
        EXPECT_EQ(probeAt(portmapper).ask(200ms), Answer::SILENT);
    }
}

TEST(Probe, aLostDatagramIsSentAgain) {
    std::atomic<int> calls{0};
    Server server([&](const Words& call) { return ++calls == 1 ? Words() : nullReply(call); });
    Server portmapper(portmapperFor(server.port()));
    EXPECT_EQ(probeAt(portmapper).ask(30s), Answer::ANSWERED);
    EXPECT_EQ(server.calls(), 2);
}

} // namespace
