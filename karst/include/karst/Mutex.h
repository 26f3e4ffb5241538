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

    void lock() KARST_ACQUIRE() { m_mutex.lock(); }
    void unlock() KARST_RELEASE() { m_mutex.unlock(); }
    bool try_lock() KARST_TRY_ACQUIRE(true) { return m_mutex.try_lock(); }

    /// Waits until notifyAll() or until the time has passed. The mutex must be held exactly once by
    /// the calling thread; it is given up while waiting and held again on return.
    /// @return false when the time passed without a notification. Wake-ups may be spurious.
    bool wait(std::chrono::milliseconds limit) KARST_REQUIRES(this) {
        return m_condition.wait_for(m_mutex, limit) == std::cv_status::no_timeout;
    }
    void notifyAll() { m_condition.notify_all(); }

private:
    std::recursive_mutex m_mutex;
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
