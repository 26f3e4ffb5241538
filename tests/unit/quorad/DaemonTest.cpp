#include "Daemon.h"

#include "Notify.h"
#include "SocketAllow.h"

#include <karst/Exceptions.h>
#include <karst/LocalRpcSession.h>

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>

#include <fcntl.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using namespace quorad;
using tessa::LocalRpcSession;

constexpr const char* ZONE_A = "CN=zoneA,CN=Zones,DC=example,DC=com";
constexpr const char* ZONE_B = "CN=zoneB,CN=Zones,DC=example,DC=com";

bool eventually(const std::function<bool()>& condition) {
    for (int turn = 0; turn < 4000; ++turn) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return condition();
}

// Standard error, where the log goes, in a file while this lives.
class StandardErrorFile {
public:
    explicit StandardErrorFile(std::string path)
        : m_path(std::move(path)), m_before(::dup(STDERR_FILENO)) {
        const int file = ::open(m_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        ::dup2(file, STDERR_FILENO);
        ::close(file);
    }
    ~StandardErrorFile() {
        ::dup2(m_before, STDERR_FILENO);
        ::close(m_before);
    }
    StandardErrorFile(const StandardErrorFile&) = delete;
    StandardErrorFile& operator=(const StandardErrorFile&) = delete;

    std::size_t count(const std::string& text) const {
        std::ifstream in(m_path);
        const std::string content{std::istreambuf_iterator<char>(in), {}};
        std::size_t found = 0;
        for (std::size_t at = content.find(text); at != std::string::npos;
             at = content.find(text, at + 1)) {
            ++found;
        }
        return found;
    }

private:
    const std::string m_path;
    const int m_before;
};

class DaemonTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/daemon-test-XXXXXX";
        m_folder = ::mkdtemp(pattern);
        m_places.configuration = m_folder + "/velmorix.conf";
        m_places.stateDirectory = m_folder + "/state";
        m_places.socket = m_folder + "/daemon";
        std::filesystem::create_directory(m_places.stateDirectory);
    }
    void TearDown() override { std::filesystem::remove_all(m_folder); }

    void configure(const std::string& zone, const std::string& file = "directory.ldif",
                   const std::string& more = "") const {
        std::ofstream(m_places.configuration) << "quorad.directory: ldif:" << m_folder << "/"
                                              << file << "\nquorad.zone: " << zone << "\n"
                                              << more;
    }
    // An LDIF file whose zones name that NIS domain.
    void writeDirectory(const std::string& nisDomain, const std::string& file = "directory.ldif") {
        const std::string path = m_folder + "/" + file;
        {
            std::ofstream out(path + ".new");
            out << "version: 1\n\n"
                << "dn: DC=example,DC=com\nobjectClass: domainDNS\n\n"
                << "dn: CN=Zones,DC=example,DC=com\nobjectClass: container\ncn: Zones\n\n";
            for (const char* name : {"zoneA", "zoneB"}) {
                out << "dn: CN=" << name << ",CN=Zones,DC=example,DC=com\n"
                    << "objectClass: container\ncn: " << name << "\n"
                    << "extensionName: nisdomain=" << nisDomain << "\n\n";
            }
        }
        std::filesystem::rename(path + ".new", path);
    }
    std::unique_ptr<Daemon> running() {
        auto daemon = std::make_unique<Daemon>(m_places, false);
        EXPECT_TRUE(daemon->awaitFirstLook(std::chrono::seconds(20)));
        daemon->serve();
        return daemon;
    }
    std::string setting(const std::string& name) const {
        return LocalRpcSession(m_places.socket, false, false).loadSetting(name);
    }
    std::string nisDomain() const {
        LocalRpcSession session(m_places.socket, false, false);
        return session.ldapFetch("example.com", ZONE_A, {}, true)[tessa::TESSA_ZONE_SFU];
    }

    std::string m_folder;
    Places m_places;
};

