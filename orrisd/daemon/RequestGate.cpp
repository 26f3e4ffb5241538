#include "daemon/RequestGate.h"

#include "common/Globals.h"
#include "common/UpdatePace.h"
#include "daemon/Waiting.h"
#include "server/ADNisServer.h"
#include "yp/Dispatcher.h"
#include "yp/YpDescribe.h"

#include <chrono>
#include <cstring>

#include <arpa/inet.h>
#include <netinet/in.h>

namespace nis {

namespace {

constexpr std::chrono::seconds SHUTDOWN_WAIT{3};

struct AddressText {
    explicit AddressText(in_addr address) { inet_ntop(AF_INET, &address, text, sizeof text); }
    char text[INET_ADDRSTRLEN] = "";
};

in_addr callerOf(const SVCXPRT* transport) {
    sockaddr_in caller{};
    std::memcpy(&caller, &transport->xp_raddr, sizeof caller);
    return caller.sin_addr;
}

void dropUnauthorized(svc_req* request, SVCXPRT* transport, in_addr caller) {
    char description[DESCRIPTION_SIZE] = "<unknown";
    ypprog_2(request, transport, false, description, sizeof description);
    KARST_LOG(logger, tessa::LOG_WARN, "Dropping call from unauthorized address %s: %s",
              AddressText(caller).text, description);
}

/// @return false during shutdown
bool enter() {
    tessa::Lock lock(gActiveRequestsProtect);
    if (gShutdownNow) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING,
                  "Dropping call during shutdown (%d requests in progress)", gActiveRequests);
        return false;
    }
    ++gActiveRequests;
    return true;
}

void leave() {
    tessa::Lock lock(gActiveRequestsProtect);
    --gActiveRequests;
    if (!gShutdownNow) {
        return;
    }
    if (gActiveRequests > 0) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "Shutdown waiting for %d requests in progress",
                  gActiveRequests);
    } else {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "All requests complete. Shutdown completing.");
        gActiveRequestsProtect.notifyAll();
    }
}

} // namespace

void invoke(svc_req* request, SVCXPRT* transport) {
    const in_addr caller = callerOf(transport);
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "Received call from %s", AddressText(caller).text);
    const boost::shared_ptr<ADNisServer> server = getNisServer();
    if (!server) {
        return; // the daemon is going down
    }
    if (!server->allowedSubnet(caller.s_addr)) {
        dropUnauthorized(request, transport, caller);
        return;
    }
    if (!enter()) {
        return;
    }
    if (!gInitialized) {
        pollUntil(initializedBy, true);
    }
    ypprog_2(request, transport);
    UpdatePace::answered();
    leave();
}

void waitForActiveRequests() {
    tessa::Lock lock(gActiveRequestsProtect);
    if (gActiveRequests <= 0) {
        return;
    }
    KARST_LOG(logger, tessa::LOG_INFORMATION, "Waiting for pending transactions to finish...");
    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline = Clock::now() + SHUTDOWN_WAIT;
    while (gActiveRequests > 0 && Clock::now() < deadline) {
        gActiveRequestsProtect.wait(
            std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()));
    }
    if (gActiveRequests > 0) {
        KARST_LOG(logger, tessa::LOG_WARN,
                  "Waited %d seconds but pending transactions did not finish.",
                  static_cast<int>(SHUTDOWN_WAIT.count()));
    }
}

} // namespace nis
