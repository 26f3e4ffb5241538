#include "yp/Dispatcher.h"

#include "unit/yp/TestServer.h"
#include "unit/yp/YpTestSupport.h"
#include "yp/YpXdr.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <arpa/inet.h>

namespace {

std::string word(std::uint32_t value) {
    const std::uint32_t net = htonl(value);
    return {reinterpret_cast<const char*>(&net), sizeof net};
}

std::string opaque(const std::string& bytes) {
    return word(static_cast<std::uint32_t>(bytes.size())) + bytes +
           std::string((4 - bytes.size() % 4) % 4, '\0');
}

/// A transport in memory: arguments come from a string, replies go to a list.
class MemoryTransport {
public:
    explicit MemoryTransport(std::string arguments, std::size_t room = 4096)
        : m_arguments(std::move(arguments)), m_room(room) {
        xdrmem_create(&m_xdr, m_arguments.data(), static_cast<u_int>(m_arguments.size()),
                      XDR_DECODE);
        m_handle.xp_p1 = this;
        m_handle.xp_ops = &OPERATIONS;
    }

    SVCXPRT* handle() { return &m_handle; }
    /// Bytes behind the xid of each reply.
    std::vector<std::string> replies;
    unsigned freed = 0;
    bool failToFree = false;

private:
    static MemoryTransport& of(SVCXPRT* handle) {
        return *static_cast<MemoryTransport*>(handle->xp_p1);
    }
    static bool_t getArguments(SVCXPRT* handle, xdrproc_t routine, void* record) {
        return routine(&of(handle).m_xdr, record);
    }
    static bool_t freeArguments(SVCXPRT* handle, xdrproc_t routine, void* record) {
        XDR xdr{};
        xdr.x_op = XDR_FREE;
        ++of(handle).freed;
        return routine(&xdr, record) && !of(handle).failToFree;
    }
    static bool_t reply(SVCXPRT* handle, rpc_msg* message) {
        std::vector<char> buffer(of(handle).m_room);
        XDR xdr{};
        xdrmem_create(&xdr, buffer.data(), static_cast<u_int>(buffer.size()), XDR_ENCODE);
        if (xdr_replymsg(&xdr, message) != TRUE) {
            return FALSE;
        }
        of(handle).replies.emplace_back(buffer.data() + 4, xdr_getpos(&xdr) - 4);
        return TRUE;
    }

    static const struct SVCXPRT::xp_ops OPERATIONS;
    std::string m_arguments;
    std::size_t m_room;
    XDR m_xdr{};
    SVCXPRT m_handle{};
};

const struct SVCXPRT::xp_ops MemoryTransport::OPERATIONS = {nullptr, nullptr,       getArguments,
                                                            reply,   freeArguments, nullptr};

/// REPLY, accepted, no verifier, and the status.
std::string accepted(std::uint32_t status) {
    return word(1) + word(0) + word(0) + word(0) + word(status);
}

class Dispatcher : public testing::Test {
protected:
    Dispatcher() { server.maps["hosts"] = {{"alpha", "10.0.0.1"}}; }

    std::vector<std::string> call(rpcproc_t procedure, const std::string& arguments,
                                  std::size_t room = 4096) {
        MemoryTransport transport(arguments, room);
        svc_req request{};
        request.rq_proc = procedure;
        nis::serveYpCall(server, &request, transport.handle(), true, nullptr, 0);
        return transport.replies;
    }

    std::string describe(rpcproc_t procedure, const std::string& arguments) {
        MemoryTransport transport(arguments);
        svc_req request{};
        request.rq_proc = procedure;
        char description[512] = "<unknown";
        nis::serveYpCall(server, &request, transport.handle(), false, description,
                         sizeof description);
        EXPECT_TRUE(transport.replies.empty());
        return description;
    }