TEST_F(DaemonTest, SettingsAreToldWithoutADirectory) {
    configure(ZONE_A, "none.ldif", "quorad.hostname: machine7\n");
    const auto daemon = running();
    EXPECT_EQ(ZONE_A, setting(tessa::SETTING_ZONE_NAME));
    EXPECT_EQ("machine7", setting(tessa::SETTING_HOST_NAME));
    EXPECT_THROW(setting("nonsense"), tessa::NotFoundException);
    EXPECT_THROW(nisDomain(), tessa::IPCException);
}

TEST_F(DaemonTest, HostNameIsTheMachinesUnlessConfigured) {
    configure(ZONE_A);
    const auto daemon = running();
    std::array<char, 256> name{};
    ASSERT_EQ(0, ::gethostname(name.data(), name.size() - 1));
    EXPECT_EQ(name.data(), setting(tessa::SETTING_HOST_NAME));
}

TEST_F(DaemonTest, DirectoryThatComesLaterIsNoticed) {
    configure(ZONE_A);
    const auto daemon = running();
    EXPECT_THROW(nisDomain(), tessa::IPCException);
    writeDirectory("nis.one");
    EXPECT_TRUE(eventually([&] {
        try {
            return nisDomain() == "nis.one";
        } catch (const tessa::IPCException&) {
            return false;
        }
    }));
}

TEST_F(DaemonTest, ZoneIsRememberedOverARestartWithoutDirectory) {
    configure(ZONE_A);
    writeDirectory("nis.one");
    std::string guid;
    {
        const auto daemon = running();
        EXPECT_EQ("nis.one", nisDomain());
        guid = setting(tessa::SETTING_ZONE_GUID);
    }
    std::filesystem::remove(m_folder + "/directory.ldif");
    const auto daemon = running();
    EXPECT_EQ(guid, setting(tessa::SETTING_ZONE_GUID));
    LocalRpcSession session(m_places.socket, false, false);
    EXPECT_EQ(
        "nis.one",
        session.ldapFetch("example.com", "<GUID=" + guid + ">", {}, true)[tessa::TESSA_ZONE_SFU]
            .asString());
    EXPECT_EQ(0U, session.getSystemInfo(tessa::SYSTEM_INFO_ZONE_HIERARCHY).find(ZONE_A));
    EXPECT_THROW(session.ldapSearch("example.com", "(objectClass=*)", ZONE_A, {}, 1, 0, true),
                 tessa::IPCException);
}

TEST_F(DaemonTest, ZoneChangesWithTheConfiguration) {
    configure(ZONE_A);
    writeDirectory("nis.one");
    const auto daemon = running();
    LocalRpcSession session(m_places.socket, true, false); // keeps its connection
    EXPECT_EQ(ZONE_A, session.loadSetting(tessa::SETTING_ZONE_NAME));
    configure(ZONE_B);
    daemon->reconfigure();
    EXPECT_TRUE(
        eventually([&] { return session.loadSetting(tessa::SETTING_ZONE_NAME) == ZONE_B; }));
}

TEST_F(DaemonTest, DirectoryChangesWithTheConfiguration) {
    configure(ZONE_A);
    writeDirectory("nis.one");
    writeDirectory("nis.two", "other.ldif");
    const auto daemon = running();
    EXPECT_EQ("nis.one", nisDomain());
    configure(ZONE_A, "other.ldif");
    daemon->reconfigure();
    EXPECT_TRUE(eventually([&] {
        try {
            return nisDomain() == "nis.two";
        } catch (const tessa::TESSAException&) { // the socket is away for a moment
            return false;
        }
    }));
    EXPECT_FALSE(daemon->failed());
}

