#pragma once

#include <karst/Mutex.h>
#include <karst/Thread.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <list>
#include <vector>

namespace nis {

/// Keeps as many threads ready for calls as there are listener threads, however many of them are
/// busy with a long reply or stand still because a client does not read it.
///
/// A thread that is about to be away for long says so with an Absence. Then a spare thread takes
/// its place: one that is parked, or a new one. When it comes back, one thread too many is ready;
/// the next that is about to look for work parks. At the limit of spares, of the replies that stand
/// still the one that has for longest is given up, and its thread comes back. Thread-safe.
class SpareThreads {
public:
    /// A reply under way that can be given up.
    class Stalled {
    public:
        virtual ~Stalled() = default;
        /// Makes the thread that waits for this return soon. Called on another thread.
        virtual void abort() = 0;
    };

    /// The calling thread is away from its place as long as this lives.
    class Absence {
    public:
        explicit Absence(SpareThreads& spares);
        ~Absence();
        Absence(const Absence&) = delete;
        Absence& operator=(const Absence&) = delete;

    private:
        SpareThreads& m_spares;
    };

    /// The calling thread, which is away, stands still as long as this lives.
    class Stall {
    public:
        Stall(SpareThreads& spares, Stalled& stalled);
        ~Stall();
        Stall(const Stall&) = delete;
        Stall& operator=(const Stall&) = delete;

    private:
        SpareThreads& m_spares;
        std::list<Stalled*>::iterator m_place;
    };

    /// @param body what a spare thread does; it ends soon after stop()
    /// @param limit spare threads at most
    SpareThreads(std::function<void()> body, std::size_t limit);
    ~SpareThreads();

    /// A listener thread begins or ends its work.
    void enter();
    void leave();

    /// Parks the calling thread while it is one too many.
    /// @param beforeParking gives back what a parked thread need not hold
    void parkIfSurplus(const std::function<void()>& beforeParking);

    /// Wakes the parked threads for good; no thread parks or is started any more.
    void stop();
    /// Waits for the spare threads to end.
    void join();

    std::size_t count() const;   ///< spare threads made so far
    std::size_t stalled() const; ///< replies that stand still at this moment

private:
    struct Parked {
        std::condition_variable_any wake;
        bool called = false;
    };

    bool placeIsCovered() KARST_REQUIRES(m_mutex);
    bool startSpare() KARST_REQUIRES(m_mutex);
    void changeActive(int by) KARST_REQUIRES(m_mutex);

    const std::function<void()> m_body;
    const std::size_t m_limit;

    mutable tessa::Mutex m_mutex;
    int m_places KARST_GUARDED_BY(m_mutex) = 0; ///< listener threads
    int m_active KARST_GUARDED_BY(m_mutex) = 0; ///< threads neither parked nor away
    bool m_stopped KARST_GUARDED_BY(m_mutex) = false;
    std::vector<Parked*> m_parked KARST_GUARDED_BY(m_mutex);
    std::list<Stalled*> m_stalled KARST_GUARDED_BY(m_mutex); ///< longest first
    std::vector<tessa::Thread> m_threads KARST_GUARDED_BY(m_mutex);
    std::atomic<bool> m_surplus{false}; ///< m_active > m_places, to be asked without the mutex
};

} // namespace nis