    using Replies = std::vector<std::string>;
    const std::string domain = opaque("company");
    const std::string map = opaque("company") + opaque("hosts");
    test::TestServer server;
};

TEST_F(Dispatcher, every_procedure_replies) {
    EXPECT_EQ(call(0, ""), Replies{accepted(0)});
    EXPECT_EQ(call(1, domain), Replies{accepted(0) + word(1)});
    EXPECT_EQ(call(2, domain), Replies{accepted(0) + word(1)});
    EXPECT_EQ(call(3, map + opaque("alpha")), Replies{accepted(0) + word(1) + opaque("10.0.0.1")});
    EXPECT_EQ(call(4, map), Replies{accepted(0) + word(1) + opaque("10.0.0.1") + opaque("alpha")});
    EXPECT_EQ(call(5, map + opaque("alpha")), Replies{accepted(0) + word(2) + word(0) + word(0)});
    EXPECT_EQ(call(6, map + word(0) + opaque("p") + word(9) + word(1) + word(1)),
              Replies{accepted(0) + word(0) + word(0xfffffff2U)});
    EXPECT_EQ(call(7, ""), Replies{accepted(0)});
    EXPECT_EQ(call(8, map), Replies{accepted(0) + word(1) + word(1) + opaque("10.0.0.1") +
                                    opaque("alpha") + word(0)});
    EXPECT_EQ(call(9, map), Replies{accepted(0) + word(1) + opaque("master.example.com")});
    EXPECT_EQ(call(10, map), Replies{accepted(0) + word(1) + word(4'000'000'000U)});
    EXPECT_EQ(call(11, domain),
              Replies{accepted(0) + word(1) + word(1) + opaque("hosts") + word(0)});
    EXPECT_EQ(call(12, map + word(0) + opaque("p") + word(9) + word(1) + opaque("n")),
              Replies{accepted(0) + word(0) + word(0xfffffff2U)});
}

TEST_F(Dispatcher, a_foreign_domain_is_denied_or_ignored) {
    EXPECT_EQ(call(1, opaque("other")), Replies{accepted(0) + word(0)});
    EXPECT_EQ(call(2, opaque("other")), Replies{});
}

TEST_F(Dispatcher, procedure_13_is_unavailable) {
    EXPECT_EQ(call(13, ""), Replies{accepted(3)});
    EXPECT_EQ(call(0xffffffffU, ""), Replies{accepted(3)});
}

TEST_F(Dispatcher, arguments_that_do_not_decode) {
    EXPECT_EQ(call(3, map), Replies{accepted(4)});
    EXPECT_EQ(call(3, domain + word(0xffffffffU)), Replies{accepted(4)});
    EXPECT_EQ(call(4, ""), Replies{accepted(4)});
}

TEST_F(Dispatcher, a_reply_that_does_not_fit_is_a_system_error) {
    server.maps["hosts"]["large"] = std::string(5000, 'v');
    EXPECT_EQ(call(3, map + opaque("large")), Replies{accepted(5)});
}

TEST_F(Dispatcher, a_key_of_no_bytes_is_bad_arguments) {
    EXPECT_EQ(call(3, map + word(0)), Replies{accepted(0) + word(0xfffffff9U) + word(0)});
}

TEST_F(Dispatcher, describing_sends_nothing) {
    EXPECT_EQ(describe(3, map + opaque("alpha")), "ypMatch(domain=company, map=hosts, key=alpha)");
    EXPECT_EQ(describe(0, ""), "ypNull()");
    EXPECT_EQ(describe(11, domain), "ypGetMapList(domain=company)");
}

TEST_F(Dispatcher, what_cannot_be_described_stays_unknown) {
    EXPECT_EQ(describe(13, ""), "<unknown");
    EXPECT_EQ(describe(3, map), "<unknown");
}

TEST_F(Dispatcher, arguments_that_cannot_be_freed_are_reported) {
    MemoryTransport transport(domain);
    transport.failToFree = true;
    svc_req request{};
    request.rq_proc = 1;
    test::LogCapture log;
    nis::serveYpCall(server, &request, transport.handle(), true, nullptr, 0);
    EXPECT_NE(log.end().find("svc_freeargs failed: potential memory leak"), std::string::npos);
    EXPECT_EQ(transport.freed, 1U);
}

} // namespace
