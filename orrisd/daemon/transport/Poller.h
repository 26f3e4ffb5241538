#pragma once

#include <cstdint>

namespace nis {

class EventSource;

/// The set of descriptors that all listener threads wait on. Thread-safe. One wake-up hands out one
/// event: a thread that held several could leave the others waiting behind a slow one.
class Poller {
public:
    Poller(); ///< @throws tessa::SystemException
    ~Poller();
    Poller(const Poller&) = delete;
    Poller& operator=(const Poller&) = delete;

    /// @param events as of epoll
    /// @return false, with errno set, when the system refuses
    bool add(int descriptor, std::uint32_t events, EventSource& source);
    /// Makes a one-shot descriptor report again. After this another thread may be at work on the
    /// source already.
    bool rearm(int descriptor, std::uint32_t events, EventSource& source);
    void remove(int descriptor);

    /// @return the source that is ready, or null when a signal came
    /// @throws tessa::SystemException when waiting is impossible
    EventSource* wait();

private:
    int m_descriptor;
};

} // namespace nis
