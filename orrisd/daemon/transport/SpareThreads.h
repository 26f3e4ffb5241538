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

/// Keeps as many threads at work as there are listener threads, however many of them stand still
/// because a client does not read its reply.
///
/// A thread that must stand still says so with an Absence. Then a spare thread takes its place: one
/// that is parked, or a new one. When it comes back, one thread too many is at work; the next that
/// is about to look for work parks. At the limit of spares the reply that has stood still longest
/// is given up instead, and its thread comes back. Thread-safe.
class SpareThreads {
public:
    /// A reply under way that can be given up.
    class Stalled {
    public:
        /// Makes the thread that waits for this return soon. Called on another thread.
        virtual void abort() = 0;

    protected:
        virtual ~Stalled() = default;
    };

    /// The calling thread stands still as long as this lives.
    class Absence {
    public:
        Absence(SpareThreads& spares, Stalled& stalled);
        ~Absence();
        Absence(const Absence&) = delete;
        Absence& operator=(const Absence&) = delete;

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

    std::size_t count() const; ///< spare threads made so far

private:
    struct Parked {
        std::condition_variable_any wake;
        bool called = false;
    };

    void coverPlace() KARST_REQUIRES(m_mutex);
    bool startSpare() KARST_REQUIRES(m_mutex);
    void changeActive(int by) KARST_REQUIRES(m_mutex);

    const std::function<void()> m_body;
    const std::size_t m_limit;

    mutable tessa::Mutex m_mutex;
    int m_places KARST_GUARDED_BY(m_mutex) = 0; ///< listener threads
    int m_active KARST_GUARDED_BY(m_mutex) = 0; ///< threads neither parked nor standing still
    bool m_stopped KARST_GUARDED_BY(m_mutex) = false;
    std::vector<Parked*> m_parked KARST_GUARDED_BY(m_mutex);
    std::list<Stalled*> m_stalled KARST_GUARDED_BY(m_mutex); ///< longest first
    std::vector<tessa::Thread> m_threads KARST_GUARDED_BY(m_mutex);
    std::atomic<bool> m_surplus{false}; ///< m_active > m_places, to be asked without the mutex
};

} // namespace nis
