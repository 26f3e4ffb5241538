#include "daemon/SystemdNotify.h"

#include "unit/daemon/DaemonTestSupport.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

class SystemdNotify : public testing::Test {
protected:
    ~SystemdNotify() override {
        unsetenv("NOTIFY_SOCKET");
        if (m_socket >= 0) {
            close(m_socket);
        }
    }

    void listenAt(const std::string& name) {
        m_socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        name.copy(address.sun_path, sizeof address.sun_path);
        if (name.front() == '@') {
            address.sun_path[0] = '\0';
        }
        const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
        ASSERT_EQ(bind(m_socket, reinterpret_cast<const sockaddr*>(&address), size), 0);
        setenv("NOTIFY_SOCKET", name.c_str(), 1);
    }

    std::string received() const {
        char buffer[100];
        const ssize_t count = recv(m_socket, buffer, sizeof buffer, 0);
        return count < 0 ? "nothing" : std::string(buffer, static_cast<std::size_t>(count));
    }

private:
    int m_socket = -1;
};

TEST_F(SystemdNotify, the_state_reaches_a_socket_in_the_file_system) {
    const std::string name = "/run/notify-" + std::to_string(getpid());
    listenAt(name);
    nis::notifySupervisor("READY=1");
    EXPECT_EQ(received(), "READY=1");
    nis::notifySupervisor("STOPPING=1");
    EXPECT_EQ(received(), "STOPPING=1");
    unlink(name.c_str());
}

TEST_F(SystemdNotify, the_state_reaches_an_abstract_socket) {
    listenAt("@orrisd-test-" + std::to_string(getpid()));
    nis::notifySupervisor("READY=1");
    EXPECT_EQ(received(), "READY=1");
}

TEST_F(SystemdNotify, nobody_listening_is_no_failure) {
    nis::notifySupervisor("READY=1");
    setenv("NOTIFY_SOCKET", std::string(500, 'x').c_str(), 1);
    nis::notifySupervisor("READY=1");
    setenv("NOTIFY_SOCKET", "/run/nobody", 1);
    test::LogCapture log;
    nis::notifySupervisor("READY=1");
    EXPECT_TRUE(log.contains("Telling the service manager READY=1 failed: No such file"));
}

} // namespace
