#include "daemon/transport/Reception.h"

#include "daemon/transport/Poller.h"
#include "daemon/transport/ServiceLoop.h"

#include <poll.h>
#include <sys/epoll.h>

namespace nis {

namespace {

constexpr int MOMENT = 5; // milliseconds

} // namespace

Reception::Reception(ServiceLoop& loop, int listener, EventSource& source, std::atomic<int>& turns)
    : m_loop(loop), m_listener(listener), m_source(source), m_turns(turns) {
    m_turns.fetch_add(1);
}

Reception::~Reception() {
    m_turns.fetch_sub(1);
    handBack();
}

void Reception::handBack() {
    if (m_mine) {
        m_mine = false;
        m_loop.poller().rearm(m_listener, EPOLLIN | EPOLLONESHOT, m_source);
    }
}

void Reception::takeAgain() {
    if (!m_mine && m_turns.load() == 1 && m_loop.isWatched()) {
        m_mine = m_loop.poller().rearm(m_listener, EPOLLONESHOT, m_source);
    }
}

bool Reception::goesOn() const {
    return m_mine && m_loop.isWatched() && !m_loop.stopping();
}

bool Reception::waitForClient() const {
    pollfd listener{m_listener, POLLIN, 0};
    return goesOn() && poll(&listener, 1, MOMENT) > 0;
}

bool Reception::waitForInput(int connection) {
    if (!m_loop.isWatched() || m_loop.stopping()) {
        return false;
    }
    pollfd sockets[2] = {{connection, POLLIN, 0}, {m_listener, POLLIN, 0}};
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
