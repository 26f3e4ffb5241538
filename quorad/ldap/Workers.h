#pragma once

#include <karst/Mutex.h>
#include <karst/Thread.h>

#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <string>

namespace quorad::ldap {

/// Runs what cannot be given a time limit (name resolution, Kerberos) on threads of their own, and
/// waits for it only so long. Thread-safe.
class Workers {
public:
    static constexpr std::size_t MAX_WORKERS = 16;

    Workers() = default;
    ~Workers(); ///< waits for those that still run
    Workers(const Workers&) = delete;
    Workers& operator=(const Workers&) = delete;

    /// Runs the body and passes on what it throws. A body that takes longer goes on by itself, so
    /// it must hold what it uses.
    /// @param what for the message when the time has passed
    /// @throws tessa::IPCException when the time has passed
    void run(std::chrono::steady_clock::time_point deadline, std::function<void()> body,
             const std::string& what);

private:
    struct Task {
        tessa::Mutex mutex;
        bool done KARST_GUARDED_BY(mutex) = false;
        std::exception_ptr error KARST_GUARDED_BY(mutex);
    };
    struct Worker {
        std::shared_ptr<Task> task;
        tessa::Thread thread;
    };
    void start(const std::shared_ptr<Task>& task, std::function<void()> body);
    void reap();

    tessa::Mutex m_mutex;
    std::list<Worker> m_workers KARST_GUARDED_BY(m_mutex);
};

} // namespace quorad::ldap
