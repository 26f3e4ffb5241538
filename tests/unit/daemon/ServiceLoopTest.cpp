#include "daemon/transport/ServiceLoop.h"

#include "common/Globals.h"
#include "unit/daemon/RpcTestSupport.h"

#include <karst/Thread.h>

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>

namespace {

using namespace std::chrono_literals;
using test::accepted;
using test::Call;
using test::opaque;
using test::record;
using test::TcpClient;
using test::UdpClient;
using test::word;

// A program of a few procedures, as the transports see one.
enum : std::uint32_t { NOTHING, ECHO_BYTES, LARGE, STREAM, SILENT, HELD, TWICE, LYING };

/// Where procedure HELD waits.
class Gate {
public:
    void pass() {
        std::unique_lock lock(m_mutex);
        ++m_waiting;
        m_changed.wait(lock, [this] { return m_open; });
        --m_waiting;
    }
    void open(bool open) {
        const std::lock_guard lock(m_mutex);
        m_open = open;
        m_changed.notify_all();
    }
    int waiting() {
        const std::lock_guard lock(m_mutex);
        return m_waiting;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_open = false;
    int m_waiting = 0;
};

Gate gGate;
std::atomic<int> gServed{0};
std::atomic<bool> gSecondReply{true};

struct Bytes {
    char* data;
    u_int size;
};

bool_t xdrBytes(XDR* xdr, void* bytes) {
    auto* range = static_cast<Bytes*>(bytes);
    return xdr_bytes(xdr, &range->data, &range->size, 1024 * 1024);
}
bool_t xdrNumber(XDR* xdr, void* number) {
    return xdr_u_int(xdr, static_cast<u_int*>(number));
}
bool_t xdrNone(XDR*, void*) {
    return TRUE;
}
/// As many words as the number says, one after the other.
bool_t xdrWords(XDR* xdr, void* number) {
    const u_int count = *static_cast<u_int*>(number);
    for (u_int i = 0; i < count; ++i) {
        if (xdr_u_int(xdr, &i) != TRUE) {
            return FALSE;
        }
    }
    return TRUE;
}
/// As many, and then a failure to encode.
bool_t xdrWordsThenFail(XDR* xdr, void* number) {
    xdrWords(xdr, number);
    return FALSE;
}

xdrproc_t typed(bool_t (*routine)(XDR*, void*)) {
    return reinterpret_cast<xdrproc_t>(routine);
}

bool sendReply(SVCXPRT* transport, bool_t (*routine)(XDR*, void*), void* result) {
    const bool sent = svc_sendreply(transport, typed(routine), result) == TRUE;
    if (!sent) {
        svcerr_systemerr(transport);
    }
    return sent;
}

void echo(SVCXPRT* transport) {
    Bytes bytes{};
    if (svc_getargs(transport, typed(xdrBytes), &bytes) != TRUE) {
        svcerr_decode(transport);
        return;
    }
    sendReply(transport, xdrBytes, &bytes);
    svc_freeargs(transport, typed(xdrBytes), &bytes);
}

void sized(SVCXPRT* transport, std::uint32_t procedure) {
    u_int number = 0;
    if (svc_getargs(transport, typed(xdrNumber), &number) != TRUE) {
        svcerr_decode(transport);
    } else if (procedure == LARGE) {
        std::string text(number, 'L');
        Bytes bytes{text.data(), number};
        sendReply(transport, xdrBytes, &bytes);
    } else {
        sendReply(transport, procedure == STREAM ? xdrWords : xdrWordsThenFail, &number);
    }
}

void dispatch(svc_req* request, SVCXPRT* transport) {
    ++gServed;
    switch (request->rq_proc) {
    case NOTHING:
        sendReply(transport, xdrNone, nullptr);
        break;
    case ECHO_BYTES:
        echo(transport);
        break;
    case LARGE:
    case STREAM:
    case LYING:
        sized(transport, request->rq_proc);
        break;
    case SILENT:
        break;
    case HELD:
        gGate.pass();
        sendReply(transport, xdrNone, nullptr);
        break;
    case TWICE:
        sendReply(transport, xdrNone, nullptr);
        gSecondReply = svc_sendreply(transport, typed(xdrNone), nullptr) == TRUE;
        break;
    default:
        svcerr_noproc(transport);
    }
}

constexpr nis::RpcProgram PROGRAM{test::PROGRAM, 2, dispatch};

double processorSeconds() {
    timespec used{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
}

class ServiceLoop : public testing::Test {
protected:
    ServiceLoop() {
        nis::logger->setThreshold(tessa::LOG_WARN);
        gGate.open(false);
        gServed = 0;
        gSecondReply = true;
        limits.connections = 4000;
    }
    ~ServiceLoop() override {
        gGate.open(true);
        stop();
    }

    void start(unsigned threads = 2) {
        udp.bind(test::loopback(0, "0.0.0.0"));
        tcp.bind(test::loopback(0, "0.0.0.0"));
        loop = std::make_unique<nis::ServiceLoop>(PROGRAM, limits);
        loop->addUdp(udp.descriptor());
        loop->addTcp(tcp.descriptor());
        listen(threads);
    }
    void listen(unsigned threads) {
        for (unsigned i = 0; i < threads; ++i) {
            listeners.emplace_back().start("client-" + std::to_string(i), [this] { loop->run(); });
        }
    }
    void stop() {
        if (loop) {
            loop->stop();
            listeners.clear();
            loop.reset();
        }
    }

    UdpClient udpClient(const char* address = "127.0.0.1") const {
        return UdpClient(udp.port(), address);
    }
    TcpClient tcpClient(int receiveBuffer = 0) const {
        return TcpClient(tcp.port(), receiveBuffer);
    }
    /// Whether both transports answer.
    void expectService() const {
        EXPECT_EQ(udpClient().exchange({.xid = 7}), accepted(7, 0));
        EXPECT_EQ(tcpClient().exchange({.xid = 8}), accepted(8, 0));
    }
    /// A client that asks for more than buffers hold and does not read it.
    TcpClient nonReader() const {
        TcpClient client = tcpClient(4096);
        client.call({.procedure = STREAM, .arguments = word(50'000'000)});
        return client;
    }

    nis::TransportLimits limits;
    test::Socket udp{SOCK_DGRAM};
    test::Socket tcp{SOCK_STREAM};
    std::unique_ptr<nis::ServiceLoop> loop;
    std::vector<tessa::Thread> listeners;
};

// ---- messages, the same over both transports

using Exchange = std::optional<std::string> (*)(std::uint16_t udp, std::uint16_t tcp,
                                                const Call& call);

std::optional<std::string> overUdp(std::uint16_t udp, std::uint16_t, const Call& call) {
    return UdpClient(udp).exchange(call);
}
std::optional<std::string> overTcp(std::uint16_t, std::uint16_t tcp, const Call& call) {
    return TcpClient(tcp).exchange(call);
}

class Messages : public ServiceLoop, public testing::WithParamInterface<Exchange> {
protected:
    void SetUp() override { start(); }
    std::optional<std::string> exchange(const Call& call) const {
        return GetParam()(udp.port(), tcp.port(), call);
    }
};

TEST_P(Messages, a_call_is_answered) {
    EXPECT_EQ(exchange({.xid = 0xdeadbeef}), accepted(0xdeadbeef, 0));
    EXPECT_EQ(exchange({.xid = 2, .procedure = ECHO_BYTES, .arguments = opaque("hello")}),
              accepted(2, 0, opaque("hello")));
}

TEST_P(Messages, errors_of_the_service) {
    EXPECT_EQ(exchange({.xid = 3, .procedure = 99}), accepted(3, 3));
    EXPECT_EQ(exchange({.xid = 4, .procedure = ECHO_BYTES, .arguments = "abc"}), accepted(4, 4));
    EXPECT_EQ(exchange({.xid = 5, .procedure = ECHO_BYTES, .arguments = word(0xffffffffU)}),
              accepted(5, 4));
    EXPECT_EQ(exchange({.xid = 6, .procedure = LYING, .arguments = word(3)}), accepted(6, 5));
}

TEST_P(Messages, wrong_program_or_version) {
    EXPECT_EQ(exchange({.xid = 5, .program = 100007}), accepted(5, 1));
    for (const std::uint32_t version : {0U, 1U, 3U}) {
        EXPECT_EQ(exchange({.xid = 6, .version = version}), accepted(6, 2, word(2) + word(2)));
    }
    EXPECT_EQ(gServed, 0);
}

TEST_P(Messages, wrong_rpc_version) {
    EXPECT_EQ(exchange({.xid = 7, .rpcVersion = 3}), test::denied(7, 0, word(2) + word(2)));
}

TEST_P(Messages, credentials) {
    const std::string good = word(1234) + opaque("host") + word(0) + word(0) + word(1) + word(5);
    EXPECT_EQ(exchange({.xid = 8, .credentials = word(1) + opaque(good)}), accepted(8, 0));
    // AUTH_SYS whose list of groups is not there
    const std::string bad = word(1234) + opaque("host") + word(0) + word(0) + word(9);
    EXPECT_EQ(exchange({.xid = 9, .credentials = word(1) + opaque(bad)}),
              test::denied(9, 1, word(1)));
    for (const std::uint32_t flavour : {2U, 3U, 6U, 12345U}) {
        EXPECT_EQ(exchange({.xid = 10, .credentials = word(flavour) + opaque("data")}),
                  test::denied(10, 1, word(2)));
    }
}

TEST_P(Messages, one_call_has_one_reply) {
    EXPECT_EQ(exchange({.xid = 11, .procedure = TWICE}), accepted(11, 0));
    EXPECT_TRUE(test::eventually([] { return !gSecondReply; }));
}

INSTANTIATE_TEST_SUITE_P(Transports, Messages, testing::Values(overUdp, overTcp),
                         [](const auto& transport) {
                             return transport.param == overUdp ? "Udp" : "Tcp";
                         });

// ---- UDP

TEST_F(ServiceLoop, udp_ignores_what_is_no_call) {
    start();
    UdpClient client = udpClient();
    client.send("");
    client.send("garbage");
    client.send(word(1) + word(0));
    client.send(std::string(2000, '\xff'));
    client.send(Call{.xid = 1, .direction = 1}.bytes());
    client.send(Call{.xid = 1, .direction = 77}.bytes());
    client.send(Call{.xid = 2, .credentials = word(0) + word(401) + std::string(404, 'x')}.bytes());
    client.send(Call{.xid = 3}.bytes().substr(0, 30));
    client.send(Call{.xid = 4, .procedure = SILENT}.bytes());
    EXPECT_EQ(client.exchange({.xid = 5}), accepted(5, 0));
    EXPECT_FALSE(client.receive(50ms));
}

TEST_F(ServiceLoop, udp_calls_beyond_the_limit_are_ignored) {
    start();
    UdpClient client = udpClient();
    client.send(Call{.xid = 1, .arguments = std::string(8800, 'x')}.bytes());
    client.send(Call{.xid = 2, .arguments = std::string(8800 - 40, 'x')}.bytes());
    EXPECT_EQ(client.receive(), accepted(2, 0));
    EXPECT_FALSE(client.receive(50ms));
}

TEST_F(ServiceLoop, udp_replies_that_do_not_fit_are_a_system_error) {
    start();
    UdpClient client = udpClient();
    constexpr std::uint32_t ROOM = 8800 - 24 - 4;
    EXPECT_EQ(client.exchange({.xid = 1, .procedure = LARGE, .arguments = word(ROOM)}),
              accepted(1, 0, opaque(std::string(ROOM, 'L'))));
    EXPECT_EQ(client.exchange({.xid = 2, .procedure = LARGE, .arguments = word(ROOM + 1)}),
              accepted(2, 5));
}

TEST_F(ServiceLoop, udp_replies_leave_from_the_address_that_was_asked) {
    start();
    for (const char* address : {"127.0.0.1", "127.0.0.2", "127.9.8.7"}) {
        UdpClient client = udpClient(address);
        ASSERT_EQ(client.exchange({.xid = 1}), accepted(1, 0));
        char text[INET_ADDRSTRLEN];
        inet_ntop(AF_INET, &client.sender.sin_addr, text, sizeof text);
        EXPECT_STREQ(text, address);
    }
}

TEST_F(ServiceLoop, a_flood_of_datagrams_does_not_keep_others_waiting) {
    start(1);
    std::atomic<bool> done{false};
    std::thread flood([&] {
        UdpClient client = udpClient();
        const std::string call = Call{.procedure = SILENT}.bytes();
        while (!done) {
            client.send(call);
        }
    });
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(tcpClient().exchange({.xid = 8}), accepted(8, 0));
    }
    done = true;
    flood.join();
}

TEST_F(ServiceLoop, calls_that_take_long_do_not_hold_up_those_behind_them) {
    start(4);
    UdpClient held = udpClient();
    for (std::uint32_t xid = 1; xid <= 3; ++xid) {
        held.send(Call{.xid = xid, .procedure = HELD}.bytes());
        UdpClient other = udpClient();
        for (std::uint32_t i = 0; i < 100; ++i) {
            ASSERT_EQ(other.exchange({.xid = i}), accepted(i, 0));
        }
    }
    EXPECT_EQ(gGate.waiting(), 3);
    gGate.open(true);
    std::set<std::string> replies;
    for (int i = 0; i < 3; ++i) {
        replies.insert(held.receive().value_or("none"));
    }
    EXPECT_EQ(replies, (std::set<std::string>{accepted(1, 0), accepted(2, 0), accepted(3, 0)}));
    expectService();
}

/// A thread receives several datagrams at once. One that takes long must hold up neither the
/// replies to those before it nor the calls behind it.
TEST_F(ServiceLoop, calls_that_take_long_do_not_hold_up_those_that_came_with_them) {
    constexpr std::uint32_t CALLS = 60;
    const std::set<std::uint32_t> long_ones{6, 20, 37};
    start(0);
    UdpClient client = udpClient();
    std::set<std::string> quick;
    std::set<std::string> late;
    for (std::uint32_t xid = 1; xid <= CALLS; ++xid) {
        const bool takesLong = long_ones.count(xid) != 0;
        client.send(Call{.xid = xid, .procedure = takesLong ? HELD : NOTHING}.bytes());
        (takesLong ? late : quick).insert(accepted(xid, 0));
    }
    listen(4);
    const auto receive = [&client](std::size_t count) {
        std::set<std::string> replies;
        for (std::size_t i = 0; i < count; ++i) {
            replies.insert(client.receive().value_or("none"));
        }
        return replies;
    };
    EXPECT_EQ(receive(quick.size()), quick);
    EXPECT_TRUE(test::eventually([&] { return gGate.waiting() == 3; }));
    gGate.open(true);
    EXPECT_EQ(receive(late.size()), late);
    EXPECT_EQ(client.receive(50ms), std::nullopt) << "each call has one reply";
    expectService();
}

// ---- TCP

TEST_F(ServiceLoop, tcp_calls_in_many_fragments) {
    start();
    TcpClient client = tcpClient();
    const std::string call =
        Call{.xid = 1, .procedure = ECHO_BYTES, .arguments = opaque("fragments")}.bytes();
    std::string stream = word(0);
    for (std::size_t at = 0; at < call.size(); at += 3) {
        stream += record(call.substr(at, 3), at + 3 >= call.size());
    }
    client.send(stream);
    EXPECT_EQ(client.receive(), accepted(1, 0, opaque("fragments")));
    for (const char byte : stream) {
        client.send(std::string(1, byte));
    }
    EXPECT_EQ(client.receive(), accepted(1, 0, opaque("fragments")));
}

TEST_F(ServiceLoop, tcp_calls_in_a_row_are_answered_in_order) {
    start(4);
    TcpClient client = tcpClient();
    constexpr std::uint32_t COUNT = 3000;
    std::string stream;
    for (std::uint32_t xid = 0; xid < COUNT; ++xid) {
        stream += record(Call{
            .xid = xid, .procedure = ECHO_BYTES, .arguments = opaque(std::string(xid % 50, 'x'))}
                             .bytes());
    }
    std::thread sender([&] { client.send(stream); });
    for (std::uint32_t xid = 0; xid < COUNT; ++xid) {
        ASSERT_EQ(client.receive(), accepted(xid, 0, opaque(std::string(xid % 50, 'x'))));
    }
    sender.join();
}

TEST_F(ServiceLoop, tcp_ignores_replies_and_silence) {
    start();
    TcpClient client = tcpClient();
    client.call({.xid = 1, .direction = 1});
    client.call({.xid = 2, .procedure = SILENT});
    EXPECT_EQ(client.exchange({.xid = 3}), accepted(3, 0));
}

TEST_F(ServiceLoop, tcp_closes_on_what_no_client_sends) {
    start();
    const std::vector<std::string> streams = {
        word(0x7fffffff) + "data",
        word(0xffffffff) + "data",
        word(0x80000000U | 65537) + "data",
        record("short"),
        record(""),
        record(Call{.credentials = word(0) + word(401) + std::string(404, 'x')}.bytes()),
        std::string(400, '\0'),
        "GET / HTTP/1.0\r\n\r\n",
    };
    for (const std::string& stream : streams) {
        TcpClient client = tcpClient();
        client.send(stream);
        EXPECT_TRUE(client.ended()) << testing::PrintToString(stream);
    }
    EXPECT_TRUE(test::eventually([this] { return loop->connections() == 0; }));
    expectService();
}

TEST_F(ServiceLoop, tcp_takes_a_call_as_large_as_the_limit) {
    start();
    TcpClient client = tcpClient();
    const std::string arguments = opaque(std::string(nis::CALL_RECORD_MAX - 44, 'x'));
    EXPECT_EQ(client.exchange({.xid = 1, .procedure = ECHO_BYTES, .arguments = arguments}),
              accepted(1, 0, arguments));
    client.call({.xid = 2, .procedure = ECHO_BYTES, .arguments = arguments + "more"});
    EXPECT_TRUE(client.ended());
}

TEST_F(ServiceLoop, tcp_replies_beyond_the_buffer_come_in_fragments) {
    start();
    TcpClient client = tcpClient();
    EXPECT_EQ(client.exchange({.xid = 1, .procedure = LARGE, .arguments = word(300'000)}),
              accepted(1, 0, opaque(std::string(300'000, 'L'))));
    EXPECT_EQ(client.fragments, 5U);
    EXPECT_EQ(client.exchange({.xid = 2, .procedure = LARGE, .arguments = word(100)}),
              accepted(2, 0, opaque(std::string(100, 'L'))));
    EXPECT_EQ(client.fragments, 1U);
}

TEST_F(ServiceLoop, tcp_a_reply_that_breaks_off_ends_the_connection) {
    start();
    TcpClient client = tcpClient();
    client.call({.xid = 1, .procedure = LYING, .arguments = word(100'000)});
    client.call({.xid = 2});
    EXPECT_EQ(client.receive(), std::nullopt);
}

TEST_F(ServiceLoop, tcp_half_closed_clients_get_their_reply) {
    start();
    TcpClient client = tcpClient();
    client.call({.xid = 1});
    shutdown(client.descriptor(), SHUT_WR);
    EXPECT_EQ(client.receive(), accepted(1, 0));
    EXPECT_TRUE(client.ended());
}

TEST_F(ServiceLoop, tcp_resets_are_survived) {
    start();
    for (int i = 0; i < 100; ++i) {
        TcpClient client = tcpClient();
        client.call({.procedure = LARGE, .arguments = word(500'000)});
        const linger reset{1, 0};
        setsockopt(client.descriptor(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    }
    expectService();
    EXPECT_TRUE(test::eventually([this] { return loop->connections() == 0; }));
}

// ---- clients that keep the server busy with nothing

TEST_F(ServiceLoop, half_senders_delay_nobody) {
    start();
    std::vector<TcpClient> clients;
    for (int i = 0; i < 200; ++i) {
        clients.push_back(tcpClient());
        clients.back().send(record(Call{}.bytes()).substr(0, 1 + static_cast<unsigned>(i) % 40));
    }
    expectService();
    for (TcpClient& client : clients) {
        client.close();
    }
    EXPECT_TRUE(test::eventually([this] { return loop->connections() == 0; }));
}

TEST_F(ServiceLoop, clients_that_come_one_after_the_other_and_leave) {
    start(4);
    for (std::uint32_t i = 0; i < 300; ++i) {
        ASSERT_EQ(tcpClient().exchange({.xid = i}), accepted(i, 0));
    }
    EXPECT_TRUE(test::eventually([&] { return loop->connections() == 0; }));
}

class Threads : public ServiceLoop, public testing::WithParamInterface<unsigned> {};

TEST_P(Threads, new_clients_that_say_nothing_delay_nobody) {
    start(GetParam());
    std::vector<TcpClient> silent;
    for (std::uint32_t i = 0; i < 20; ++i) {
        silent.push_back(tcpClient());
        ASSERT_EQ(tcpClient().exchange({.xid = i}), accepted(i, 0));
        ASSERT_EQ(udpClient().exchange({.xid = i}), accepted(i, 0));
    }
    for (TcpClient& client : silent) {
        ASSERT_EQ(client.exchange({.xid = 5}), accepted(5, 0));
    }
}

INSTANTIATE_TEST_SUITE_P(Counts, Threads, testing::Values(1U, 2U, 4U));

TEST_F(ServiceLoop, a_long_call_of_a_new_connection_keeps_nobody_from_connecting) {
    start(3);
    TcpClient held = tcpClient();
    held.call({.xid = 1, .procedure = HELD});
    ASSERT_TRUE(test::eventually([] { return gGate.waiting() == 1; }));
    for (std::uint32_t i = 10; i < 30; ++i) {
        ASSERT_EQ(tcpClient().exchange({.xid = i}), accepted(i, 0));
    }
    gGate.open(true);
    EXPECT_EQ(held.receive(), accepted(1, 0));
}

TEST_F(ServiceLoop, a_long_call_after_short_ones_keeps_nobody_from_connecting) {
    start(3);
    // The thread that has served the clients before keeps the listener when it begins the long one.
    for (std::uint32_t round = 1; round <= 20; ++round) {
        gGate.open(false);
        for (std::uint32_t i = 0; i < 20; ++i) {
            ASSERT_EQ(tcpClient().exchange({.xid = i}), accepted(i, 0));
        }
        TcpClient held = tcpClient();
        held.call({.xid = round, .procedure = HELD});
        ASSERT_EQ(tcpClient().exchange({.xid = 7}), accepted(7, 0));
        ASSERT_TRUE(test::eventually([] { return gGate.waiting() == 1; }));
        ASSERT_EQ(tcpClient().exchange({.xid = 8}), accepted(8, 0));
        gGate.open(true);
        ASSERT_EQ(held.receive(), accepted(round, 0));
    }
}

TEST_F(ServiceLoop, a_call_without_a_reply_after_short_ones_keeps_nobody_from_connecting) {
    start();
    for (std::uint32_t round = 1; round <= 20; ++round) {
        for (std::uint32_t i = 0; i < 5; ++i) {
            ASSERT_EQ(tcpClient().exchange({.xid = i}), accepted(i, 0));
        }
        TcpClient silent = tcpClient();
        silent.call({.procedure = SILENT});
        ASSERT_EQ(tcpClient().exchange({.xid = 7}), accepted(7, 0));
        ASSERT_EQ(silent.exchange({.xid = round}), accepted(round, 0));
    }
}

TEST_F(ServiceLoop, half_a_call_has_a_deadline) {
    limits.halfRecord = 100ms;
    start();
    TcpClient complete = tcpClient();
    EXPECT_EQ(complete.exchange({.xid = 1}), accepted(1, 0));
    TcpClient half = tcpClient();
    half.send(record(Call{}.bytes()).substr(0, 20));
    EXPECT_TRUE(half.ended());
    // one that trickles gets no more time
    TcpClient trickle = tcpClient();
    trickle.send(word(0x80000000U | 60000));
    ASSERT_TRUE(test::eventually([&] {
        trickle.send("x");
        return !trickle.quiet(10ms);
    }));
    EXPECT_TRUE(trickle.ended());
    EXPECT_EQ(complete.exchange({.xid = 2}), accepted(2, 0));
}

TEST_F(ServiceLoop, the_deadline_for_half_a_call_ends_with_the_call) {
    limits.halfRecord = 100ms;
    start();
    TcpClient client = tcpClient();
    const std::string call = record(Call{.xid = 1, .procedure = HELD}.bytes());
    client.send(call.substr(0, 20));
    client.send(call.substr(20));
    ASSERT_TRUE(test::eventually([] { return gGate.waiting() == 1; }));
    EXPECT_TRUE(client.quiet(300ms));
    gGate.open(true);
    EXPECT_EQ(client.receive(), accepted(1, 0));
}

TEST_F(ServiceLoop, idle_connections_have_a_deadline) {
    limits.idle = 100ms;
    start();
    TcpClient fresh = tcpClient();
    EXPECT_TRUE(fresh.ended());
    TcpClient used = tcpClient();
    EXPECT_EQ(used.exchange({.xid = 1}), accepted(1, 0));
    EXPECT_TRUE(used.ended());
    EXPECT_TRUE(test::eventually([this] { return loop->connections() == 0; }));
}

TEST_F(ServiceLoop, beyond_the_limit_the_longest_idle_connection_goes) {
    limits.connections = 10;
    start();
    std::vector<TcpClient> clients;
    for (std::uint32_t i = 0; i < 10; ++i) {
        clients.push_back(tcpClient());
        ASSERT_EQ(clients.back().exchange({.xid = i}), accepted(i, 0));
    }
    ASSERT_EQ(clients[0].exchange({.xid = 50}), accepted(50, 0)); // now the second is the oldest
    TcpClient next = tcpClient();
    ASSERT_EQ(next.exchange({.xid = 60}), accepted(60, 0));
    EXPECT_TRUE(clients[1].ended());
    EXPECT_EQ(clients[0].exchange({.xid = 70}), accepted(70, 0));
    EXPECT_EQ(clients[2].exchange({.xid = 71}), accepted(71, 0));
    EXPECT_TRUE(test::eventually([this] { return loop->connections() == 10; }));
}

TEST_F(ServiceLoop, many_more_connections_than_the_limit) {
    limits.connections = 10;
    start();
    std::vector<TcpClient> clients;
    for (int i = 0; i < 500; ++i) {
        clients.push_back(tcpClient());
    }
    expectService();
    EXPECT_TRUE(test::eventually([this] { return loop->connections() <= 10; }));
}

/// Takes all descriptors but a few, for as long as it lives.
class FewDescriptors {
public:
    explicit FewDescriptors(unsigned left) {
        getrlimit(RLIMIT_NOFILE, &m_before);
        rlimit few = m_before;
        const int next = dup(STDERR_FILENO);
        close(next);
        few.rlim_cur = static_cast<rlim_t>(next) + left;
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
    }
    ~FewDescriptors() { setrlimit(RLIMIT_NOFILE, &m_before); }

private:
    rlimit m_before{};
};

TEST_F(ServiceLoop, out_of_descriptors_the_service_goes_on) {
    limits.acceptRetry = 50ms;
    start();
    UdpClient datagrams = udpClient();
    ASSERT_EQ(datagrams.exchange({.xid = 1}), accepted(1, 0));
    std::vector<test::Socket> waiting;
    for (int i = 0; i < 30; ++i) {
        waiting.emplace_back(SOCK_STREAM);
    }
    {
        const FewDescriptors few(5);
        const sockaddr_in place = test::loopback(tcp.port());
        for (const test::Socket& socket : waiting) {
            ASSERT_EQ(connect(socket.descriptor(), reinterpret_cast<const sockaddr*>(&place),
                              sizeof place),
                      0);
        }
        EXPECT_EQ(datagrams.exchange({.xid = 2}), accepted(2, 0));
        // Older connections make room for those that wait.
        const std::string call = record(Call{.xid = 3}.bytes());
        const int last = waiting.back().descriptor();
        ASSERT_GT(::send(last, call.data(), call.size(), MSG_NOSIGNAL), 0);
        EXPECT_TRUE(waiting.back().readable(test::PATIENCE));
        std::string reply(28, '\0');
        EXPECT_EQ(recv(last, reply.data(), reply.size(), MSG_WAITALL), 28);
        EXPECT_EQ(reply, record(accepted(3, 0)));
    }
    waiting.clear();
    expectService();
}

TEST_F(ServiceLoop, with_no_descriptor_at_all_nothing_spins) {
    limits.acceptRetry = 200ms;
    start();
    UdpClient datagrams = udpClient();
    test::Socket waiting(SOCK_STREAM);
    const sockaddr_in place = test::loopback(tcp.port());
    {
        const FewDescriptors none(0);
        ASSERT_EQ(
            connect(waiting.descriptor(), reinterpret_cast<const sockaddr*>(&place), sizeof place),
            0);
        EXPECT_EQ(datagrams.exchange({.xid = 2}), accepted(2, 0));
        const double before = processorSeconds();
        std::this_thread::sleep_for(1s);
        EXPECT_LT(processorSeconds() - before, 0.5);
        EXPECT_EQ(loop->connections(), 0U);
    }
    EXPECT_TRUE(test::eventually([this] { return loop->connections() == 1; }));
    expectService();
}

// ---- clients that do not read

TEST_F(ServiceLoop, non_readers_delay_nobody) {
    limits.spares = 64;
    start();
    std::vector<TcpClient> clients;
    for (int i = 0; i < 20; ++i) {
        clients.push_back(nonReader());
    }
    // As many stand still as there are clients; others take their places.
    EXPECT_TRUE(test::eventually([this] { return loop->spareThreads() >= 20; }));
    expectService();
    const double before = processorSeconds();
    std::this_thread::sleep_for(1s);
    EXPECT_LT(processorSeconds() - before, 0.5) << "threads spin";
    expectService();
    EXPECT_TRUE(test::eventually([this] { return loop->connections() == 20; }));
}

TEST_F(ServiceLoop, a_slow_reader_gets_everything) {
    start();
    TcpClient client = tcpClient(4096);
    constexpr std::uint32_t COUNT = 1'000'000;
    client.call({.xid = 1, .procedure = STREAM, .arguments = word(COUNT)});
    ASSERT_TRUE(test::eventually([this] { return loop->spareThreads() >= 1; }));
    const std::optional<std::string> reply = client.receive();
    ASSERT_TRUE(reply);
    ASSERT_EQ(reply->size(), 24 + 4U * COUNT);
    bool inOrder = true;
    for (std::uint32_t i = 0; i < COUNT; i += 997) {
        inOrder = inOrder && reply->substr(24 + 4 * std::size_t{i}, 4) == word(i);
    }
    EXPECT_TRUE(inOrder);
    EXPECT_EQ(client.exchange({.xid = 2}), accepted(2, 0));
}

TEST_F(ServiceLoop, long_replies_under_way_do_not_hold_up_short_ones) {
    start(1);
    TcpClient client = tcpClient();
    client.call({.xid = 1, .procedure = STREAM, .arguments = word(10'000'000)});
    std::thread reader([&client] { EXPECT_EQ(client.receive().value_or("").size(), 40'000'024U); });
    EXPECT_TRUE(test::eventually([this] { return loop->spareThreads() == 1; }));
    expectService();
    reader.join();
}

TEST_F(ServiceLoop, spare_threads_are_used_again) {
    start(1);
    for (int round = 0; round < 5; ++round) {
        TcpClient client = tcpClient(4096);
        client.call({.xid = 1, .procedure = STREAM, .arguments = word(1'000'000)});
        ASSERT_TRUE(test::eventually([this] { return loop->spareThreads() >= 1; }));
        ASSERT_TRUE(client.receive());
        expectService();
    }
    EXPECT_LE(loop->spareThreads(), 2U);
}

TEST_F(ServiceLoop, at_the_limit_of_spares_the_longest_stalled_reply_goes) {
    limits.spares = 4;
    start(1);
    std::vector<TcpClient> clients;
    for (std::size_t i = 0; i < 4; ++i) {
        clients.push_back(nonReader());
        ASSERT_TRUE(test::eventually(
            [&] { return loop->spareThreads() == i + 1 && loop->stalledReplies() == i + 1; }));
    }
    expectService();
    ASSERT_TRUE(test::eventually([&] { return loop->connections() == 4; }));
    const int served = gServed;
    clients.push_back(nonReader());
    ASSERT_TRUE(test::eventually([&] { return gServed == served + 1; }));
    ASSERT_TRUE(test::eventually([&] { return loop->connections() == 4; }));
    expectService();
    EXPECT_EQ(loop->spareThreads(), 4U);
    // The first is gone, the newest goes on.
    EXPECT_FALSE(clients[0].receive().has_value());
    clients[0].close();
    for (std::size_t i = 1; i < clients.size(); ++i) {
        pollfd state{clients[i].descriptor(), 0, 0};
        EXPECT_EQ(poll(&state, 1, 0), 0) << i;
    }
    for (int i = 0; i < 30; ++i) {
        clients.push_back(nonReader());
    }
    expectService();
}

TEST_F(ServiceLoop, a_reply_without_progress_is_given_up) {
    limits.stall = 200ms;
    start(1);
    TcpClient client = nonReader();
    ASSERT_TRUE(test::eventually([this] { return loop->spareThreads() == 1; }));
    EXPECT_TRUE(test::eventually([this] { return loop->connections() == 0; }));
    expectService();
}

TEST_F(ServiceLoop, calls_without_reading_the_replies) {
    limits.stall = 200ms;
    start(1);
    TcpClient client = tcpClient(4096);
    for (int i = 0; i < 50; ++i) {
        client.call({.procedure = LARGE, .arguments = word(500'000)});
    }
    ASSERT_TRUE(test::eventually([this] { return loop->spareThreads() == 1; }));
    EXPECT_TRUE(test::eventually([this] { return loop->connections() == 0; }));
    expectService();
}

// ---- the end

TEST_F(ServiceLoop, stop_ends_threads_that_wait_that_stand_still_and_that_are_parked) {
    start(3);
    std::vector<TcpClient> clients;
    for (int i = 0; i < 5; ++i) {
        clients.push_back(nonReader());
    }
    ASSERT_TRUE(test::eventually([this] { return loop->spareThreads() >= 5; }));
    clients[0].close();
    clients[1].close();
    TcpClient idle = tcpClient();
    EXPECT_EQ(idle.exchange({.xid = 1}), accepted(1, 0));
    stop();
    EXPECT_TRUE(idle.ended());
}

TEST_F(ServiceLoop, stop_lets_a_call_being_executed_finish) {
    start(2);
    UdpClient client = udpClient();
    client.send(Call{.xid = 1, .procedure = HELD}.bytes());
    ASSERT_TRUE(test::eventually([] { return gGate.waiting() == 1; }));
    loop->stop();
    gGate.open(true);
    EXPECT_EQ(client.receive(), accepted(1, 0));
}

TEST_F(ServiceLoop, stop_before_any_thread_runs) {
    start(0);
    loop->stop();
    listeners.emplace_back().start("client-0", [this] { loop->run(); });
    listeners.clear();
}

TEST_F(ServiceLoop, no_connections_are_taken_after_stop_accepting) {
    start();
    TcpClient before = tcpClient();
    EXPECT_EQ(before.exchange({.xid = 1}), accepted(1, 0));
    loop->stopAccepting();
    TcpClient after = tcpClient(); // the kernel still completes it
    after.call({.xid = 2});
    EXPECT_EQ(before.exchange({.xid = 3}), accepted(3, 0));
    EXPECT_EQ(udpClient().exchange({.xid = 4}), accepted(4, 0));
    EXPECT_TRUE(after.quiet(50ms));
}

TEST_F(ServiceLoop, many_clients_on_many_threads) {
    start(4);
    std::vector<std::thread> clients;
    for (std::uint32_t n = 0; n < 4; ++n) {
        clients.emplace_back([this, n] {
            UdpClient datagrams = udpClient();
            for (std::uint32_t i = 0; i < 200; ++i) {
                const std::string text = opaque(std::to_string(n) + "/" + std::to_string(i));
                const Call call{.xid = i, .procedure = ECHO_BYTES, .arguments = text};
                EXPECT_EQ(datagrams.exchange(call), accepted(i, 0, text));
                TcpClient stream = tcpClient();
                EXPECT_EQ(stream.exchange(call), accepted(i, 0, text));
                EXPECT_EQ(stream.exchange(call), accepted(i, 0, text));
            }
        });
    }
    for (std::thread& client : clients) {
        client.join();
    }
    EXPECT_EQ(gServed, 4 * 200 * 3);
}

TEST(TransportLimits, connections_leave_descriptors_for_the_daemon) {
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const auto connections = [&before](rlim_t descriptors) {
        rlimit limit = before;
        limit.rlim_cur = descriptors;
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
        return nis::TransportLimits::connectionLimit();
    };
    EXPECT_EQ(connections(64), 32U);
    EXPECT_EQ(connections(600), 344U);
    if (before.rlim_max >= 4000) {
        EXPECT_EQ(connections(4000), 3000U);
    }
    nis::raiseDescriptorLimit();
    rlimit after{};
    getrlimit(RLIMIT_NOFILE, &after);
    EXPECT_EQ(after.rlim_cur, before.rlim_max);
    EXPECT_LE(nis::TransportLimits::connectionLimit(), 4096U);
    setrlimit(RLIMIT_NOFILE, &before);
}

} // namespace
