#include "daemon/RunServer.h"

#include "common/ConfigKeys.h"
#include "common/Globals.h"
#include "common/SafeName.h"
#include "daemon/Portmapper.h"
#include "daemon/RequestGate.h"
#include "daemon/RpcService.h"
#include "daemon/Sockets.h"
#include "daemon/SystemdNotify.h"
#include "daemon/UpdateLoop.h"
#include "daemon/transport/TransportLimits.h"
#include "directory/ADInterface.h"
#include "server/ADNisServer.h"

#include <karst/Thread.h>

#include <boost/make_shared.hpp>

#include <csignal>
#include <string>

#include <unistd.h>

namespace nis {

namespace {

void installSignalHandlers() {
    tessa::installSignalHandler(SIGPIPE, SIG_IGN);
    tessa::installSignalHandler(SIGTERM, InitiateShutdown);
    tessa::installSignalHandler(SIGINT, InitiateShutdown);
    tessa::installSignalHandler(SIGHUP, InitiateReconfigure);
    tessa::installSignalHandler(SIGUSR1, InitiateRebuildMap);
    tessa::installSignalHandler(SIGUSR2, InitiateRefreshMap);
}

std::string learnDomain() {
    std::string domain = ADInterface::getNisDomain();
    KARST_LOG(logger, tessa::LOG_INFORMATION, "NIS domain is '%s'", domain.c_str());
    if (!isSafeFileNamePart(domain)) {
        // Cache files carry the domain in their names.
        KARST_LOG(logger, tessa::LOG_FAILURE, "The NIS domain '%s' cannot be part of a file name",
                  domain.c_str());
        terminate(EXIT_QUORAD);
    }
    return domain;
}

void createServer(const std::string& domain, bool flush) {
    const auto directory = boost::make_shared<ADInterface>();
    directory->updateZoneHierarchy();
    setADInterface(directory);
    const auto server = boost::make_shared<ADNisServer>(domain, flush);
    setNisServer(server);
    const MapNames maps = server->getMapList(domain.c_str());
    // Caches that were never brought up to date would answer that maps do not exist.
    if (maps && !maps->empty() && server->getLastUpdateTime() != 0) {
        gInitialized = true;
    } else {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "NIS no cached maps");
    }
}

void serve(RpcService& service) {
    do {
        service.ensureThreads(listenerThreads());
        service.waitUntilReady();
        KARST_LOG(logger, tessa::LOG_INFORMATION, "Ready.");
        notifySupervisor("READY=1");
    } while (UpdateLoop() == LoopEnd::Reconfigured);
}

void shutDown(RpcService& service) {
    KARST_LOG(logger, tessa::LOG_INFORMATION, "Shutting down ...");
    notifySupervisor("STOPPING=1");
    service.stopAccepting();
    waitForActiveRequests();
    unregisterService();
    service.stop();
    setNisServer(nullptr);
    setADInterface(nullptr);
}

void closeSocket(int& socket) {
    close(socket);
    socket = -1;
}

} // namespace

int RunServer(bool flush) {
    installSignalHandlers();
    raiseDescriptorLimit();
    createServer(learnDomain(), flush);
    unregisterService();
    PrepareSocket();
    {
        RpcService service;
        serve(service);
        shutDown(service);
    }
    closeSocket(gUdpSocket);
    closeSocket(gTcpSocket);
    return EXIT_OK;
}

} // namespace nis
