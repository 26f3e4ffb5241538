#include "common/NisException.h"
#include "server/NisServer.h"
#include "yp/Dispatcher.h"
#include "yp/YpProtocol.h"

#include <benchmark/benchmark.h>
#include <boost/make_shared.hpp>

#include <array>
#include <string>

#include <arpa/inet.h>

namespace {

/// A server that knows one answer: what is measured is the protocol around it.
class OneAnswer : public nis::NisServer {
public:
    bool isDomainSupported(const char*) const override { return true; }
    nis::MapEntry match(const char*, const char*, const std::string& key) const override {
        return {key, std::string(48, 'v')};
    }
    nis::MapEntry getFirst(const char*, const char*) const override { return {"key", "value"}; }
    nis::MapEntry getNext(const char*, const char*, const std::string&) const override {
        return {"key", "value"};
    }
    boost::shared_ptr<nis::MapIterator> getAll(const char*, const char* map) const override {
        NIS_THROW(nis::UnknownMap, map);
    }
    std::string getMaster(const char*, const char*) const override { return "bench"; }
    std::uint32_t getOrder(const char*, const char*) const override { return 1; }
    nis::MapNames getMapList(const char*) const override {
        return boost::make_shared<std::vector<std::string>>();
    }
};

/// Arguments from memory, the reply to memory.
class MemoryTransport {
public:
    explicit MemoryTransport(std::string arguments) : m_arguments(std::move(arguments)) {
        m_handle.xp_p1 = this;
        m_handle.xp_ops = &OPERATIONS;
    }
    SVCXPRT* handle() { return &m_handle; }

private:
    static MemoryTransport& of(SVCXPRT* handle) {
        return *static_cast<MemoryTransport*>(handle->xp_p1);
    }
    static bool_t getArguments(SVCXPRT* handle, xdrproc_t routine, void* record) {
        MemoryTransport& self = of(handle);
        XDR xdr{};
        xdrmem_create(&xdr, self.m_arguments.data(), static_cast<u_int>(self.m_arguments.size()),
                      XDR_DECODE);
        return routine(&xdr, record);
    }
    static bool_t freeArguments(SVCXPRT*, xdrproc_t routine, void* record) {
        XDR xdr{};
        xdr.x_op = XDR_FREE;
        return routine(&xdr, record);
    }
    static bool_t reply(SVCXPRT* handle, rpc_msg* message) {
        MemoryTransport& self = of(handle);
        XDR xdr{};
        xdrmem_create(&xdr, self.m_reply.data(), static_cast<u_int>(self.m_reply.size()),
                      XDR_ENCODE);
        return xdr_replymsg(&xdr, message);
    }
    static bool_t receive(SVCXPRT*, rpc_msg*) { return FALSE; }
    static xprt_stat status(SVCXPRT*) { return XPRT_IDLE; }
    static void destroy(SVCXPRT*) {}
    static constexpr struct SVCXPRT::xp_ops OPERATIONS = {receive, status,        getArguments,
                                                          reply,   freeArguments, destroy};

    std::string m_arguments;
    std::array<char, 8800> m_reply{};
    SVCXPRT m_handle{};
};

std::string opaque(const std::string& bytes) {
    const std::uint32_t length = htonl(static_cast<std::uint32_t>(bytes.size()));
    return std::string(reinterpret_cast<const char*>(&length), sizeof length) + bytes +
           std::string((4 - bytes.size() % 4) % 4, '\0');
}

void dispatchMatch(benchmark::State& state) {
    const OneAnswer server;
    MemoryTransport transport(opaque("example.com") + opaque("passwd.byname") + opaque("user"));
    svc_req request{};
    request.rq_proc = nis::YPPROC_MATCH;
    request.rq_xprt = transport.handle();
    for (auto _ : state) {
        nis::serveYpCall(server, &request, transport.handle(), true, nullptr, 0);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(dispatchMatch);

} // namespace
