#pragma once

#include <rpc/rpc.h>

namespace nis {

/// The dispatch routine of the YP program: lets a call in or drops it without a reply, counts the
/// calls being executed, and holds them back until there are maps. Thread-safe.
void invoke(svc_req* request, SVCXPRT* transport);

/// Gives the calls being executed 3 seconds to finish; to be called once the shutdown flag is set,
/// after which no others are let in.
void waitForActiveRequests();

} // namespace nis
