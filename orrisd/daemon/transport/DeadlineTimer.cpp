#include "daemon/transport/DeadlineTimer.h"

#include "daemon/transport/Poller.h"

#include <karst/Exceptions.h>
#include <karst/Text.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <utility>

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

namespace nis {

DeadlineTimer::DeadlineTimer(Poller& poller, std::function<void(Worker&)> expired)
    : m_poller(poller), m_expired(std::move(expired)),
      m_descriptor(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)) {
    if (m_descriptor < 0 || !m_poller.add(m_descriptor, EPOLLIN | EPOLLET, *this)) {
        const std::string reason = tessa::errorText(errno);
        if (m_descriptor >= 0) {
            close(m_descriptor);
        }
        TESSA_THROW(tessa::SystemException, "timer: " + reason);
    }
}

DeadlineTimer::~DeadlineTimer() {
    close(m_descriptor);
}

void DeadlineTimer::onReady(Worker& worker) {
    std::uint64_t expirations = 0;
    if (read(m_descriptor, &expirations, sizeof expirations) == sizeof expirations) {
        m_expired(worker);
    }
}

void DeadlineTimer::schedule(Clock::time_point moment) {
    using namespace std::chrono;
    if (moment >= m_scheduled) {
        return;
    }
    m_scheduled = moment;
    // A moment of zero would disarm the timer.
    const auto at = std::max(moment.time_since_epoch(), Clock::duration(1));
    const auto whole = duration_cast<seconds>(at);
    itimerspec setting{};
    setting.it_value.tv_sec = whole.count();
    setting.it_value.tv_nsec = duration_cast<nanoseconds>(at - whole).count();
    timerfd_settime(m_descriptor, TFD_TIMER_ABSTIME, &setting, nullptr);
}

} // namespace nis
