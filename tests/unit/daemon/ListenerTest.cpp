#include "daemon/transport/Listener.h"

#include "daemon/transport/Poller.h"
#include "daemon/transport/Worker.h"
#include "unit/daemon/RpcTestSupport.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <list>

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace {

/// Counts what the poller tells it.
class Counter final : public nis::EventSource {
public:
    void onReady(nis::Worker&) override { ++told; }
    int told = 0;
};

/// One thread that waits for events whenever the test says so.
class Listener : public testing::Test {
protected:
    Listener() {
        socket.bind(test::loopback(0));
        EXPECT_EQ(::listen(socket.descriptor(), 10), 0);
        EXPECT_TRUE(poller.add(last, 0, none));
        listener.emplace(poller, socket.descriptor(), clients);
        listener->enter();
    }
    void TearDown() override { close(last); }

    void connect() { connected.emplace_back(socket.port()); }
    /// The turn has the listener, as after a client was reported.
    void take() { ASSERT_TRUE(listener->disarm()); }
    /// @return the source of the next event, which has been dealt with
    nis::EventSource* next() {
        nis::EventSource* source = nullptr;
        while (source == nullptr) {
            source = poller.wait(); // null after a signal
        }
        source->onReady(worker);
        return source;
    }
    /// The next event is a look at the call under way.
    void expectLook() {
        const int told = clients.told;
        const nis::EventSource* source = next();
        EXPECT_NE(source, &clients);
        EXPECT_NE(source, &none);
        EXPECT_EQ(clients.told, told);
    }
    /// The second look at a call arms the listener, for which a client waits.
    void expectALongCallIsNoticed() {
        const nis::Listener::Call call = listener->beginCall();
        expectLook();
        expectLook();
        EXPECT_EQ(next(), &clients);
        EXPECT_FALSE(listener->endCall(call));
    }
    /// Nothing happens for longer than looks are apart.
    void expectQuiet() {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        // Events are reported in the order in which they came.
        ASSERT_TRUE(poller.rearm(last, EPOLLOUT | EPOLLONESHOT, none));
        EXPECT_EQ(next(), &none);
    }

    nis::Poller poller;
    nis::Worker worker;
    Counter clients;
    Counter none;
    int last = eventfd(0, EFD_CLOEXEC);
    test::Socket socket{SOCK_STREAM};
    std::list<test::TcpClient> connected;
    std::optional<nis::Listener> listener;
};

TEST_F(Listener, reports_a_client_once_for_each_time_it_is_armed) {
    connect();
    EXPECT_EQ(next(), &clients);
    connect();
    expectQuiet();
    listener->arm();
    EXPECT_EQ(next(), &clients);
}

TEST_F(Listener, disarmed_it_reports_nobody) {
    take();
    connect();
    expectQuiet();
    listener->arm();
    EXPECT_EQ(next(), &clients);
}

TEST_F(Listener, removed_it_reports_nobody_and_cannot_be_disarmed) {
    listener->remove();
    connect();
    listener->arm();
    expectQuiet();
    EXPECT_FALSE(listener->disarm());
}

TEST_F(Listener, a_short_call_leaves_it_with_the_turn) {
    take();
    connect();
    const nis::Listener::Call call = listener->beginCall();
    EXPECT_TRUE(listener->endCall(call));
    expectLook();
    listener->leave();
    expectLook();
    expectQuiet();
}

TEST_F(Listener, calls_one_after_the_other_do_not_take_long) {
    take();
    connect();
    for (int i = 0; i < 4; ++i) {
        const nis::Listener::Call call = listener->beginCall();
        expectLook();
        EXPECT_TRUE(listener->endCall(call));
    }
}

TEST_F(Listener, each_call_that_two_looks_see_takes_long) {
    for (int i = 0; i < 3; ++i) {
        take();
        connect();
        expectALongCallIsNoticed();
    }
}

TEST_F(Listener, looks_end_with_the_last_turn_and_begin_again_with_the_next_call) {
    take();
    connect();
    EXPECT_TRUE(listener->endCall(listener->beginCall()));
    listener->leave();
    expectLook();
    expectQuiet();
    listener->enter();
    expectALongCallIsNoticed();
}

TEST_F(Listener, of_two_turns_that_believe_they_have_it_the_later_one_does) {
    listener->enter();
    const nis::Listener::Call first = listener->beginCall();
    const nis::Listener::Call second = listener->beginCall();
    EXPECT_FALSE(listener->endCall(first));
    EXPECT_TRUE(listener->endCall(second));
    EXPECT_FALSE(listener->endCall(second));
    EXPECT_EQ(listener->turns(), 2);
}

} // namespace
