#pragma once

#include "twine/Errors.h"
#include "twine/Frame.h"

#include <string>

#include <poll.h>
#include <sys/un.h>

/// Small helpers of the two ends; nothing here is for users of the library.
namespace twine {

/// Text of an errno value. Thread-safe.
std::string systemText(int errorNumber);

/// Waits until the descriptor is ready for `events` (or has failed, which the next call on it
/// tells).
/// @return false when the deadline passed first
bool waitFor(int descriptor, short events, Clock::time_point deadline);

/// Owns a descriptor.
class Descriptor {
public:
    explicit Descriptor(int number = -1) : m_number(number) {}
    ~Descriptor() { reset(); }
    Descriptor(Descriptor&& other) noexcept : m_number(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        reset(other.release());
        return *this;
    }

    int get() const { return m_number; }
    int release() {
        const int number = m_number;
        m_number = -1;
        return number;
    }
    void reset(int number = -1);

private:
    int m_number;
};

/// Address of a socket in the file system.
/// @throws std::invalid_argument when the path does not fit
sockaddr_un socketAddress(const std::string& path);

/// Connects without ever blocking longer than the deadline. errno tells why on failure.
/// @return the socket, or -1
int connectTo(const std::string& path, Clock::time_point deadline);

} // namespace twine
