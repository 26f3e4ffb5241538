#include "daemon/transport/Reception.h"

#include "daemon/transport/ServiceLoop.h"

#include <poll.h>

namespace nis {

namespace {

constexpr int MOMENT = 5; // milliseconds

} // namespace

Reception::Reception(ServiceLoop& loop, Listener& listener) : m_loop(loop), m_listener(listener) {
    m_listener.enter();
}

Reception::~Reception() {
    m_listener.leave();
    handBack();
}

void Reception::beginCall() {
    if (!m_keeps) {
        handBack();
    } else if (m_mine) {
        m_call = m_listener.beginCall();
    }
}

void Reception::endCall() {
    endKeeping();
    takeAgain();
}

void Reception::endKeeping() {
    if (m_call != 0) {
        m_mine = m_listener.endCall(m_call);
        m_keeps = m_mine;
        m_call = 0;
    }
}

void Reception::handBack() {
    endKeeping();
    if (m_mine) {
        m_mine = false;
        m_listener.arm();
    }
}

void Reception::takeAgain() {
    if (!m_mine && m_listener.turns() == 1 && m_loop.isWatched()) {
        m_mine = m_listener.disarm();
        m_keeps = m_keeps || m_mine;
    }
}

bool Reception::goesOn() const {
    return m_mine && m_loop.isWatched() && !m_loop.stopping();
}

bool Reception::waitForClient() const {
    pollfd listener{m_listener.socket(), POLLIN, 0};
    return goesOn() && poll(&listener, 1, MOMENT) > 0;
}

bool Reception::waitForInput(int connection) {
    if (!m_loop.isWatched() || m_loop.stopping()) {
        return false;
    }
    pollfd sockets[2] = {{connection, POLLIN, 0}, {m_listener.socket(), POLLIN, 0}};
    if (m_mine && poll(sockets, 2, MOMENT) <= 0) {
        return false;
    }
    if (sockets[0].revents != 0) {
        return true; // it may be about to leave; then the next client is this turn's as well
    }
    handBack();
    return poll(sockets, 1, MOMENT) > 0;
}

} // namespace nis
