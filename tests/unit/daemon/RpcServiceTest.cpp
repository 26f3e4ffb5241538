#include "daemon/RpcService.h"

#include "daemon/Portmapper.h"
#include "daemon/Sockets.h"
#include "server/ADNisServer.h"
#include "support/TempFolder.h"
#include "unit/daemon/DaemonTestSupport.h"
#include "unit/daemon/Rpcbind.h"

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include <unistd.h>

namespace {

using test::accepted;
using test::Configuration;
using test::LogCapture;

std::set<std::string> threadNames() {
    std::set<std::string> names;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::getline(std::ifstream(task.path() / "comm"), name);
        names.insert(name);
    }
    return names;
}

class RpcService : public testing::Test {
protected:
    RpcService() {
        nis::setNisServer(boost::make_shared<nis::ADNisServer>("company", false));
        nis::gInitialized = true;
    }
    ~RpcService() override {
        nis::setNisServer(nullptr);
        close(nis::gUdpSocket);
        close(nis::gTcpSocket);
        nis::gUdpSocket = -1;
        nis::gTcpSocket = -1;
    }

    static std::uint16_t port(int socket) {
        return static_cast<std::uint16_t>(nis::boundPort(socket));
    }

    test::CleanFlags flags;
    test::TempFolder folder;
};

TEST_F(RpcService, serves_and_is_registered) {
    const test::Rpcbind rpcbind;
    nis::PrepareSocket();
    LogCapture log;
    {
        nis::RpcService service;
        service.ensureThreads(2);
        service.waitUntilReady();
        nis::VerifyPorts();
        EXPECT_LT(port(nis::gUdpSocket), 1024);
        EXPECT_LT(port(nis::gTcpSocket), 1024);
        EXPECT_EQ(test::UdpClient(port(nis::gUdpSocket)).exchange({.xid = 5}), accepted(5, 0));
        EXPECT_EQ(test::TcpClient(port(nis::gTcpSocket)).exchange({.xid = 6}), accepted(6, 0));
        EXPECT_TRUE(test::eventually([] { return threadNames().contains("client-1"); }));
        service.stop();
    }
    nis::unregisterService();
    const std::string text = log.end();
    EXPECT_NE(text.find("RunServer: starting thread client-1"), std::string::npos);
    EXPECT_NE(text.find("Initializing RpcClient_main"), std::string::npos);
    EXPECT_NE(text.find("RPC listener thread terminating"), std::string::npos);
}

TEST_F(RpcService, more_threads_can_be_added_and_fewer_stop_none) {
    const test::Rpcbind rpcbind;
    nis::PrepareSocket();
    nis::RpcService service;
    service.ensureThreads(2);
    service.ensureThreads(1);
    service.ensureThreads(4);
    service.waitUntilReady();
    service.waitUntilReady();
    for (const char* name : {"client-0", "client-1", "client-2", "client-3"}) {
        EXPECT_TRUE(test::eventually([name] { return threadNames().contains(name); })) << name;
    }
    EXPECT_FALSE(threadNames().contains("client-4"));
    EXPECT_EQ(test::UdpClient(port(nis::gUdpSocket)).exchange({.xid = 5}), accepted(5, 0));
}

TEST_F(RpcService, without_a_portmapper_the_process_ends) {
    EXPECT_EXIT(
        {
            nis::PrepareSocket();
            nis::RpcService service;
            service.ensureThreads(1);
            service.waitUntilReady();
        },
        testing::ExitedWithCode(4), "RPC registration of \\(YPPROG, YPVERS, udp\\) failed: RPC: ");
}

TEST_F(RpcService, a_socket_that_cannot_serve_ends_the_process) {
    const test::Rpcbind rpcbind;
    EXPECT_EXIT(
        {
            nis::PrepareSocket();
            nis::gUdpSocket = -1;
            nis::RpcService service;
            service.ensureThreads(1);
            service.waitUntilReady();
        },
        testing::ExitedWithCode(4), "udp service creation failed: Bad file descriptor");
    EXPECT_EXIT(
        {
            nis::PrepareSocket();
            nis::gTcpSocket = -1;
            nis::RpcService service;
            service.ensureThreads(1);
            service.waitUntilReady();
        },
        testing::ExitedWithCode(4), "tcp service creation failed: Bad file descriptor");
}

TEST_F(RpcService, number_of_threads) {
    struct Case {
        const char* setting;
        int threads;
        const char* warning;
    };
    const Case cases[] = {
        {"", 4, nullptr},
        {"nisd.threads:", 4, nullptr},
        {"nisd.threads: 7", 7, nullptr},
        {"nisd.threads: 0", 4,
         "nisd.threads is set to invalid number: 0, should be restored to default: 4"},
        {"nisd.threads: -3", 4,
         "nisd.threads is set to invalid number: -3, should be restored to default: 4"},
        {"nisd.threads: many", 4,
         "nisd.threads is set to invalid number: 0, should be restored to default: 4"},
    };
    for (const Case& example : cases) {
        const Configuration configuration(example.setting);
        LogCapture log;
        EXPECT_EQ(nis::listenerThreads(), example.threads) << example.setting;
        const std::string text = log.end();
        EXPECT_NE(text.find("RunServer: nisd.threads=" + std::to_string(example.threads)),
                  std::string::npos);
        if (example.warning != nullptr) {
            EXPECT_NE(text.find(example.warning), std::string::npos) << text;
        } else {
            EXPECT_EQ(text.find("invalid"), std::string::npos) << text;
        }
    }
}

} // namespace
