#include "daemon/Portmapper.h"

#include "daemon/Sockets.h"
#include "unit/daemon/DaemonTestSupport.h"
#include "unit/daemon/Rpcbind.h"
#include "yp/YpProtocol.h"

#include <gtest/gtest.h>
#include <rpc/pmap_clnt.h>

#include <chrono>
#include <memory>

#include <netinet/in.h>
#include <unistd.h>

namespace {

using test::LogCapture;

u_short registered(int protocol, rpcvers_t version = nis::YPVERS) {
    sockaddr_in place = test::loopback(0);
    return pmap_getport(&place, nis::YPPROG, version, static_cast<u_int>(protocol));
}

class Portmapper : public testing::Test {
protected:
    Portmapper() : rpcbind(std::make_unique<test::Rpcbind>()) {
        nis::gUdpPort = 0;
        nis::gTcpPort = 0;
        nis::PrepareSocket();
        nis::bindToReservedPort(nis::gUdpSocket);
        nis::bindToReservedPort(nis::gTcpSocket);
    }
    ~Portmapper() override {
        close(nis::gUdpSocket);
        close(nis::gTcpSocket);
        nis::gUdpSocket = -1;
        nis::gTcpSocket = -1;
        nis::gUdpPort = 0;
        nis::gTcpPort = 0;
    }

    static void registerBoth(unsigned udp, unsigned tcp) {
        EXPECT_TRUE(nis::registerService(IPPROTO_UDP, udp));
        EXPECT_TRUE(nis::registerService(IPPROTO_TCP, tcp));
    }
    static void registerOwn() {
        registerBoth(nis::boundPort(nis::gUdpSocket), nis::boundPort(nis::gTcpSocket));
    }
    static void expectOwn() {
        EXPECT_EQ(registered(IPPROTO_UDP), nis::boundPort(nis::gUdpSocket));
        EXPECT_EQ(registered(IPPROTO_TCP), nis::boundPort(nis::gTcpSocket));
    }

    std::unique_ptr<test::Rpcbind> rpcbind;
};

TEST_F(Portmapper, registers_and_unregisters) {
    registerOwn();
    expectOwn();
    nis::unregisterService();
    EXPECT_EQ(registered(IPPROTO_UDP), 0);
    EXPECT_EQ(registered(IPPROTO_TCP), 0);
    nis::unregisterService();
}

TEST_F(Portmapper, the_check_passes_on_reserved_ports) {
    registerBoth(800, 801);
    LogCapture log;
    nis::VerifyPorts();
    const std::string text = log.end();
    EXPECT_NE(text.find("UDP ypserv bound to port 800"), std::string::npos);
    EXPECT_NE(text.find("TCP ypserv bound to port 801"), std::string::npos);
}

TEST_F(Portmapper, other_ports_draw_a_warning_unless_configured) {
    registerBoth(5000, 5001);
    nis::gUdpPort = 5000;
    LogCapture log;
    nis::VerifyPorts();
    const std::string text = log.end();
    EXPECT_NE(text.find("Failed to bind TCP service to reserved port "
                        "(portmapper reports port 5001)"),
              std::string::npos);
    EXPECT_EQ(text.find("UDP"), std::string::npos);
}

TEST_F(Portmapper, a_server_of_version_1_is_only_a_warning) {
    registerOwn();
    ASSERT_EQ(pmap_set(nis::YPPROG, 1, IPPROTO_UDP, 700), TRUE);
    LogCapture log(tessa::LOG_WARN);
    nis::VerifyPorts();
    const std::string text = log.end();
    EXPECT_NE(text.find("Detected version 1 UDP ypserv on port 700. Please terminate other "
                        "ypserv."),
              std::string::npos);
    EXPECT_EQ(text.find("TCP"), std::string::npos);
    ASSERT_EQ(pmap_set(nis::YPPROG, 1, IPPROTO_TCP, 701), TRUE);
    LogCapture again(tessa::LOG_WARN);
    nis::VerifyPorts();
    EXPECT_TRUE(again.contains("Detected version 1 TCP ypserv on port 701."));
}

TEST_F(Portmapper, a_missing_registration_ends_the_process) {
    EXPECT_EXIT(nis::VerifyPorts(), testing::ExitedWithCode(6),
                "ypserv UDP is not registered with portmapper");
    ASSERT_TRUE(nis::registerService(IPPROTO_UDP, 800));
    EXPECT_EXIT(nis::VerifyPorts(), testing::ExitedWithCode(6),
                "ypserv TCP is not registered with portmapper");
}

TEST_F(Portmapper, no_portmapper_ends_the_process) {
    rpcbind.reset();
    EXPECT_EXIT(nis::VerifyPorts(), testing::ExitedWithCode(6),
                "Failed to retrieve portmapper maps: RPC: ");
}

TEST_F(Portmapper, another_port_for_the_same_service_is_refused) {
    ASSERT_TRUE(nis::registerService(IPPROTO_UDP, 800));
    EXPECT_FALSE(nis::registerService(IPPROTO_UDP, 900));
    EXPECT_STREQ(nis::rpcFailureText(), "refused by the portmapper");
    rpcbind.reset();
    EXPECT_FALSE(nis::registerService(IPPROTO_UDP, 800));
    EXPECT_STRNE(nis::rpcFailureText(), "refused by the portmapper");
}

TEST_F(Portmapper, a_restarted_portmapper_is_told_again) {
    registerOwn();
    LogCapture quiet(tessa::LOG_WARN);
    nis::restoreRegistrations();
    EXPECT_EQ(quiet.end(), "");
    rpcbind.reset();
    nis::restoreRegistrations(); // nobody there, nothing to say
    rpcbind = std::make_unique<test::Rpcbind>();
    ASSERT_EQ(registered(IPPROTO_UDP), 0);
    LogCapture log(tessa::LOG_WARN);
    nis::restoreRegistrations();
    const std::string text = log.end();
    EXPECT_NE(text.find("The portmapper has lost the UDP registration: registered again"),
              std::string::npos);
    EXPECT_NE(text.find("The portmapper has lost the TCP registration: registered again"),
              std::string::npos);
    expectOwn();
}

TEST_F(Portmapper, a_portmapper_that_hangs_does_not_hold_the_daemon_up) {
    registerOwn();
    rpcbind->freeze();
    const auto before = std::chrono::steady_clock::now();
    nis::restoreRegistrations();
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(20));
}

TEST_F(Portmapper, asked_often_it_looks_only_now_and_then) {
    registerOwn();
    nis::keepRegistered();
    nis::unregisterService();
    for (int i = 0; i < 100; ++i) {
        nis::keepRegistered();
    }
    EXPECT_EQ(registered(IPPROTO_UDP), 0);
}

} // namespace
