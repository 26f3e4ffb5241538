#include "daemon/transport/Poller.h"

#include <karst/Exceptions.h>
#include <karst/Text.h>

#include <cerrno>

#include <sys/epoll.h>
#include <unistd.h>

namespace nis {

namespace {

bool control(int poller, int operation, int descriptor, std::uint32_t events, EventSource& source) {
    epoll_event event{};
    event.events = events;
    event.data.ptr = &source;
    return epoll_ctl(poller, operation, descriptor, &event) == 0;
}

} // namespace

Poller::Poller() : m_descriptor(epoll_create1(EPOLL_CLOEXEC)) {
    if (m_descriptor < 0) {
        TESSA_THROW(tessa::SystemException, "epoll_create1: " + tessa::errorText(errno));
    }
}

Poller::~Poller() {
    close(m_descriptor);
}

bool Poller::add(int descriptor, std::uint32_t events, EventSource& source) {
    return control(m_descriptor, EPOLL_CTL_ADD, descriptor, events, source);
}

bool Poller::rearm(int descriptor, std::uint32_t events, EventSource& source) {
    return control(m_descriptor, EPOLL_CTL_MOD, descriptor, events, source);
}

void Poller::remove(int descriptor) {
    epoll_event unused{};
    epoll_ctl(m_descriptor, EPOLL_CTL_DEL, descriptor, &unused);
}

EventSource* Poller::wait() {
    epoll_event event{};
    const int count = epoll_wait(m_descriptor, &event, 1, -1);
    if (count < 0 && errno != EINTR) {
        TESSA_THROW(tessa::SystemException, "epoll_wait: " + tessa::errorText(errno));
    }
    return count == 1 ? static_cast<EventSource*>(event.data.ptr) : nullptr;
}

} // namespace nis
