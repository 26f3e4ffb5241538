#pragma once

#include <functional>
#include <string>
#include <thread>

namespace tessa {

/// A named thread. Start it once; join it before it is destroyed (the destructor joins).
class Thread {
public:
    Thread() = default;
    ~Thread();
    Thread(Thread&&) noexcept = default;
    /// Joins the thread that it held before.
    Thread& operator=(Thread&& other) noexcept;

    /// Starts the body on a new thread whose name is set first. All signals are blocked in it:
    /// signals belong to the main thread.
    /// @throws SystemException when the system has no more threads to give, or the process is
    /// ending; std::logic_error when this one was started and not joined.
    void start(const std::string& name, std::function<void()> body);
    void join();
    bool joinable() const { return m_thread.joinable(); }

    /// Whether the platform has threads at all.
    static bool ThreadsSupported();
    /// Tells the thread layer that threads run (true) or that the process is ending (false);
    /// start() is refused once it is false.
    static void SetThreadsActive(bool active);
    /// Name of the calling thread in log records (and, cut to 15 bytes, for the system, except that
    /// the main thread keeps the program's name there).
    static void setName(const std::string& name);
    /// "main" for the main thread and "thread-" with the system's number for others, until named.
    static const std::string& name();

private:
    std::thread m_thread;
};

/// Installs a signal handler (or SIG_IGN) without SA_RESTART, so that waits are cut short.
/// @throws SystemException
void installSignalHandler(int signalNumber, void (*handler)(int));

} // namespace tessa
