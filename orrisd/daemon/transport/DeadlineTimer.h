#pragma once

#include "daemon/transport/EventSource.h"

#include <chrono>
#include <functional>

namespace nis {

class Poller;

/// Wakes one thread when a moment has come. Not thread-safe but for onReady(): the owner's mutex
/// guards schedule().
class DeadlineTimer final : public EventSource {
public:
    using Clock = std::chrono::steady_clock;

    /// @param expired called on the thread that is woken, with its buffers
    /// @throws tessa::SystemException
    DeadlineTimer(Poller& poller, std::function<void(Worker&)> expired);
    ~DeadlineTimer() override;
    DeadlineTimer(const DeadlineTimer&) = delete;
    DeadlineTimer& operator=(const DeadlineTimer&) = delete;

    void onReady(Worker& worker) override;

    /// Makes sure that it expires at that moment or before.
    void schedule(Clock::time_point moment);
    /// To be called first by what runs when it expired: nothing is scheduled any more.
    void clear() { m_scheduled = Clock::time_point::max(); }

private:
    Poller& m_poller;
    const std::function<void(Worker&)> m_expired;
    const int m_descriptor;
    Clock::time_point m_scheduled = Clock::time_point::max();
};

} // namespace nis
