#pragma once

#include "unit/daemon/RpcTestSupport.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>

#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace test {

/// A portmapper on the private network of the test.
class Rpcbind {
public:
    Rpcbind() : m_pid(fork()) {
        if (m_pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            execl("/usr/sbin/rpcbind", "rpcbind", "-f", static_cast<char*>(nullptr));
            _exit(127);
        }
        EXPECT_TRUE(eventually(answers)) << "rpcbind does not start";
    }
    ~Rpcbind() {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    Rpcbind(const Rpcbind&) = delete;
    Rpcbind& operator=(const Rpcbind&) = delete;

    void freeze() const { kill(m_pid, SIGSTOP); }

private:
    static bool answers() {
        const Socket probe(SOCK_STREAM);
        const sockaddr_in place = loopback(111);
        return connect(probe.descriptor(), reinterpret_cast<const sockaddr*>(&place),
                       sizeof place) == 0;
    }

    const pid_t m_pid;
};

} // namespace test
