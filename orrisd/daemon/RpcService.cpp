#include "daemon/RpcService.h"

#include "common/ConfigKeys.h"
#include "common/Globals.h"
#include "daemon/Portmapper.h"
#include "daemon/RequestGate.h"
#include "daemon/Sockets.h"
#include "daemon/transport/ServiceLoop.h"
#include "yp/YpProtocol.h"

#include <karst/Exceptions.h>
#include <karst/Text.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <string>

#include <netinet/in.h>

namespace nis {

namespace {

constexpr RpcProgram PROGRAM{YPPROG, YPVERS, invoke};

/// Binds, serves and registers one socket.
/// @param name the protocol in log texts
void createTransport(int socket, int protocol, const char* name, ServiceLoop& loop,
                     void (ServiceLoop::*add)(int)) {
    try {
        if (!bindToReservedPort(socket)) {
            TESSA_THROW(tessa::SystemException, tessa::errorText(errno));
        }
        (loop.*add)(socket);
    } catch (const tessa::TESSAException& e) {
        KARST_LOG(logger, tessa::LOG_FAILURE, "%s service creation failed: %s", name, e.what());
        terminate(EXIT_NETWORK);
    }
    if (!registerService(protocol, boundPort(socket))) {
        KARST_LOG(logger, tessa::LOG_FAILURE, "RPC registration of (YPPROG, YPVERS, %s) failed: %s",
                  name, rpcFailureText());
        terminate(EXIT_NETWORK);
    }
}

std::unique_ptr<ServiceLoop> createLoop() {
    try {
        return std::make_unique<ServiceLoop>(PROGRAM);
    } catch (const tessa::SystemException& e) {
        KARST_LOG(logger, tessa::LOG_FAILURE, "RPC service creation failed: %s", e.what());
        terminate(EXIT_NETWORK);
    }
}

} // namespace

int listenerThreads() {
    const std::string setting = getConfig()->get(PROP_THREADS);
    int count = DEFAULT_THREADS;
    if (!setting.empty()) {
        const long number = std::strtol(setting.c_str(), nullptr, 10);
        count = static_cast<int>(std::clamp<long>(number, INT_MIN, INT_MAX));
        if (count <= 0) {
            KARST_LOG(logger, tessa::LOG_WARN,
                      "%s is set to invalid number: %d, should be restored to default: %d",
                      PROP_THREADS, count, DEFAULT_THREADS);
            count = DEFAULT_THREADS;
        }
    }
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "RunServer: %s=%d", PROP_THREADS, count);
    return count;
}

RpcService::RpcService() : m_loop(createLoop()), m_readyForMain(m_ready.get_future()) {}

RpcService::~RpcService() {
    stop();
}

void RpcService::ensureThreads(int count) {
    while (static_cast<int>(m_threads.size()) < count) {
        const std::string name = "client-" + std::to_string(m_threads.size());
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "RunServer: starting thread %s", name.c_str());
        try {
            tessa::Thread thread;
            thread.start(name, [this] { RpcClient_main(); });
            m_threads.push_back(std::move(thread));
        } catch (const tessa::SystemException& e) {
            if (m_threads.empty()) {
                throw;
            }
            KARST_LOG(logger, tessa::LOG_WARN, "Starting thread %s failed: %s", name.c_str(),
                      e.what());
            return;
        }
    }
}

void RpcService::waitUntilReady() {
    m_readyForMain.wait();
}

void RpcService::createTransports() {
    createTransport(gUdpSocket, IPPROTO_UDP, "udp", *m_loop, &ServiceLoop::addUdp);
    createTransport(gTcpSocket, IPPROTO_TCP, "tcp", *m_loop, &ServiceLoop::addTcp);
    VerifyPorts();
}

/// The body of a listener thread, which carries its name already.
void RpcService::RpcClient_main() {
    {
        tessa::Lock lock(gStartupSafety);
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "Initializing RpcClient_main");
        if (!m_created) {
            createTransports();
            m_created = true;
            m_ready.set_value();
        }
    }
    m_loop->run();
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "RPC listener thread terminating");
}

void RpcService::stopAccepting() {
    m_loop->stopAccepting();
}

void RpcService::stop() {
    m_loop->stop();
    for (tessa::Thread& thread : m_threads) {
        if (thread.joinable()) {
            thread.join();
        }
    }
}

} // namespace nis
