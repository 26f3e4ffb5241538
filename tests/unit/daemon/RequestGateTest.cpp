#include "daemon/RequestGate.h"

#include "server/ADNisServer.h"
#include "support/TempFolder.h"
#include "unit/daemon/DaemonTestSupport.h"
#include "unit/daemon/RpcTestSupport.h"

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

namespace {

using test::LogCapture;
using test::opaque;

/// A call in memory, from any address; counts the replies.
class MemoryCall {
public:
    MemoryCall(rpcproc_t procedure, std::string arguments, const char* caller)
        : m_arguments(std::move(arguments)) {
        m_request.rq_proc = procedure;
        const sockaddr_in address = test::loopback(1000, caller);
        std::memcpy(&m_handle.xp_raddr, &address, sizeof address);
        m_handle.xp_p1 = this;
        m_handle.xp_ops = &OPERATIONS;
    }

    void invoke() {
        xdrmem_create(&m_xdr, m_arguments.data(), static_cast<u_int>(m_arguments.size()),
                      XDR_DECODE);
        nis::invoke(&m_request, &m_handle);
    }
    int replies() const { return m_replies; }

private:
    static MemoryCall& of(SVCXPRT* handle) { return *static_cast<MemoryCall*>(handle->xp_p1); }
    static bool_t getArguments(SVCXPRT* handle, xdrproc_t routine, void* record) {
        return routine(&of(handle).m_xdr, record);
    }
    static bool_t freeArguments(SVCXPRT*, xdrproc_t routine, void* record) {
        XDR xdr{};
        xdr.x_op = XDR_FREE;
        return routine(&xdr, record);
    }
    static bool_t reply(SVCXPRT* handle, rpc_msg*) {
        ++of(handle).m_replies;
        return TRUE;
    }

    static const struct SVCXPRT::xp_ops OPERATIONS;
    std::string m_arguments;
    svc_req m_request{};
    SVCXPRT m_handle{};
    XDR m_xdr{};
    int m_replies = 0;
};

const struct SVCXPRT::xp_ops MemoryCall::OPERATIONS = {nullptr, nullptr,       getArguments,
                                                       reply,   freeArguments, nullptr};

constexpr const char* STRANGER = "192.0.2.1";
constexpr const char* LOCAL = "127.0.0.1";

int activeRequests() {
    tessa::Lock lock(nis::gActiveRequestsProtect);
    return nis::gActiveRequests;
}

class RequestGate : public testing::Test {
protected:
    RequestGate() { nis::setNisServer(boost::make_shared<nis::ADNisServer>("company", false)); }
    ~RequestGate() override {
        EXPECT_EQ(activeRequests(), 0);
        nis::setNisServer(nullptr);
    }

    static MemoryCall match(const char* caller) {
        return {3, opaque("company") + opaque("hosts") + opaque("alpha"), caller};
    }

