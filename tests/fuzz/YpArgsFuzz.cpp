// Arguments of a YP call: the first byte is the procedure, the second says whether the call is
// executed or only described, the rest are the arguments.
#include "unit/yp/TestServer.h"
#include "yp/Dispatcher.h"

#include <rpc/rpc.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

class MemoryTransport {
public:
    explicit MemoryTransport(std::vector<char> arguments) : m_arguments(std::move(arguments)) {
        xdrmem_create(&m_xdr, m_arguments.data(), static_cast<u_int>(m_arguments.size()),
                      XDR_DECODE);
        m_handle.xp_p1 = this;
        m_handle.xp_ops = &OPERATIONS;
    }
    SVCXPRT* handle() { return &m_handle; }
    int replies = 0;

private:
    static MemoryTransport& of(SVCXPRT* handle) {
        return *static_cast<MemoryTransport*>(handle->xp_p1);
    }
    static bool_t getArguments(SVCXPRT* handle, xdrproc_t routine, void* record) {
        return reinterpret_cast<bool_t (*)(XDR*, void*)>(routine)(&of(handle).m_xdr, record);
    }
    static bool_t freeArguments(SVCXPRT*, xdrproc_t routine, void* record) {
        XDR xdr{};
        xdr.x_op = XDR_FREE;
        return reinterpret_cast<bool_t (*)(XDR*, void*)>(routine)(&xdr, record);
    }
    static bool_t reply(SVCXPRT* handle, rpc_msg* message) {
        std::vector<char> buffer(8800);
        XDR xdr{};
        xdrmem_create(&xdr, buffer.data(), static_cast<u_int>(buffer.size()), XDR_ENCODE);
        const bool_t fits = xdr_replymsg(&xdr, message);
        of(handle).replies += fits == TRUE ? 1 : 0;
        return fits;
    }

    static const struct SVCXPRT::xp_ops OPERATIONS;
    std::vector<char> m_arguments;
    XDR m_xdr{};
    SVCXPRT m_handle{};
};

const struct SVCXPRT::xp_ops MemoryTransport::OPERATIONS = {nullptr, nullptr,       getArguments,
                                                            reply,   freeArguments, nullptr};

test::TestServer makeServer() {
    test::TestServer server;
    server.maps["hosts"] = {{"alpha", "10.0.0.1"}, {"beta", "10.0.0.2"}};
    server.maps["empty"] = {};
    return server;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const test::TestServer server = makeServer();
    if (size < 2) {
        return 0;
    }
    MemoryTransport transport(std::vector<char>(data + 2, data + size));
    svc_req request{};
    request.rq_proc = data[0];
    const bool execute = data[1] % 2 == 1;
    char description[512] = "<unknown";
    nis::serveYpCall(server, &request, transport.handle(), execute, description,
                     sizeof description);
    if (std::memchr(description, '\0', sizeof description) == nullptr ||
        transport.replies > (execute ? 1 : 0) || server.iteratorsAlive != 0) {
        std::abort();
    }
    return 0;
}
