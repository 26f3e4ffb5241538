#include "daemon/transport/Listener.h"

#include "daemon/transport/Poller.h"

#include <karst/Exceptions.h>
#include <karst/Text.h>

#include <cerrno>
#include <chrono>

#include <sys/epoll.h>

namespace nis {

namespace {

constexpr std::uint32_t NO_CLIENT = EPOLLONESHOT;
constexpr std::uint32_t NEXT_CLIENT = EPOLLIN | EPOLLONESHOT;
constexpr std::chrono::milliseconds WATCH_INTERVAL{5};

} // namespace

Listener::Listener(Poller& poller, int socket, EventSource& source)
    : m_poller(poller), m_socket(socket), m_source(source),
      m_watch(poller, [this](Worker&) { look(); }) {
    if (!m_poller.add(m_socket, NEXT_CLIENT, m_source)) {
        TESSA_THROW(tessa::SystemException, tessa::errorText(errno));
    }
}

Listener::~Listener() {
    remove();
}

void Listener::arm() {
    m_poller.rearm(m_socket, NEXT_CLIENT, m_source);
}

bool Listener::disarm() {
    return m_poller.rearm(m_socket, NO_CLIENT, m_source);
}

void Listener::remove() {
    m_poller.remove(m_socket);
}

Listener::Call Listener::beginCall() {
    tessa::Lock lock(m_mutex);
    const Call call = ++m_lastCall;
    // Two turns can believe that they have the socket, if the poller told one of a client just when
    // the other disarmed it. Then the earlier call ends as if it had taken long.
    m_call.store(call);
    watch();
    return call;
}

bool Listener::endCall(Call call) {
    return m_call.compare_exchange_strong(call, 0);
}

/// Unless a look is to come already.
void Listener::watch() {
    m_watch.schedule(DeadlineTimer::Clock::now() + WATCH_INTERVAL);
}

/// A call that was there at the last look as well takes long.
void Listener::look() {
    tessa::Lock lock(m_mutex);
    m_watch.clear();
    Call call = m_call.load();
    if (call != 0 && call == m_callAtLook && m_call.compare_exchange_strong(call, 0)) {
        arm();
    }
    m_callAtLook = call;
    if (m_turns.load() > 0) {
        watch();
    }
}

} // namespace nis
