#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

namespace nis {

/// Keeps an update from taking the processors from those who look something up. When requests are
/// being answered and there are not enough processors for all, it works for a moment and pauses for
/// longer, in steps far shorter than the system's time slices. A lower priority for its thread
/// would not do: preempted with a lock in its hands it would keep everybody waiting who needs that
/// lock. When nobody asks, or a processor is free, it costs nothing.
///
/// One object for each pass over the directory, used by one thread.
class UpdatePace {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::microseconds WORK{250};
    static constexpr std::chrono::microseconds PAUSE{1750};
    /// How long it goes on with pauses since it was last seen that processors are short.
    static constexpr std::chrono::milliseconds MEMORY{100};

    /// @param preemptions how often somebody else has taken the processor from the calling thread
    explicit UpdatePace(long (*preemptions)() = threadPreemptions)
        : m_preemptions(preemptions), m_lastPreemptions(preemptions()) {}

    /// To be called between two records, without any lock held; pauses when it is time to.
    void step();
    /// How often it has paused.
    unsigned pauses() const { return m_pauses; }

    /// A request was answered. Thread-safe.
    static void answered() { m_answered.fetch_add(1, std::memory_order_relaxed); }
    static long threadPreemptions();

private:
    bool mustPause(Clock::time_point now);

    static inline std::atomic<std::uint64_t> m_answered{0};

    long (*const m_preemptions)();
    long m_lastPreemptions;
    std::uint64_t m_lastAnswered = m_answered.load(std::memory_order_relaxed);
    Clock::time_point m_start = Clock::now();
    Clock::time_point m_shortUntil;
    unsigned m_pauses = 0;
};

} // namespace nis