    test::CleanFlags flags;
    test::TempFolder folder;
};

TEST_F(RequestGate, calls_from_secure_nets_are_answered) {
    nis::gInitialized = true;
    LogCapture log;
    MemoryCall call = match(LOCAL);
    call.invoke();
    EXPECT_EQ(call.replies(), 1);
    EXPECT_TRUE(log.contains("Received call from 127.0.0.1"));
}

TEST_F(RequestGate, strangers_get_no_reply_and_the_log_names_the_procedure) {
    nis::gInitialized = true;
    LogCapture log(tessa::LOG_WARN);
    MemoryCall call = match(STRANGER);
    call.invoke();
    EXPECT_EQ(call.replies(), 0);
    EXPECT_TRUE(log.contains("Dropping call from unauthorized address 192.0.2.1: "
                             "ypMatch(domain=company, map=hosts, key=alpha)"));
}

TEST_F(RequestGate, strangers_get_no_error_reply_either) {
    nis::gInitialized = true;
    LogCapture log(tessa::LOG_WARN);
    MemoryCall unknown(13, "", STRANGER);
    unknown.invoke();
    MemoryCall garbage(3, "garbage", STRANGER);
    garbage.invoke();
    EXPECT_EQ(unknown.replies(), 0);
    EXPECT_EQ(garbage.replies(), 0);
    EXPECT_TRUE(log.contains("Dropping call from unauthorized address 192.0.2.1: <unknown"));
}

TEST_F(RequestGate, strangers_are_dropped_during_start_up_as_well) {
    nis::initializedBy = std::time(nullptr) + 1000;
    MemoryCall call = match(STRANGER);
    call.invoke();
    EXPECT_EQ(call.replies(), 0);
}

TEST_F(RequestGate, during_shutdown_new_calls_get_no_reply) {
    nis::gInitialized = true;
    nis::gShutdownNow = true;
    LogCapture log;
    MemoryCall call = match(LOCAL);
    call.invoke();
    EXPECT_EQ(call.replies(), 0);
    EXPECT_TRUE(log.contains("Dropping call during shutdown (0 requests in progress)"));
}

TEST_F(RequestGate, without_a_server_there_is_no_reply) {
    nis::setNisServer(nullptr);
    nis::gInitialized = true;
    MemoryCall call = match(LOCAL);
    call.invoke();
    EXPECT_EQ(call.replies(), 0);
}

TEST_F(RequestGate, calls_wait_until_there_are_maps) {
    nis::initializedBy = std::time(nullptr) + 1000;
    MemoryCall call = match(LOCAL);
    std::thread listener([&call] { call.invoke(); });
    EXPECT_TRUE(test::eventually([] { return activeRequests() == 1; }));
    EXPECT_EQ(call.replies(), 0);
    nis::gInitialized = true;
    listener.join();
    EXPECT_EQ(call.replies(), 1);
}

TEST_F(RequestGate, calls_wait_no_longer_than_start_up_may_take) {
    nis::initializedBy = std::time(nullptr) + 1;
    MemoryCall call = match(LOCAL);
    call.invoke();
    EXPECT_EQ(call.replies(), 1);
}

TEST_F(RequestGate, shutdown_lets_calls_in_progress_finish) {
    nis::initializedBy = std::time(nullptr) + 1000;
    std::vector<std::thread> listeners;
    LogCapture log;
    for (int i = 0; i < 3; ++i) {
        listeners.emplace_back([] { MemoryCall(0, "", LOCAL).invoke(); });
    }
    EXPECT_TRUE(test::eventually([] { return activeRequests() == 3; }));
    nis::gShutdownNow = true;
    nis::waitForActiveRequests();
    for (std::thread& listener : listeners) {
        listener.join();
    }
    const std::string text = log.end();
    EXPECT_NE(text.find("Waiting for pending transactions to finish..."), std::string::npos);
    EXPECT_NE(text.find("Shutdown waiting for 1 requests in progress"), std::string::npos);
    EXPECT_NE(text.find("All requests complete. Shutdown completing."), std::string::npos);
    EXPECT_EQ(text.find("did not finish"), std::string::npos);
}

TEST_F(RequestGate, shutdown_waits_for_nobody_when_there_is_nobody) {
    LogCapture log;
    nis::waitForActiveRequests();
    EXPECT_EQ(log.end(), "");
}

TEST_F(RequestGate, shutdown_waits_three_seconds_at_most) {
    {
        tessa::Lock lock(nis::gActiveRequestsProtect);
        nis::gActiveRequests = 1;
    }
    const auto before = std::chrono::steady_clock::now();
    LogCapture log;
    nis::waitForActiveRequests();
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::seconds(3));
    EXPECT_TRUE(log.contains("Waited 3 seconds but pending transactions did not finish."));
    tessa::Lock lock(nis::gActiveRequestsProtect);
    nis::gActiveRequests = 0;
}

} // namespace
