#include "daemon/Sockets.h"

#include "unit/daemon/DaemonTestSupport.h"
#include "unit/daemon/RpcTestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using test::Configuration;
using test::LogCapture;

std::string boundAddress(int socket) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size);
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
    return text;
}

class Sockets : public testing::Test {
protected:
    ~Sockets() override { closeAll(); }

    static void closeAll() {
        for (int* socket : {&nis::gUdpSocket, &nis::gTcpSocket}) {
            if (*socket >= 0) {
                close(*socket);
                *socket = -1;
            }
        }
    }

    static std::string prepare(const std::string& text) {
        closeAll();
        const Configuration configuration(text);
        LogCapture log;
        nis::PrepareSocket();
        return log.end();
    }

    static void expectLogged(const std::string& log, const std::string& text) {
        EXPECT_NE(log.find(text), std::string::npos) << text << "\n" << log;
    }
};

TEST_F(Sockets, without_settings_they_stay_unbound_until_a_reserved_port_is_found) {
    const std::string log = prepare("");
    expectLogged(log, "TCP PORT: using random port number");
    expectLogged(log, "UDP PORT: using random port number");
    expectLogged(log, "socket address: using localhost address");
    for (const int socket : {nis::gUdpSocket, nis::gTcpSocket}) {
        EXPECT_EQ(nis::boundPort(socket), 0U);
        ASSERT_TRUE(nis::bindToReservedPort(socket));
        EXPECT_GT(nis::boundPort(socket), 0U);
        EXPECT_LT(nis::boundPort(socket), 1024U);
        EXPECT_EQ(boundAddress(socket), "0.0.0.0");
    }
}

TEST_F(Sockets, configured_ports_are_bound) {
    const std::string log = prepare("nisd.port.udp: 5000\nNISD.PORT.TCP: 834\n");
    expectLogged(log, "UDP PORT: 5000");
    expectLogged(log, "TCP PORT: 834");
    EXPECT_EQ(nis::gUdpPort, 5000U);
    EXPECT_EQ(nis::gTcpPort, 834U);
    EXPECT_EQ(nis::boundPort(nis::gUdpSocket), 5000U);
    EXPECT_EQ(nis::boundPort(nis::gTcpSocket), 834U);
    EXPECT_EQ(boundAddress(nis::gUdpSocket), "0.0.0.0");
    EXPECT_TRUE(nis::bindToReservedPort(nis::gUdpSocket));
    EXPECT_EQ(nis::boundPort(nis::gUdpSocket), 5000U);
}

TEST_F(Sockets, ports_of_zero_or_no_number_are_random) {
    const std::string log = prepare("nisd.port.udp: 0\nnisd.port.tcp: none\n");
    expectLogged(log, "UDP PORT: using random port number");
    expectLogged(log, "TCP PORT: using random port number");
    EXPECT_EQ(nis::gUdpPort, 0U);
    EXPECT_EQ(nis::gTcpPort, 0U);
}

TEST_F(Sockets, a_number_that_is_no_port_is_reported) {
    const std::string log = prepare("nisd.port.udp: 70000\n");
    expectLogged(log, "nisd.port.udp is set to invalid number: 70000");
    EXPECT_EQ(nis::boundPort(nis::gUdpSocket), 0U);
}

TEST_F(Sockets, a_configured_address_binds_both_sockets) {
    const std::string log = prepare("nisd.net_addr: 127.0.0.5\n");
    expectLogged(log, "socket address: 127.0.0.5");
    for (const int socket : {nis::gUdpSocket, nis::gTcpSocket}) {
        EXPECT_EQ(boundAddress(socket), "127.0.0.5");
        EXPECT_NE(nis::boundPort(socket), 0U);
    }
}

TEST_F(Sockets, an_address_that_does_not_parse_leaves_the_wildcard) {
    const std::string log = prepare("nisd.net_addr: nonsense\nnisd.port.udp: 5000\n");
    expectLogged(log, "bad socket address config nonsense");
    expectLogged(log, "socket address: using localhost address");
    EXPECT_EQ(boundAddress(nis::gUdpSocket), "0.0.0.0");
    EXPECT_EQ(nis::boundPort(nis::gUdpSocket), 5000U);
    EXPECT_EQ(nis::boundPort(nis::gTcpSocket), 0U);
}

TEST_F(Sockets, a_port_in_use_is_a_warning) {
    test::Socket tcp(SOCK_STREAM);
    tcp.bind(test::loopback(5001));
    ASSERT_EQ(listen(tcp.descriptor(), 1), 0);
    test::Socket udp(SOCK_DGRAM);
    udp.bind(test::loopback(5002));
    const std::string log =
        prepare("nisd.net_addr: 127.0.0.1\nnisd.port.tcp: 5001\nnisd.port.udp: 5002\n");
    expectLogged(log, "bind tcp ifc 7f000001 port 5001 failed: Address already in use");
    expectLogged(log, "bind udp ifc 7f000001 port 5002 failed: Address already in use");
    EXPECT_EQ(nis::boundPort(nis::gTcpSocket), 0U);
    EXPECT_EQ(nis::boundPort(nis::gUdpSocket), 0U);
}

void limitDescriptors(bool toStandardStreams) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = toStandardStreams ? 3 : limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

void prepareWithoutDescriptors() {
    // The leak check at the end of the process needs descriptors again.
    std::atexit([] { limitDescriptors(false); });
    limitDescriptors(true);
    nis::PrepareSocket();
}

TEST_F(Sockets, without_descriptors_the_process_ends) {
    EXPECT_EXIT(prepareWithoutDescriptors(), testing::ExitedWithCode(4),
                "RPC socket creation failed: Too many open files");
}

} // namespace
