#include "twine/Server.h"

#include "Waiting.h"
#include "twine/Frame.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <exception>
#include <list>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace twine {

namespace {

constexpr int BACKLOG = 128;
// How long accepting rests when descriptors or memory have run out. A connection that ends
// meanwhile cuts the rest short.
constexpr int REST_MILLISECONDS = 500;
constexpr std::chrono::milliseconds PROBE_LIMIT(1000);

[[noreturn]] void systemFailure(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

std::string describe(const Peer& peer) {
    return "process " + std::to_string(peer.pid) + " of user " + std::to_string(peer.uid);
}

bool shortOfResources(int errorNumber) {
    return errorNumber == EMFILE || errorNumber == ENFILE || errorNumber == ENOMEM ||
           errorNumber == ENOBUFS;
}

// Removes what a server that died has left at the path.
void removeStaleSocket(const std::string& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) {
        if (errno == ENOENT) {
            return;
        }
        systemFailure("cannot examine '" + path + "'");
    }
    if (!S_ISSOCK(status.st_mode)) {
        throw std::runtime_error("'" + path + "' exists and is no socket");
    }
    const Descriptor probe(connectTo(path, Clock::now() + PROBE_LIMIT));
    if (probe.get() >= 0 || errno == ETIMEDOUT) {
        throw std::runtime_error("socket '" + path + "' is already in use");
    }
    if (errno != ECONNREFUSED && errno != ENOENT) {
        systemFailure("cannot tell whether socket '" + path + "' is in use");
    }
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
        systemFailure("cannot remove stale socket '" + path + "'");
    }
}

// Signals belong to the main thread: a thread started while this lives takes none. Faults stay with
// the thread that causes them.
class SignalsBlocked {
public:
    SignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGPROF}) {
            sigdelset(&all, fault);
        }
        pthread_sigmask(SIG_SETMASK, &all, &m_before);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

private:
    sigset_t m_before{};
};

} // namespace

/// The accepting thread owns the list of connections; each connection's thread owns its socket's
/// use and closes it. `m_mutex` guards the list and the sockets' numbers.
class Server::Impl {
public:
    explicit Impl(ServerOptions options);
    ~Impl();
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    void start();
    void stop();

private:
    struct Connection {
        Descriptor socket;
        Peer peer;
        std::thread thread;
        bool finished = false;
    };

    void bindSocket();
    void acceptLoop();
    bool acceptOne();
    void admit(Descriptor socket);
    void serve(Connection& connection);
    void converse(const Connection& connection);
    void finish(Connection& connection);
    void reap();
    void rest();
    void wake();
    void report(const std::string& text) const;

    const ServerOptions m_options;
    Descriptor m_listener;
    Descriptor m_wake;
    dev_t m_device = 0;
    ino_t m_inode = 0;
    std::thread m_acceptor;
    std::atomic<bool> m_stopping{false};
    bool m_short = false; // accepting is known to lack descriptors; the acceptor's own
    std::mutex m_mutex;
    std::list<Connection> m_connections;
};

Server::Impl::Impl(ServerOptions options) : m_options(std::move(options)) {
    m_wake.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (m_wake.get() < 0) {
        systemFailure("cannot make an event descriptor");
    }
    bindSocket();
}

Server::Impl::~Impl() {
    stop();
    struct stat status {};
    if (::lstat(m_options.socketPath.c_str(), &status) == 0 && status.st_dev == m_device &&
        status.st_ino == m_inode) {
        ::unlink(m_options.socketPath.c_str());
    }
}

void Server::Impl::bindSocket() {
    const std::string& path = m_options.socketPath;
    const sockaddr_un address = socketAddress(path);
    removeStaleSocket(path);
    m_listener.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (m_listener.get() < 0) {
        systemFailure("cannot make a socket");
    }
    if (::bind(m_listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) !=
        0) {
        systemFailure("cannot bind socket '" + path + "'");
    }
    // Nobody can connect before listen(), so the mode is right from the first connection on.
    struct stat status {};
    if (::chmod(path.c_str(), m_options.socketMode) != 0 || ::lstat(path.c_str(), &status) != 0 ||
        ::listen(m_listener.get(), BACKLOG) != 0) {
        const int failure = errno;
        ::unlink(path.c_str());
        errno = failure;
        systemFailure("cannot listen on socket '" + path + "'");
    }
    m_device = status.st_dev;
    m_inode = status.st_ino;
}

void Server::Impl::start() {
    const SignalsBlocked blocked;
    m_acceptor = std::thread([this] { acceptLoop(); });
}

void Server::Impl::stop() {
    m_stopping = true;
    wake();
    if (m_acceptor.joinable()) {
        m_acceptor.join();
    }
    m_listener.reset();
    {
        const std::lock_guard lock(m_mutex);
        for (const Connection& connection : m_connections) {
            if (connection.socket.get() >= 0) {
                ::shutdown(connection.socket.get(), SHUT_RDWR);
            }
        }
    }
    // Nobody adds to the list any more.
    for (Connection& connection : m_connections) {
        connection.thread.join();
    }
    m_connections.clear();
}

