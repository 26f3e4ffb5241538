#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include <sys/types.h>

namespace twine {

/// Who is at the other end, as the kernel says (SO_PEERCRED).
struct Peer {
    pid_t pid = 0;
    uid_t uid = 0;
    gid_t gid = 0;
};

/// Answers the requests of one connection, one at a time, on that connection's thread.
class Conversation {
public:
    virtual ~Conversation() = default;
    /// An exception ends the connection (with a warning through ServerOptions::report).
    virtual std::string answer(std::string_view request) = 0;
    /// Called when the answer has been sent, before the next request is read: time to prepare for
    /// it. A client that asks at once waits until this is done. An exception ends the connection.
    virtual void answered() {}
};

struct ServerOptions {
    std::string socketPath;
    unsigned socketMode = 0600;
    unsigned maxConnections = 64; ///< further ones are closed at once
    unsigned requestSeconds = 30; ///< from a request's first byte to its last, and for sending
    /// Decides whether a peer may talk; a refused one is closed at once.
    std::function<bool(const Peer&)> allow;
    /// Makes the conversation of an accepted connection.
    std::function<std::unique_ptr<Conversation>(const Peer&)> converse;
    /// Told of refused peers, malformed frames and failed conversations: one text each.
    std::function<void(const std::string&)> report;
};

/// Listening side: a socket in the file system, a thread for each connection, bounded in number and
/// in the time that a half-sent request may take. A connection between requests may stay idle.
class Server {
public:
    /// Binds the socket. A stale socket file is replaced; a live server's is not.
    /// @throws std::system_error, std::runtime_error "already in use"
    explicit Server(ServerOptions options);
    ~Server(); ///< stop() and removes the socket file
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    /// Starts accepting on a thread of its own.
    void start();
    /// Stops accepting, closes all connections and waits for their threads.
    void stop();

private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace twine