TEST_F(DaemonTest, UnusableConfigurationIsNotTakenOver) {
    configure(ZONE_A);
    writeDirectory("nis.one");
    const StandardErrorFile log(m_folder + "/log");
    const auto daemon = running();
    std::size_t refusals = 0;
    const auto refusedAgain = [&] {
        daemon->reconfigure();
        ++refusals;
        return eventually([&] { return log.count("Configuration not changed") == refusals; });
    };
    for (const char* wrong :
         {"quorad.zone: no name\n", "quorad.directory: nonsense\n",
          "quorad.directory: ldif:relative.ldif\n", "quorad.directory: ldap://\n"}) {
        configure(ZONE_B, "directory.ldif", wrong);
        EXPECT_TRUE(refusedAgain()) << wrong;
        EXPECT_EQ(ZONE_A, setting(tessa::SETTING_ZONE_NAME)) << wrong;
        EXPECT_EQ("nis.one", nisDomain()) << wrong;
    }
    std::filesystem::remove(m_places.configuration);
    EXPECT_TRUE(refusedAgain());
    EXPECT_EQ(ZONE_A, setting(tessa::SETTING_ZONE_NAME));
    EXPECT_FALSE(daemon->failed());
}

TEST_F(DaemonTest, UnusableConfigurationAtStartIsBadData) {
    for (const char* wrong :
         {"quorad.zone: no name\n", "quorad.directory: nonsense\n", "quorad.directory: ldif:\n",
          "quorad.directory: ldap: ldap://dc1.example.com\n",
          "quorad.directory: ldap:\nquorad.ldap.auth: anonymous\n"}) {
        configure(ZONE_A, "directory.ldif", wrong);
        EXPECT_THROW(Daemon(m_places, false), tessa::BadDataException) << wrong;
    }
    configure(ZONE_A, "directory.ldif", "quorad.directory: ldap:\nquorad.ldap.auth: simple\n");
    try {
        const Daemon daemon(m_places, false);
        ADD_FAILURE() << "taken";
    } catch (const tessa::BadDataException& error) {
        EXPECT_NE(std::string::npos, error.message().find("quorad.ldap.bind.dn"))
            << error.message();
    }
}

TEST_F(DaemonTest, SocketOfARunningDaemonIsNotTaken) {
    configure(ZONE_A);
    const auto daemon = running();
    Places other = m_places;
    other.stateDirectory = m_folder + "/other";
    std::filesystem::create_directory(other.stateDirectory);
    Daemon second(other, false);
    EXPECT_THROW(second.serve(), std::runtime_error);
    EXPECT_EQ(ZONE_A, setting(tessa::SETTING_ZONE_NAME));
}

TEST_F(DaemonTest, SocketIsRootsUntilOthersAreAllowed) {
    configure(ZONE_A);
    const auto daemon = running();
    const auto mode = [&] {
        struct stat status {};
        EXPECT_EQ(0, ::stat(m_places.socket.c_str(), &status));
        return status.st_mode & 07777U;
    };
    EXPECT_EQ(0600U, mode());
    configure(ZONE_A, "directory.ldif", "quorad.socket.allow: 65534\n");
    daemon->reconfigure();
    EXPECT_TRUE(eventually([&] { return mode() == 0666U; }));
    configure(ZONE_A);
    daemon->reconfigure();
    EXPECT_TRUE(eventually([&] { return mode() == 0600U; }));
}

TEST_F(DaemonTest, StopRemovesTheSocket) {
    configure(ZONE_A);
    const auto daemon = running();
    LocalRpcSession session(m_places.socket, true, true);
    daemon->stop();
    EXPECT_FALSE(std::filesystem::exists(m_places.socket));
    EXPECT_THROW(session.loadSetting("zonename"), tessa::TESSAException);
}

TEST(SocketAllowTest, RootAndTheNamedUsersMayCome) {
    SocketAllow allow;
    EXPECT_TRUE(allow.permits(0));
    EXPECT_TRUE(allow.permits(::geteuid()));
    EXPECT_FALSE(allow.permits(54321));
    EXPECT_EQ(0600U, allow.socketMode());
    const passwd* const daemonUser = ::getpwnam("daemon");
    ASSERT_NE(nullptr, daemonUser);
    const uid_t daemonNumber = daemonUser->pw_uid;
    allow.set({"54321", "daemon", "no-such-user-here", "-1", "4294967295", "12x"});
    EXPECT_TRUE(allow.permits(54321));
    EXPECT_TRUE(allow.permits(daemonNumber));
    EXPECT_FALSE(allow.permits(12));
    EXPECT_FALSE(allow.permits(static_cast<uid_t>(-1)));
    EXPECT_EQ(0666U, allow.socketMode());
    allow.set({});
    EXPECT_FALSE(allow.permits(54321));
}