void Server::Impl::wake() {
    const std::uint64_t one = 1;
    // Fails only when the counter is full, and then the acceptor is awake anyway.
    [[maybe_unused]] const ssize_t written = ::write(m_wake.get(), &one, sizeof(one));
}

void Server::Impl::acceptLoop() {
    while (!m_stopping) {
        pollfd entries[2] = {{m_listener.get(), POLLIN, 0}, {m_wake.get(), POLLIN, 0}};
        if (::poll(entries, 2, -1) < 0 && errno != EINTR) {
            report("waiting for connections failed: " + systemText(errno));
            rest();
        }
        std::uint64_t count = 0;
        [[maybe_unused]] const ssize_t got = ::read(m_wake.get(), &count, sizeof(count));
        reap();
        while (!m_stopping && acceptOne()) {
        }
    }
}

bool Server::Impl::acceptOne() {
    Descriptor socket(::accept4(m_listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (socket.get() >= 0) {
        m_short = false;
        admit(std::move(socket));
        return true;
    }
    if (errno == EAGAIN || errno == EWOULDBLOCK) {
        return false;
    }
    if (errno == EINTR || errno == ECONNABORTED) {
        return true;
    }
    const int failure = errno;
    if (!m_short || !shortOfResources(failure)) {
        report("cannot accept a connection: " + systemText(failure));
    }
    m_short = shortOfResources(failure);
    rest();
    return false;
}

void Server::Impl::rest() {
    // The listener stays readable: without a rest the loop would spin until a descriptor is free.
    pollfd entry{m_wake.get(), POLLIN, 0};
    ::poll(&entry, 1, REST_MILLISECONDS);
}

void Server::Impl::admit(Descriptor socket) {
    ucred credentials{};
    socklen_t size = sizeof(credentials);
    if (::getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
        report("cannot tell who connected: " + systemText(errno));
        return;
    }
    const Peer peer{credentials.pid, credentials.uid, credentials.gid};
    if (m_options.allow && !m_options.allow(peer)) {
        report(describe(peer) + " is refused: not among the permitted users");
        return;
    }
    const std::lock_guard lock(m_mutex);
    if (m_connections.size() >= m_options.maxConnections) {
        report(describe(peer) + " is refused: already " + std::to_string(m_connections.size()) +
               " connections");
        return;
    }
    Connection& connection = m_connections.emplace_back();
    connection.socket = std::move(socket);
    connection.peer = peer;
    try {
        const SignalsBlocked blocked;
        connection.thread = std::thread([this, &connection] { serve(connection); });
    } catch (const std::system_error& error) {
        m_connections.pop_back();
        report(describe(peer) + " is refused: no thread: " + error.what());
    }
}

void Server::Impl::serve(Connection& connection) {
    try {
        converse(connection);
    } catch (const CallError& error) {
        if (!m_stopping) {
            report(describe(connection.peer) + ": " + error.what());
        }
    } catch (const std::exception& error) {
        report(describe(connection.peer) + ": conversation failed: " + error.what());
    }
    finish(connection);
}

void Server::Impl::converse(const Connection& connection) {
    const int socket = connection.socket.get();
    const std::chrono::seconds limit(m_options.requestSeconds);
    const std::unique_ptr<Conversation> conversation = m_options.converse(connection.peer);
    while (!m_stopping) {
        // Between requests a connection may be idle for as long as it likes; stop() ends the wait
        // by shutting the socket down.
        pollfd entry{socket, POLLIN, 0};
        if (::poll(&entry, 1, -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            throw CallError("poll failed: " + systemText(errno));
        }
        std::string request;
        if (!readFrame(socket, request, Clock::now() + limit)) {
            return;
        }
        const std::string answer = conversation->answer(request);
        writeFrame(socket, answer, Clock::now() + limit);
        if (!m_stopping) {
            conversation->answered();
        }
    }
}

void Server::Impl::finish(Connection& connection) {
    {
        const std::lock_guard lock(m_mutex);
        connection.socket.reset();
        connection.finished = true;
    }
    wake();
}

void Server::Impl::reap() {
    std::list<Connection> finished;
    {
        const std::lock_guard lock(m_mutex);
        for (auto at = m_connections.begin(); at != m_connections.end();) {
            const auto next = std::next(at);
            if (at->finished) {
                finished.splice(finished.end(), m_connections, at);
            }
            at = next;
        }
    }
    for (Connection& connection : finished) {
        connection.thread.join();
    }
}

void Server::Impl::report(const std::string& text) const {
    if (m_options.report) {
        m_options.report(text);
    }
}

Server::Server(ServerOptions options) : m_impl(std::make_unique<Impl>(std::move(options))) {}
Server::~Server() = default;
void Server::start() {
    m_impl->start();
}
void Server::stop() {
    m_impl->stop();
}

} // namespace twine
