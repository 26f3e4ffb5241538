#include "Workers.h"

#include <karst/Exceptions.h>

#include <exception>

namespace quorad::ldap {

Workers::~Workers() {
    std::list<Worker> workers;
    {
        const tessa::Lock lock(m_mutex);
        workers.swap(m_workers);
    }
    for (Worker& worker : workers) {
        worker.thread.join();
    }
}

// Takes away those that have ended.
void Workers::reap() {
    std::list<Worker> ended;
    {
        const tessa::Lock lock(m_mutex);
        for (auto worker = m_workers.begin(); worker != m_workers.end();) {
            const auto next = std::next(worker);
            const tessa::Lock taskLock(worker->task->mutex);
            if (worker->task->done) {
                ended.splice(ended.end(), m_workers, worker);
            }
            worker = next;
        }
    }
    for (Worker& worker : ended) {
        worker.thread.join();
    }
}

void Workers::start(const std::shared_ptr<Task>& task, std::function<void()> body) {
    const tessa::Lock lock(m_mutex);
    if (m_workers.size() >= MAX_WORKERS) {
        TESSA_THROW(tessa::IPCException,
                    "earlier attempts to reach the directory have not ended yet");
    }
    m_workers.push_back({task, tessa::Thread()});
    try {
        m_workers.back().thread.start("connect", [task, body = std::move(body)] {
            std::exception_ptr error;
            try {
                body();
            } catch (...) {
                error = std::current_exception();
            }
            const tessa::Lock taskLock(task->mutex);
            task->error = error;
            task->done = true;
            task->mutex.notifyAll();
        });
    } catch (...) {
        m_workers.pop_back();
        throw;
    }
}

void Workers::run(std::chrono::steady_clock::time_point deadline, std::function<void()> body,
                  const std::string& what) {
    reap();
    const auto task = std::make_shared<Task>();
    start(task, std::move(body));
    const tessa::Lock lock(task->mutex);
    while (!task->done) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            TESSA_THROW(tessa::IPCException, what +
                                                 ": no end within the time limit; do DNS and the "
                                                 "key distribution centre answer?");
        }
        task->mutex.wait(left);
    }
    if (task->error) {
        std::rethrow_exception(task->error);
    }
}

} // namespace quorad::ldap
