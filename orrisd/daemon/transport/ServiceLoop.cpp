#include "daemon/transport/ServiceLoop.h"

#include "common/Globals.h"
#include "daemon/transport/TcpTransport.h"
#include "daemon/transport/UdpTransport.h"
#include "daemon/transport/Worker.h"

#include <karst/Exceptions.h>
#include <karst/Text.h>

#include <cerrno>

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace nis {

class ServiceLoop::StopSignal final : public EventSource {
public:
    explicit StopSignal(Poller& poller) : m_descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
        if (m_descriptor < 0 || !poller.add(m_descriptor, EPOLLIN, *this)) {
            const std::string reason = tessa::errorText(errno);
            if (m_descriptor >= 0) {
                close(m_descriptor);
            }
            TESSA_THROW(tessa::SystemException, "eventfd: " + reason);
        }
    }
    ~StopSignal() override { close(m_descriptor); }
    StopSignal(const StopSignal&) = delete;
    StopSignal& operator=(const StopSignal&) = delete;

    void raise() const { eventfd_write(m_descriptor, 1); }
    void onReady(Worker&) override {}

private:
    const int m_descriptor;
};

ServiceLoop::ServiceLoop(const RpcProgram& program, const TransportLimits& limits)
    : m_program(program), m_limits(limits), m_stopSignal(std::make_unique<StopSignal>(m_poller)),
      m_spares([this] { serveEvents(); }, limits.spares) {}

ServiceLoop::~ServiceLoop() {
    stop();
    m_spares.join();
}

void ServiceLoop::addUdp(int socket) {
    m_udp = std::make_unique<UdpTransport>(*this, socket);
}

void ServiceLoop::addTcp(int socket) {
    m_tcp = std::make_unique<TcpTransport>(*this, socket);
}

void ServiceLoop::run() {
    m_spares.enter();
    serveEvents();
    m_spares.leave();
}

void ServiceLoop::serveEvents() {
    Worker worker;
    while (!stopping()) {
        m_spares.parkIfSurplus([&worker] { worker.release(); });
        m_watching.fetch_add(1, std::memory_order_relaxed);
        EventSource* ready = m_poller.wait();
        m_watching.fetch_sub(1, std::memory_order_relaxed);
        if (ready != nullptr && !stopping()) {
            ready->onReady(worker);
        }
    }
}

void ServiceLoop::stopAccepting() {
    if (m_tcp) {
        m_tcp->stopAccepting();
    }
}

void ServiceLoop::stop() {
    if (m_stopping.exchange(true)) {
        return;
    }
    m_stopSignal->raise();
    m_spares.stop();
    if (m_tcp) {
        m_tcp->abortAll();
    }
}

std::size_t ServiceLoop::connections() const {
    return m_tcp ? m_tcp->connections() : 0;
}

} // namespace nis
