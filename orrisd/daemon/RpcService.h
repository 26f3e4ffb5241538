#pragma once

#include <karst/Thread.h>

#include <future>
#include <memory>
#include <vector>

namespace nis {

class ServiceLoop;

/// Number of listener threads that the configuration wants; at least 1.
int listenerThreads();

/// The listener threads and the transports that they share. Belongs to the main thread, which makes
/// it once the sockets are prepared and closes the sockets after it is gone.
class RpcService {
public:
    RpcService();
    ~RpcService();
    RpcService(const RpcService&) = delete;
    RpcService& operator=(const RpcService&) = delete;

    /// Starts listener threads until there are as many; never stops one. With fewer than wanted,
    /// but at least one, it warns and goes on.
    /// @throws tessa::SystemException when not even one can be started
    void ensureThreads(int count);
    /// Waits until the transports are made, registered and verified by the first of them. When that
    /// fails the process ends.
    void waitUntilReady();

    /// Takes no more connections.
    void stopAccepting();
    /// Makes the threads leave their loops and waits for them.
    void stop();

private:
    void RpcClient_main();
    void createTransports();

    std::unique_ptr<ServiceLoop> m_loop;
    std::vector<tessa::Thread> m_threads;
    bool m_created = false; ///< guarded by gStartupSafety
    std::promise<void> m_ready;
    std::future<void> m_readyForMain;
};

} // namespace nis
