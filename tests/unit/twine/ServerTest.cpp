#include "TwineFixture.h"

#include <twine/Client.h>
#include <twine/Errors.h>
#include <twine/Frame.h>
#include <twine/Server.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

namespace {

using namespace twine;
using std::chrono::milliseconds;
using twine::testing::eventually;
using twine::testing::Reports;
using twine::testing::SocketFolder;

constexpr milliseconds LIMIT(20000);

class Echo : public Conversation {
public:
    std::string answer(std::string_view request) override {
        if (request == "fail") {
            throw std::runtime_error("asked to fail");
        }
        m_last = request;
        return "<" + m_last + ">";
    }
    void answered() override {
        ++afterwards;
        if (m_last == "fail afterwards") {
            throw std::runtime_error("failed afterwards");
        }
    }

    static inline std::atomic<int> afterwards{0};

private:
    std::string m_last;
};

class ServerTest : public ::testing::Test {
protected:
    ServerOptions options() {
        ServerOptions made;
        made.socketPath = m_folder.socket();
        made.converse = [](const Peer&) { return std::make_unique<Echo>(); };
        made.report = [this](const std::string& text) { m_reports.add(text); };
        return made;
    }
    std::unique_ptr<Client> connected() const {
        auto client = std::make_unique<Client>(m_folder.socket());
        client->connect(LIMIT);
        return client;
    }
    // Whether a new connection gets an answer.
    bool answers() const {
        try {
            return connected()->call("x", LIMIT) == "<x>";
        } catch (const CallError&) {
            return false;
        }
    }
    int rawConnection() const {
        const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        const std::string path = m_folder.socket();
        std::memcpy(address.sun_path, path.data(), path.size());
        EXPECT_EQ(0, ::connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
        return socket;
    }
    // Reads until the other side closes; what came is not looked at.
    static void awaitClose(int socket) {
        char byte = 0;
        while (::recv(socket, &byte, 1, 0) > 0) {
        }
        ::close(socket);
    }

    SocketFolder m_folder;
    Reports m_reports;
};

TEST_F(ServerTest, ConversationMayWorkOnAfterItsAnswer) {
    Server server(options());
    server.start();
    const auto client = connected();
    const int before = Echo::afterwards;
    EXPECT_EQ("<a>", client->call("a", LIMIT));
    EXPECT_TRUE(eventually([&] { return Echo::afterwards == before + 1; }));
    EXPECT_EQ("<fail afterwards>", client->call("fail afterwards", LIMIT));
    EXPECT_TRUE(eventually([this] { return m_reports.mention("failed afterwards"); }));
    EXPECT_THROW(client->call("b", LIMIT), CallError);
}

TEST_F(ServerTest, CallsAreAnsweredInTurnOnOneConnection) {
    Server server(options());
    server.start();
    const auto client = connected();
    for (int turn = 0; turn < 100; ++turn) {
        const std::string text = std::to_string(turn);
        EXPECT_EQ("<" + text + ">", client->call(text, LIMIT));
    }
    EXPECT_TRUE(m_reports.all().empty());
}

TEST_F(ServerTest, PeerIsWhoTheKernelSays) {
    std::atomic<bool> right{false};
    ServerOptions made = options();
    made.allow = [&](const Peer& peer) {
        right = peer.pid == ::getpid() && peer.uid == ::geteuid() && peer.gid == ::getegid();
        return true;
    };
    Server server(std::move(made));
    server.start();
    EXPECT_EQ("<x>", connected()->call("x", LIMIT));
    EXPECT_TRUE(right);
}

TEST_F(ServerTest, RefusedPeerIsClosedAndReported) {
    ServerOptions made = options();
    made.allow = [](const Peer&) { return false; };
    Server server(std::move(made));
    server.start();
    const auto client = connected();
    EXPECT_THROW(client->call("x", LIMIT), CallError);
    EXPECT_FALSE(client->connected());
    EXPECT_TRUE(m_reports.mention("process " + std::to_string(::getpid()) + " of user " +
                                  std::to_string(::geteuid()) + " is refused"));
}

TEST_F(ServerTest, SocketHasTheModeAskedFor) {
    ServerOptions made = options();
    made.socketMode = 0640;
    const Server server(std::move(made));
    struct stat status {};
    ASSERT_EQ(0, ::stat(m_folder.socket().c_str(), &status));
    EXPECT_EQ(0640U, status.st_mode & 07777U);
}

TEST_F(ServerTest, SocketsAreNotInheritedByPrograms) {
    Server server(options());
    server.start();
    const auto client = connected();
    client->call("x", LIMIT);
    // Through /proc, because the server's threads close descriptors of theirs at any moment.
    int open = 0;
    for (int number = 3; number < 64; ++number) {
        const std::string name = std::to_string(number);
        std::error_code none;
        const auto target = std::filesystem::read_symlink("/proc/self/fd/" + name, none);
        if (target.string().rfind("socket:", 0) != 0) {
            continue;
        }
        ++open;
        std::ifstream info("/proc/self/fdinfo/" + name);
        std::string word;
        unsigned flags = 0;
        while (info >> word && word != "flags:") {
        }
        info >> std::oct >> flags;
        EXPECT_NE(0U, flags & static_cast<unsigned>(O_CLOEXEC)) << name;
    }
    EXPECT_GE(open, 3); // listener, both ends
}

TEST_F(ServerTest, FailedConversationEndsOnlyItsConnection) {
    Server server(options());
    server.start();
    const auto other = connected();
    EXPECT_EQ("<x>", other->call("x", LIMIT));
    const auto client = connected();
    EXPECT_THROW(client->call("fail", LIMIT), CallError);
    EXPECT_TRUE(eventually([&] { return m_reports.mention("asked to fail"); }));
    EXPECT_EQ("<y>", other->call("y", LIMIT));
}

TEST_F(ServerTest, ConversationThatCannotBeMadeEndsTheConnection) {
    ServerOptions made = options();
    made.converse = [](const Peer&) -> std::unique_ptr<Conversation> {
        throw std::runtime_error("no conversation today");
    };
    Server server(std::move(made));
    server.start();
    EXPECT_THROW(connected()->call("x", LIMIT), CallError);
    EXPECT_TRUE(eventually([&] { return m_reports.mention("no conversation today"); }));
}

TEST_F(ServerTest, HugeAnnouncedFrameEndsTheConnectionAndIsReported) {
    Server server(options());
    server.start();
    const int socket = rawConnection();
    ASSERT_EQ(4, ::send(socket, "\x7F\xFF\xFF\xFF", 4, 0));
    awaitClose(socket);
    EXPECT_TRUE(eventually([&] { return m_reports.mention("2147483647 bytes announced"); }));
    EXPECT_TRUE(answers());
}

TEST_F(ServerTest, HalfSentRequestEndsAtItsDeadlineAndDisturbsNobody) {
    ServerOptions made = options();
    made.requestSeconds = 1;
    Server server(std::move(made));
    server.start();
    const int socket = rawConnection();
    ASSERT_EQ(6, ::send(socket, "\0\0\0\x09hi", 6, 0));
    EXPECT_TRUE(answers());
    awaitClose(socket);
    EXPECT_TRUE(eventually([&] { return m_reports.mention("deadline passed"); }));
}

TEST_F(ServerTest, ConnectionMayBeIdleBetweenRequests) {
    ServerOptions made = options();
    made.requestSeconds = 1;
    Server server(std::move(made));
    server.start();
    const auto client = connected();
    EXPECT_EQ("<x>", client->call("x", LIMIT));
    std::this_thread::sleep_for(milliseconds(1300));
    EXPECT_FALSE(client->broken());
    EXPECT_EQ("<y>", client->call("y", LIMIT));
}

TEST_F(ServerTest, ConnectionsBeyondTheLimitAreClosedUntilOneEnds) {
    ServerOptions made = options();
    made.maxConnections = 2;
    Server server(std::move(made));
    server.start();
    const auto first = connected();
    auto second = connected();
    EXPECT_EQ("<1>", first->call("1", LIMIT));
    EXPECT_EQ("<2>", second->call("2", LIMIT));
    EXPECT_FALSE(answers());
    EXPECT_TRUE(m_reports.mention("already 2 connections"));
    second.reset();
    EXPECT_TRUE(eventually([&] { return answers(); }));
    EXPECT_EQ("<3>", first->call("3", LIMIT));
}

TEST_F(ServerTest, ManyConnectionsAreServedAtOnce) {
    ServerOptions made = options();
    made.maxConnections = 200;
    Server server(std::move(made));
    server.start();
    std::vector<std::unique_ptr<Client>> clients;
    for (int number = 0; number < 200; ++number) {
        clients.push_back(connected());
    }
    for (int turn = 0; turn < 3; ++turn) {
        for (const auto& client : clients) {
            EXPECT_EQ("<x>", client->call("x", LIMIT));
        }
    }
}

TEST_F(ServerTest, CallsOfManyThreadsGetTheirOwnAnswers) {
    Server server(options());
    server.start();
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int number = 0; number < 8; ++number) {
        threads.emplace_back([&, number] {
            const auto client = connected();
            for (int turn = 0; turn < 200; ++turn) {
                const std::string text = std::to_string(number) + "/" + std::to_string(turn);
                wrong += client->call(text, LIMIT) == "<" + text + ">" ? 0 : 1;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(0, wrong);
}

TEST_F(ServerTest, StopEndsIdleAndHalfSentConnections) {
    auto server = std::make_unique<Server>(options());
    server->start();
    const auto idle = connected();
    EXPECT_EQ("<x>", idle->call("x", LIMIT));
    const int half = rawConnection();
    ASSERT_EQ(6, ::send(half, "\0\0\0\x09hi", 6, 0));
    server->stop();
    awaitClose(half);
    EXPECT_TRUE(idle->broken());
    EXPECT_THROW(idle->call("y", LIMIT), CallError);
    server->stop(); // again: nothing left to do
    server.reset();
    EXPECT_NE(0, ::access(m_folder.socket().c_str(), F_OK));
    Client late(m_folder.socket());
    EXPECT_THROW(late.connect(LIMIT), ConnectError);
}

TEST_F(ServerTest, ServerThatWasNeverStartedEnds) {
    Server server(options());
    server.stop();
}

TEST_F(ServerTest, StaleSocketIsReplaced) {
    const int dead = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = m_folder.socket();
    std::memcpy(address.sun_path, path.data(), path.size());
    ASSERT_EQ(0, ::bind(dead, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
    ::close(dead); // the file stays, nobody listens
    Server server(options());
    server.start();
    EXPECT_TRUE(answers());
}

TEST_F(ServerTest, SocketOfALiveServerIsNotTaken) {
    Server server(options());
    server.start();
    try {
        const Server second(options());
        FAIL() << "the socket was taken";
    } catch (const std::runtime_error& error) {
        EXPECT_NE(std::string::npos, std::string(error.what()).find("already in use"))
            << error.what();
    }
    EXPECT_TRUE(answers());
}

TEST_F(ServerTest, FileThatIsNoSocketIsLeftAlone) {
    std::ofstream(m_folder.socket()) << "precious";
    EXPECT_THROW(Server{options()}, std::runtime_error);
    std::string content;
    std::ifstream(m_folder.socket()) >> content;
    EXPECT_EQ("precious", content);
}

TEST_F(ServerTest, SocketOfASuccessorIsNotRemoved) {
    auto server = std::make_unique<Server>(options());
    ASSERT_EQ(0, ::unlink(m_folder.socket().c_str()));
    Server successor(options());
    successor.start();
    server.reset();
    EXPECT_TRUE(answers());
}

TEST_F(ServerTest, PathThatNoSocketCanHaveIsRefused) {
    ServerOptions made = options();
    made.socketPath = "/tmp/" + std::string(200, 'x');
    EXPECT_THROW(Server{std::move(made)}, std::invalid_argument);
    Client client("/tmp/" + std::string(200, 'x'));
    EXPECT_THROW(client.connect(LIMIT), ConnectError);
}

TEST_F(ServerTest, MissingFolderIsASystemError) {
    ServerOptions made = options();
    made.socketPath = m_folder.socket() + "/none/daemon";
    EXPECT_THROW(Server{std::move(made)}, std::system_error);
}

double processorSeconds() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// Descriptors run out while a client waits in the queue: the server rests instead of spinning, says
// so once, and serves the client when descriptors are free again.
TEST_F(ServerTest, RunningOutOfDescriptorsIsSurvivedWithoutSpinning) {
    Server server(options());
    server.start();
    EXPECT_TRUE(answers());
    rlimit before{};
    ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &before));
    const int waiting = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(waiting, 0);
    // No descriptor above the client's own may be made, and all below are taken.
    rlimit low = before;
    low.rlim_cur = static_cast<rlim_t>(waiting) + 1;
    std::vector<int> fillers;
    ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &low));
    for (int filler = ::dup(0); filler >= 0; filler = ::dup(0)) {
        fillers.push_back(filler);
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = m_folder.socket();
    std::memcpy(address.sun_path, path.data(), path.size());
    const double start = processorSeconds();
    const bool connectedNow =
        ::connect(waiting, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    const bool reported =
        eventually([&] { return m_reports.mention("cannot accept a connection"); });
    std::this_thread::sleep_for(milliseconds(1200));
    const double used = processorSeconds() - start;
    ::setrlimit(RLIMIT_NOFILE, &before);
    for (const int filler : fillers) {
        ::close(filler);
    }
    EXPECT_TRUE(connectedNow);
    EXPECT_TRUE(reported);
    EXPECT_LT(used, 0.6);
    EXPECT_EQ(1U, m_reports.all().size());
    writeFrame(waiting, "late", Clock::now() + LIMIT);
    std::string answer;
    EXPECT_TRUE(readFrame(waiting, answer, Clock::now() + LIMIT));
    EXPECT_EQ("<late>", answer);
    ::close(waiting);
}

TEST_F(ServerTest, ClientWithoutServerSaysWhichSocket) {
    Client client(m_folder.socket());
    try {
        client.connect(LIMIT);
        FAIL();
    } catch (const ConnectError& error) {
        EXPECT_NE(std::string::npos, std::string(error.what()).find(m_folder.socket()));
    }
    EXPECT_THROW(client.call("x", LIMIT), ConnectError);
}

TEST_F(ServerTest, ClientGivesUpOnAServerThatNeverAnswersAndClosesTheConnection) {
    class Silent : public Conversation {
    public:
        explicit Silent(const std::atomic<bool>& over) : m_over(over) {}
        std::string answer(std::string_view) override {
            eventually([&] { return m_over.load(); });
            return "late";
        }

    private:
        const std::atomic<bool>& m_over;
    };
    std::atomic<bool> over{false};
    ServerOptions made = options();
    made.converse = [&](const Peer&) { return std::make_unique<Silent>(over); };
    Server server(std::move(made));
    server.start();
    const auto client = connected();
    EXPECT_THROW(client->call("x", milliseconds(50)), CallError);
    EXPECT_FALSE(client->connected()); // a late answer can reach nobody
    over = true;
}

TEST_F(ServerTest, ClientNoticesThatTheServerWentAwayWhileIdle) {
    auto server = std::make_unique<Server>(options());
    server->start();
    const auto client = connected();
    EXPECT_EQ("<x>", client->call("x", LIMIT));
    EXPECT_FALSE(client->broken());
    server.reset();
    EXPECT_TRUE(client->broken());
    Server next(options());
    next.start();
    client->connect(LIMIT);
    EXPECT_EQ("<y>", client->call("y", LIMIT));
}

} // namespace
