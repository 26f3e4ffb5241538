#pragma once

#include <rpc/rpc.h>

#include <cstddef>

namespace nis {

class NisServer;

/// Serves one call of the YP program: decodes its arguments, runs the procedure, replies, and frees
/// what was decoded and produced. Calls that are no call of the protocol get the RPC library's
/// error replies. Never throws; thread-safe.
/// @param execute when clear, the call is only described; nothing at all is sent
/// @param description the call as a text, when execute is clear; left alone where the call cannot
///                    be decoded
/// @param length bytes of the description buffer
void serveYpCall(const NisServer& server, svc_req* request, SVCXPRT* transport, bool execute,
                 char* description, std::size_t length);

/// The same with the daemon's server. Without one (the daemon is shutting down) there is no reply.
void ypprog_2(svc_req* request, SVCXPRT* transport, bool execute = true,
              char* description = nullptr, std::size_t length = 0);

/// Frees what a handler attached to its response, and releases this thread's map iterator.
/// @return whether the protocol's routine could free it
bool ypprog_2_freeresult(SVCXPRT* transport, xdrproc_t encode, void* result);

} // namespace nis
