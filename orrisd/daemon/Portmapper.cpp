#include "daemon/Portmapper.h"

#include "common/Globals.h"
#include "daemon/Sockets.h"
#include "yp/YpProtocol.h"

#include <rpc/pmap_clnt.h>
#include <rpc/pmap_prot.h>
#include <rpc/rpc.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <optional>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace nis {

namespace {

constexpr unsigned FIRST_UNRESERVED_PORT = 1024;
constexpr std::chrono::seconds CHECK_INTERVAL{15};
constexpr timeval ANSWER_RETRY{0, 500'000};
constexpr timeval ANSWER_LIMIT{1, 0};

struct Protocol {
    int number;
    const char* name;
    const unsigned& configuredPort;
    const int& socket;
};

const Protocol PROTOCOLS[] = {{IPPROTO_UDP, "UDP", gUdpPort, gUdpSocket},
                              {IPPROTO_TCP, "TCP", gTcpPort, gTcpSocket}};

struct FreeMappings {
    void operator()(pmaplist* list) const {
        xdr_free(reinterpret_cast<xdrproc_t>(xdr_pmaplist), &list);
    }
};
using Mappings = std::unique_ptr<pmaplist, FreeMappings>;

sockaddr_in portmapperAddress() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(PMAPPORT);
    if (inet_pton(AF_INET, "127.0.0.1", &address.sin_addr) != 1) {
        KARST_LOG(logger, tessa::LOG_FAILURE, "Failed to convert 127.0.0.1");
        std::fputs("Failed to convert 127.0.0.1\n", stderr);
        terminate(EXIT_RPC);
    }
    return address;
}

const pmap* find(const pmaplist* list, rpcvers_t version, int protocol) {
    for (; list != nullptr; list = list->pml_next) {
        const pmap& mapping = list->pml_map;
        if (mapping.pm_prog == YPPROG && mapping.pm_vers == version &&
            mapping.pm_prot == static_cast<long unsigned>(protocol)) {
            return &mapping;
        }
    }
    return nullptr;
}

void verifyOwn(const pmaplist* list, const Protocol& protocol) {
    const pmap* mapping = find(list, YPVERS, protocol.number);
    if (mapping == nullptr) {
        KARST_LOG(logger, tessa::LOG_FAILURE, "ypserv %s is not registered with portmapper",
                  protocol.name);
        terminate(EXIT_RPC);
    }
    const int port = static_cast<int>(mapping->pm_port);
    if (mapping->pm_port < FIRST_UNRESERVED_PORT) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "%s ypserv bound to port %d", protocol.name, port);
    } else if (protocol.configuredPort == 0) {
        KARST_LOG(logger, tessa::LOG_WARN,
                  "Failed to bind %s service to reserved port (portmapper reports port %d)",
                  protocol.name, port);
    }
}

void warnOfOther(const pmaplist* list, const Protocol& protocol) {
    if (const pmap* mapping = find(list, YPOLDVERS, protocol.number)) {
        KARST_LOG(logger, tessa::LOG_WARN,
                  "Detected version %d %s ypserv on port %d. Please terminate other ypserv.",
                  static_cast<int>(YPOLDVERS), protocol.name, static_cast<int>(mapping->pm_port));
    }
}

/// The port that the portmapper tells clients, 0 for none; nothing when it does not answer at once.
std::optional<unsigned> registeredPort(int protocol) {
    sockaddr_in address = portmapperAddress();
    int socket = RPC_ANYSOCK;
    CLIENT* client = clntudp_create(&address, PMAPPROG, PMAPVERS, ANSWER_RETRY, &socket);
    if (client == nullptr) {
        return std::nullopt;
    }
    pmap question{YPPROG, YPVERS, static_cast<long unsigned>(protocol), 0};
    u_short port = 0;
    const clnt_stat result =
        clnt_call(client, PMAPPROC_GETPORT, reinterpret_cast<xdrproc_t>(xdr_pmap),
                  reinterpret_cast<caddr_t>(&question), reinterpret_cast<xdrproc_t>(xdr_u_short),
                  reinterpret_cast<caddr_t>(&port), ANSWER_LIMIT);
    clnt_destroy(client);
    return result == RPC_SUCCESS ? std::optional<unsigned>(port) : std::nullopt;
}

void restoreRegistration(const Protocol& protocol) {
    const unsigned own = boundPort(protocol.socket);
    const std::optional<unsigned> registered = registeredPort(protocol.number);
    if (own == 0 || !registered || *registered != 0) {
        return;
    }
    const bool again = registerService(protocol.number, own);
    KARST_LOG(logger, tessa::LOG_WARN, "The portmapper has lost the %s registration: %s",
              protocol.name, again ? "registered again" : rpcFailureText());
}

} // namespace

const char* rpcFailureText() {
    const clnt_stat status = rpc_createerr.cf_stat;
    return status == RPC_SUCCESS ? "refused by the portmapper" : clnt_sperrno(status);
}

bool registerService(int protocol, unsigned port) {
    rpc_createerr.cf_stat = RPC_SUCCESS;
    return pmap_set(YPPROG, YPVERS, protocol, static_cast<int>(port)) == TRUE;
}

void unregisterService() {
    pmap_unset(YPPROG, YPVERS);
}

void VerifyPorts() {
    sockaddr_in address = portmapperAddress();
    rpc_createerr.cf_stat = RPC_SUCCESS;
    const Mappings mappings(pmap_getmaps(&address));
    if (!mappings) {
        KARST_LOG(logger, tessa::LOG_FAILURE, "Failed to retrieve portmapper maps: %s",
                  rpcFailureText());
        terminate(EXIT_RPC);
    }
    for (const Protocol& protocol : PROTOCOLS) {
        verifyOwn(mappings.get(), protocol);
    }
    for (const Protocol& protocol : PROTOCOLS) {
        warnOfOther(mappings.get(), protocol);
    }
}

void keepRegistered() {
    using Clock = std::chrono::steady_clock;
    static std::optional<Clock::time_point> nextCheck;
    const Clock::time_point now = Clock::now();
    if (nextCheck && now < *nextCheck) {
        return;
    }
    nextCheck = now + CHECK_INTERVAL;
    restoreRegistrations();
}

void restoreRegistrations() {
    for (const Protocol& protocol : PROTOCOLS) {
        restoreRegistration(protocol);
    }
}

} // namespace nis
