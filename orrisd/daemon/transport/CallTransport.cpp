#include "daemon/transport/CallTransport.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

#include <arpa/inet.h>

namespace nis {

namespace {

/// The type that every argument routine really has; the library's own type leaves the parameters
/// open.
using XdrRoutine = bool_t (*)(XDR*, void*);

bool_t neverReceives(SVCXPRT*, rpc_msg*) {
    return FALSE;
}
xprt_stat alwaysIdle(SVCXPRT*) {
    return XPRT_IDLE;
}
void neverDestroyed(SVCXPRT*) {}

std::uint32_t wordAt(std::span<const char> message, std::size_t index) {
    std::uint32_t word = 0;
    std::memcpy(&word, message.data() + index * sizeof word, sizeof word);
    return ntohl(word);
}

/// Whether a body of AUTH_SYS credentials is in order: stamp, host name, user, group and groups.
bool isUnixCredentials(std::span<const char> body) {
    constexpr std::size_t WORD = sizeof(std::uint32_t);
    constexpr std::uint32_t LONGEST_HOST_NAME = 255;
    constexpr std::uint32_t MOST_GROUPS = 16;
    if (body.size() < 2 * WORD) {
        return false;
    }
    const std::uint32_t nameLength = wordAt(body, 1);
    const std::size_t nameWords = (std::size_t{nameLength} + WORD - 1) / WORD;
    const std::size_t countIndex = 2 + nameWords + 2;
    if (nameLength > LONGEST_HOST_NAME || body.size() < (countIndex + 1) * WORD) {
        return false;
    }
    const std::uint32_t groups = wordAt(body, countIndex);
    return groups <= MOST_GROUPS && body.size() >= (countIndex + 1 + groups) * WORD;
}

/// Nothing here depends on who a client says it is, so credentials need only be of a kind and form
/// that clients send. The library's own check prints to standard output and, given a body that is
/// not aligned, frees memory that it has not allocated.
auth_stat judge(const opaque_auth& credentials) {
    switch (credentials.oa_flavor) {
    case AUTH_NONE:
        return AUTH_OK;
    case AUTH_SYS:
        return isUnixCredentials({credentials.oa_base, credentials.oa_length}) ? AUTH_OK
                                                                               : AUTH_BADCRED;
    default:
        return AUTH_REJECTEDCRED;
    }
}

} // namespace

const struct SVCXPRT::xp_ops CallTransport::OPERATIONS = {
    neverReceives, alwaysIdle, getArguments, reply, freeArguments, neverDestroyed};

CallTransport::CallTransport(const RpcProgram& program, int socket) : m_program(program) {
    m_handle.xp_fd = socket;
    m_handle.xp_ops = &OPERATIONS;
    m_handle.xp_p1 = this;
    m_handle.xp_p3 = &m_extension;
    m_handle.xp_rtaddr.buf = &m_handle.xp_raddr;
    m_handle.xp_rtaddr.maxlen = sizeof m_handle.xp_raddr;
}

void CallTransport::setPeer(const sockaddr_in& peer) {
    std::memcpy(&m_handle.xp_raddr, &peer, sizeof peer);
    m_handle.xp_addrlen = sizeof peer;
    m_handle.xp_rtaddr.len = sizeof peer;
}

CallTransport& CallTransport::of(SVCXPRT* transport) {
    return *static_cast<CallTransport*>(transport->xp_p1);
}

bool_t CallTransport::getArguments(SVCXPRT* transport, xdrproc_t decode, void* arguments) {
    return reinterpret_cast<XdrRoutine>(decode)(&of(transport).m_arguments, arguments);
}

bool_t CallTransport::freeArguments(SVCXPRT*, xdrproc_t decode, void* arguments) {
    XDR xdr{};
    xdr.x_op = XDR_FREE;
    return reinterpret_cast<XdrRoutine>(decode)(&xdr, arguments);
}

bool_t CallTransport::reply(SVCXPRT* transport, rpc_msg* message) {
    CallTransport& self = of(transport);
    if (self.m_replied) {
        return FALSE;
    }
    message->rm_xid = self.m_xid;
    bool committed = false;
    const bool sent = self.send(*message, committed);
    self.m_replied = sent || committed;
    return sent ? TRUE : FALSE;
}

bool CallTransport::decodeHeader(std::span<char> message, rpc_msg& call) {
    call.rm_call.cb_cred.oa_base = m_credentials;
    call.rm_call.cb_verf.oa_base = m_verifier;
    xdrmem_create(&m_arguments, message.data(), static_cast<u_int>(message.size()), XDR_DECODE);
    return xdr_callmsg(&m_arguments, &call) == TRUE;
}

void CallTransport::refuseRpcVersion() {
    rpc_msg denial{};
    denial.rm_direction = REPLY;
    denial.rm_reply.rp_stat = MSG_DENIED;
    denial.rjcted_rply.rj_stat = RPC_MISMATCH;
    denial.rjcted_rply.rj_vers.low = RPC_MSG_VERSION;
    denial.rjcted_rply.rj_vers.high = RPC_MSG_VERSION;
    reply(&m_handle, &denial);
}

void CallTransport::dispatch(rpc_msg& call) {
    svc_req request{};
    request.rq_prog = call.rm_call.cb_prog;
    request.rq_vers = call.rm_call.cb_vers;
    request.rq_proc = call.rm_call.cb_proc;
    request.rq_cred = call.rm_call.cb_cred;
    request.rq_xprt = &m_handle;

    const auth_stat verdict = judge(call.rm_call.cb_cred);
    m_handle.xp_verf.oa_flavor = AUTH_NONE;
    m_handle.xp_verf.oa_base = m_replyVerifier;
    m_handle.xp_verf.oa_length = 0;
    if (verdict != AUTH_OK) {
        svcerr_auth(&m_handle, verdict);
    } else if (request.rq_prog != m_program.number) {
        svcerr_noprog(&m_handle);
    } else if (request.rq_vers != m_program.version) {
        svcerr_progvers(&m_handle, m_program.version, m_program.version);
    } else {
        m_program.dispatch(&request, &m_handle);
    }
}

CallTransport::Outcome CallTransport::serve(std::span<char> message) {
    // xid, direction and RPC version come first in every message.
    if (message.size() < 3 * sizeof(std::uint32_t)) {
        return Outcome::Garbage;
    }
    if (wordAt(message, 1) != CALL) {
        return Outcome::Ignored;
    }
    m_xid = wordAt(message, 0);
    m_replied = false;
    if (wordAt(message, 2) != RPC_MSG_VERSION) {
        refuseRpcVersion();
        return Outcome::Served;
    }
    rpc_msg call{};
    if (!decodeHeader(message, call)) {
        return Outcome::Garbage;
    }
    dispatch(call);
    return Outcome::Served;
}

} // namespace nis
