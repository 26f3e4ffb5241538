#pragma once

#include "twine/Errors.h"

#include <chrono>
#include <string>
#include <string_view>

namespace twine {

/// Calling side of a local conversation: one request, one answer at a time. Not thread-safe.
class Client {
public:
    explicit Client(std::string socketPath);
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    /// @throws ConnectError
    void connect(std::chrono::milliseconds limit);
    bool connected() const { return m_socket >= 0; }
    /// Whether a call would be lost: not connected, or the other side has closed the connection
    /// since the last call. Does not block.
    bool broken() const;
    void close();

    /// Sends a request and waits for its answer until the limit has passed. After any failure the
    /// connection is closed: a late answer can never be taken for that of another call.
    /// @throws CallError, FrameError; ConnectError when not connected
    std::string call(std::string_view request, std::chrono::milliseconds limit);

private:
    std::string m_path;
    int m_socket = -1;
};

} // namespace twine
