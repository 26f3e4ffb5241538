#pragma once

#include <rpc/rpc.h>
#include <rpc/svc_mt.h>

#include <span>

#include <netinet/in.h>

namespace nis {

/// The RPC program that is served: calls for it, and for nothing else, reach the dispatch routine.
struct RpcProgram {
    rpcprog_t number;
    rpcvers_t version;
    void (*dispatch)(svc_req* request, SVCXPRT* transport);
};

/// What the RPC library knows as a transport, for the calls of one client: decodes a call's header,
/// answers what the program never gets to see (wrong version, program, credentials), hands the rest
/// to the dispatch routine and lets it decode arguments and reply. How a reply travels is up to the
/// derived class. One call and one thread at a time.
class CallTransport {
public:
    enum class Outcome {
        Served,  ///< a call; answered, or deliberately not
        Ignored, ///< not a call
        Garbage, ///< not an RPC message
    };

    virtual ~CallTransport() = default;
    CallTransport(const CallTransport&) = delete;
    CallTransport& operator=(const CallTransport&) = delete;

    Outcome serve(std::span<char> message);

protected:
    CallTransport(const RpcProgram& program, int socket);

    void setPeer(const sockaddr_in& peer);
    /// Encodes and sends one reply.
    /// @param committed set when part of it may have left, so that no other reply may follow
    virtual bool send(rpc_msg& reply, bool& committed) = 0;

private:
    static const struct SVCXPRT::xp_ops OPERATIONS;

    static CallTransport& of(SVCXPRT* transport);
    static bool_t getArguments(SVCXPRT* transport, xdrproc_t decode, void* arguments);
    static bool_t freeArguments(SVCXPRT* transport, xdrproc_t decode, void* arguments);
    static bool_t reply(SVCXPRT* transport, rpc_msg* message);

    bool decodeHeader(std::span<char> message, rpc_msg& call);
    void refuseRpcVersion();
    void dispatch(rpc_msg& call);

    const RpcProgram& m_program;
    SVCXPRT m_handle{};
    SVCXPRT_EXT m_extension{};
    XDR m_arguments{};
    u_int32_t m_xid = 0;
    bool m_replied = false;
    char m_replyVerifier[MAX_AUTH_BYTES] = {};
    char m_credentials[MAX_AUTH_BYTES] = {};
    char m_verifier[MAX_AUTH_BYTES] = {};
};

} // namespace nis