class NotifyTest : public ::testing::Test {
protected:
    void TearDown() override {
        ::unsetenv("NOTIFY_SOCKET");
        if (m_socket >= 0) {
            ::close(m_socket);
        }
    }
    // A manager that listens at that address.
    void listen(const std::string& path) {
        m_socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path.data(), path.size());
        if (path.front() == '@') {
            address.sun_path[0] = '\0';
        }
        const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
        ASSERT_EQ(0, ::bind(m_socket, reinterpret_cast<sockaddr*>(&address), length));
        ::setenv("NOTIFY_SOCKET", path.c_str(), 1);
    }
    std::string received() const {
        std::array<char, 64> text{};
        const ssize_t size = ::recv(m_socket, text.data(), text.size(), MSG_DONTWAIT);
        return size < 0 ? std::string() : std::string(text.data(), static_cast<std::size_t>(size));
    }
    int m_socket = -1;
};

TEST_F(NotifyTest, ManagerInTheFileSystemIsTold) {
    char pattern[] = "/tmp/notify-test-XXXXXX";
    const std::string folder = ::mkdtemp(pattern);
    listen(folder + "/socket");
    EXPECT_TRUE(notifyServiceManager("READY=1"));
    EXPECT_EQ("READY=1", received());
    std::filesystem::remove_all(folder);
}

TEST_F(NotifyTest, ManagerWithAnAbstractAddressIsTold) {
    listen("@notify-test-" + std::to_string(::getpid()));
    EXPECT_TRUE(notifyServiceManager("STOPPING=1"));
    EXPECT_EQ("STOPPING=1", received());
}

TEST_F(NotifyTest, NobodyToTellIsNoError) {
    ::unsetenv("NOTIFY_SOCKET");
    EXPECT_FALSE(notifyServiceManager("READY=1"));
    for (const char* address : {"", "/", "relative", "/nowhere/socket"}) {
        ::setenv("NOTIFY_SOCKET", address, 1);
        EXPECT_FALSE(notifyServiceManager("READY=1")) << address;
    }
    ::setenv("NOTIFY_SOCKET", ("/" + std::string(200, 'x')).c_str(), 1);
    EXPECT_FALSE(notifyServiceManager("READY=1"));
}

TEST(ReporterTest, BurstOfMessagesIsCutAndCounted) {
    const auto logger = boost::shared_ptr<tessa::Logger>(new tessa::Logger("reporter-test"));
    Reporter reporter(logger);
    ::testing::internal::CaptureStderr();
    for (int turn = 0; turn < 25; ++turn) {
        reporter.report("again");
    }
    const std::string burst = ::testing::internal::GetCapturedStderr();
    std::size_t lines = 0;
    for (std::size_t at = burst.find("again"); at != std::string::npos;
         at = burst.find("again", at + 1)) {
        ++lines;
    }
    EXPECT_EQ(std::size_t{Reporter::BURST}, lines);
    ::testing::internal::CaptureStderr();
    const auto later = std::chrono::steady_clock::now() + 2 * Reporter::PERIOD;
    reporter.flush(later);
    reporter.flush(later + Reporter::PERIOD);
    const std::string rest = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos, rest.find("15 further messages")) << rest;
    EXPECT_EQ(rest.find("further"), rest.rfind("further"));
}

TEST(DirectoryHealthTest, OnlyChangesAreTold) {
    const auto logger = boost::shared_ptr<tessa::Logger>(new tessa::Logger("health-test"));
    DirectoryHealth health(logger);
    ::testing::internal::CaptureStderr();
    health.succeeded();
    health.failed("one");
    health.failed("two");
    health.succeeded();
    health.succeeded();
    const std::string text = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos, text.find("cannot be asked: one")) << text;
    EXPECT_EQ(std::string::npos, text.find("two")) << text;
    EXPECT_NE(std::string::npos, text.find("answers again")) << text;
    EXPECT_EQ(text.find("answers again"), text.rfind("answers again"));
}

} // namespace
