#include "common/UpdatePace.h"

#include <thread>
#include <utility>

#include <sys/resource.h>

namespace nis {

void UpdatePace::step() {
    const Clock::time_point now = Clock::now();
    if (now - m_start < WORK) {
        return;
    }
    m_start = now;
    if (mustPause(now)) {
        std::this_thread::sleep_for(PAUSE);
        ++m_pauses;
        m_start = Clock::now();
    }
}

bool UpdatePace::mustPause(Clock::time_point now) {
    const long preemptions = m_preemptions();
    if (std::exchange(m_lastPreemptions, preemptions) != preemptions) {
        m_shortUntil = now + MEMORY;
    }
    const std::uint64_t answered = m_answered.load(std::memory_order_relaxed);
    return std::exchange(m_lastAnswered, answered) != answered && now < m_shortUntil;
}

long UpdatePace::threadPreemptions() {
    rusage usage{};
    ::getrusage(RUSAGE_THREAD, &usage);
    return usage.ru_nivcsw;
}

} // namespace nis
