#include "karst/Thread.h"

#include "karst/Exceptions.h"
#include "karst/Text.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <system_error>

#include <pthread.h>
#include <unistd.h>

namespace tessa {

namespace {

constexpr std::size_t SYSTEM_NAME_LENGTH = 15;

std::atomic<bool> threadsActive{true};

bool isMainThread() {
    return ::gettid() == ::getpid();
}

/// Set when the calling thread's name is gone: objects with static storage, which outlive what is
/// local to the main thread, log too when they are destroyed.
thread_local bool nameGone = false;

struct ThreadName {
    std::string text = isMainThread() ? "main" : "thread-" + std::to_string(::gettid());
    ThreadName() = default;
    ~ThreadName() { nameGone = true; }
    ThreadName(const ThreadName&) = delete;
    ThreadName& operator=(const ThreadName&) = delete;
};

std::string& ownName() {
    thread_local ThreadName name;
    return name.text;
}

/// Blocks the signals that belong to the main thread while a thread is made, which inherits the
/// mask. Faults stay with the thread that causes them.
class SignalsBlocked {
public:
    SignalsBlocked() {
        sigset_t blocked;
        ::sigfillset(&blocked);
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGPROF}) {
            ::sigdelset(&blocked, fault);
        }
        ::pthread_sigmask(SIG_SETMASK, &blocked, &m_before);
    }
    ~SignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

private:
    sigset_t m_before{};
};

} // namespace

Thread::~Thread() {
    join();
}

Thread& Thread::operator=(Thread&& other) noexcept {
    if (this != &other) {
        join();
        m_thread = std::move(other.m_thread);
    }
    return *this;
}

void Thread::start(const std::string& name, std::function<void()> body) {
    if (m_thread.joinable()) {
        throw std::logic_error("thread '" + name + "' is started before the one held was joined");
    }
    if (!threadsActive) {
        TESSA_THROW(SystemException, "cannot start thread '" + name + "': the process is ending");
    }
    const SignalsBlocked blocked;
    try {
        m_thread = std::thread([name, body = std::move(body)] {
            setName(name);
            body();
        });
    } catch (const std::system_error& error) {
        TESSA_THROW(SystemException, "cannot start thread '" + name + "': " + error.what());
    }
}

void Thread::join() {
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

bool Thread::ThreadsSupported() {
    return ::sysconf(_SC_THREADS) > 0;
}

void Thread::SetThreadsActive(bool active) {
    threadsActive = active;
}

void Thread::setName(const std::string& name) {
    if (nameGone) {
        return;
    }
    ownName() = name;
    // The system's name of the main thread is what ps shows for the process.
    if (!isMainThread()) {
        ::pthread_setname_np(::pthread_self(), name.substr(0, SYSTEM_NAME_LENGTH).c_str());
    }
}

const std::string& Thread::name() {
    if (nameGone) {
        static const auto& ending = *new std::string("ending");
        return ending;
    }
    return ownName();
}

void installSignalHandler(int signalNumber, void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    ::sigemptyset(&action.sa_mask);
    if (::sigaction(signalNumber, &action, nullptr) != 0) {
        TESSA_THROW(SystemException, "cannot handle signal " + std::to_string(signalNumber) + ": " +
                                         errorText(errno));
    }
}

} // namespace tessa
