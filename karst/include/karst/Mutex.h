#pragma once

#include "karst/ThreadAnnotations.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace tessa {

/// Mutual exclusion, recursive: the thread that holds it may take it again. Carries clang's
/// capability attribute, so members can be declared KARST_GUARDED_BY it.
class KARST_CAPABILITY("mutex") Mutex {
public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() KARST_ACQUIRE() {
        m_mutex.lock();
        ++m_depth;
    }
    void unlock() KARST_RELEASE() {
        --m_depth;
        m_mutex.unlock();
    }
    bool try_lock() KARST_TRY_ACQUIRE(true) {
        if (!m_mutex.try_lock()) {
            return false;
        }
        ++m_depth;
        return true;
    }
    /// How many times the calling thread, which holds the mutex, has taken it.
    int depth() const KARST_REQUIRES(this) { return m_depth; }

    /// Waits until notifyAll() or until the time has passed. The mutex must be held exactly once by
    /// the calling thread; it is given up while waiting and held again on return.
    /// @return false when the time passed without a notification. Wake-ups may be spurious.
    bool wait(std::chrono::milliseconds limit) KARST_REQUIRES(this) {
        m_depth = 0;
        const auto status = m_condition.wait_for(m_mutex, limit);
        m_depth = 1;
        return status == std::cv_status::no_timeout;
    }
    void notifyAll() { m_condition.notify_all(); }

private:
    std::recursive_mutex m_mutex;
    int m_depth = 0; ///< guarded by the mutex itself
    std::condition_variable_any m_condition;
};

/// Scoped holder of a Mutex.
class KARST_SCOPED_CAPABILITY Lock {
public:
    explicit Lock(Mutex& mutex) KARST_ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.lock(); }
    ~Lock() KARST_RELEASE() { m_mutex.unlock(); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

private:
    Mutex& m_mutex;
};

} // namespace tessa
