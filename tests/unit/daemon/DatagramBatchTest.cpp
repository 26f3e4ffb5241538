#include "daemon/transport/DatagramBatch.h"

#include "RpcTestSupport.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <thread>
#include <vector>

#include <sys/socket.h>

namespace {

using nis::DATAGRAM_MAX;
using nis::DatagramBatch;
using test::UdpClient;

constexpr std::chrono::milliseconds A_MOMENT{50};

class DatagramBatchTest : public testing::Test {
protected:
    /// A batch with its buffers.
    struct Buffered {
        explicit Buffered(int socket) : batch(socket, in, out) {}
        std::vector<char> in = std::vector<char>(DatagramBatch::BUFFER);
        std::vector<char> out = std::vector<char>(DatagramBatch::BUFFER);
        DatagramBatch batch;
    };

    DatagramBatchTest() : m_client(bound(m_socket)) {}

    static std::uint16_t bound(test::Socket& socket) {
        socket.bind(test::loopback(0));
        return socket.port();
    }

    static std::string text(DatagramBatch& batch, unsigned index) {
        const std::span<char> call = batch.call(index);
        return {call.data(), call.size()};
    }
    static void answer(DatagramBatch& batch, unsigned index, const std::string& reply) {
        reply.copy(batch.replyBuffer(index).data(), reply.size());
        batch.setReply(index, reply.size());
    }
    /// Serves the next one: its reply is its text with a mark.
    static std::string serveNext(DatagramBatch& batch) {
        const unsigned index = batch.next();
        if (index == DatagramBatch::NONE) {
            return "(none)";
        }
        answer(batch, index, text(batch, index) + "!");
        return text(batch, index);
    }
    /// Has that many in a batch that is new: it asks for one, for two, for four and then for more.
    static void fill(UdpClient& client, DatagramBatch& batch, unsigned count) {
        for (const unsigned expected : {1U, 2U, 4U, count}) {
            for (unsigned i = 0; i < expected; ++i) {
                client.send("call " + std::to_string(i));
            }
            ASSERT_EQ(batch.receive(MSG_DONTWAIT), expected);
        }
    }
    static std::set<std::string> receiveAll(UdpClient& client) {
        std::set<std::string> texts;
        while (const auto text = client.receive(A_MOMENT)) {
            texts.insert(*text);
        }
        return texts;
    }

    test::Socket m_socket{SOCK_DGRAM};
    Buffered m_owner{m_socket.descriptor()};
    DatagramBatch& m_batch = m_owner.batch;
    UdpClient m_client;
};

TEST_F(DatagramBatchTest, NothingThereIsNothingToServe) {
    EXPECT_EQ(m_batch.next(), DatagramBatch::NONE);
    EXPECT_EQ(m_batch.receive(MSG_DONTWAIT), 0U);
    EXPECT_EQ(m_batch.next(), DatagramBatch::NONE);
    EXPECT_FALSE(m_batch.takenOver());
    m_batch.sendReplies();
}

TEST_F(DatagramBatchTest, ManyAreReceivedAtOnceAndAnsweredInOrder) {
    fill(m_client, m_batch, DatagramBatch::MOST);
    for (unsigned i = 0; i < DatagramBatch::MOST; ++i) {
        EXPECT_EQ(serveNext(m_batch), "call " + std::to_string(i));
    }
    EXPECT_EQ(serveNext(m_batch), "(none)");
    EXPECT_EQ(m_client.receive(A_MOMENT), std::nullopt) << "replies leave together";
    m_batch.sendReplies();
    for (unsigned i = 0; i < DatagramBatch::MOST; ++i) {
        EXPECT_EQ(m_client.receive(), "call " + std::to_string(i) + "!");
    }
    m_batch.sendReplies();
    EXPECT_EQ(m_client.receive(A_MOMENT), std::nullopt) << "once";
}

TEST_F(DatagramBatchTest, CallsWithoutAReplyAndFromOthersKeepTheirs) {
    UdpClient other(m_socket.port());
    fill(m_client, m_batch, 2);
    m_client.send("one");
    other.send("two");
    ASSERT_EQ(m_batch.receive(MSG_DONTWAIT), 2U);
    const unsigned silent = m_batch.next();
    EXPECT_EQ(text(m_batch, silent), "one");
    EXPECT_EQ(serveNext(m_batch), "two");
    m_batch.sendReplies();
    EXPECT_EQ(other.receive(), "two!");
    EXPECT_EQ(m_client.receive(A_MOMENT), std::nullopt);
}

TEST_F(DatagramBatchTest, WhatDoesNotFitIsEmpty) {
    m_client.send(std::string(DATAGRAM_MAX, 'x'));
    ASSERT_EQ(m_batch.receive(MSG_DONTWAIT), 1U);
    EXPECT_EQ(m_batch.call(m_batch.next()).size(), DATAGRAM_MAX);
    m_client.send(std::string(DATAGRAM_MAX + 1, 'x'));
    ASSERT_EQ(m_batch.receive(MSG_DONTWAIT), 1U);
    EXPECT_TRUE(m_batch.call(m_batch.next()).empty());
}

TEST_F(DatagramBatchTest, AReplyThatCannotBeSentDoesNotStopTheOthers) {
    fill(m_client, m_batch, 3);
    for (unsigned i = 0; i < 3; ++i) {
        const unsigned index = m_batch.next();
        answer(m_batch, index, "reply " + std::to_string(i));
        if (i == 1) {
            const_cast<sockaddr_in&>(m_batch.peer(index)).sin_port = 0; // NOLINT: no such port
        }
    }
    m_batch.sendReplies();
    EXPECT_EQ(receiveAll(m_client), (std::set<std::string>{"reply 0", "reply 2"}));
}

TEST_F(DatagramBatchTest, WhatAStuckOwnerHasNotBegunIsTakenOver) {
    fill(m_client, m_batch, 4);
    serveNext(m_batch);
    const unsigned stuck = m_batch.next();
    Buffered helper(m_socket.descriptor());
    ASSERT_EQ(helper.batch.takeOver(m_batch), 2U);
    EXPECT_EQ(receiveAll(m_client), std::set<std::string>{"call 0!"}) << "was finished";
    EXPECT_EQ(serveNext(helper.batch), "call 2");
    EXPECT_EQ(serveNext(helper.batch), "call 3");
    EXPECT_EQ(serveNext(helper.batch), "(none)");
    helper.batch.sendReplies();
    EXPECT_EQ(receiveAll(m_client), (std::set<std::string>{"call 2!", "call 3!"}));

    answer(m_batch, stuck, "late");
    EXPECT_FALSE(m_batch.takenOver());
    EXPECT_EQ(serveNext(m_batch), "(none)");
    EXPECT_TRUE(m_batch.takenOver());
    m_batch.sendReplies();
    EXPECT_EQ(receiveAll(m_client), std::set<std::string>{"late"});
}

TEST_F(DatagramBatchTest, AnOwnerThatHasNotBegunLosesEverything) {
    fill(m_client, m_batch, 3);
    Buffered helper(m_socket.descriptor());
    ASSERT_EQ(helper.batch.takeOver(m_batch), 3U);
    EXPECT_EQ(serveNext(m_batch), "(none)");
    EXPECT_TRUE(m_batch.takenOver());
    m_batch.sendReplies();
    EXPECT_EQ(receiveAll(m_client), std::set<std::string>{});
    EXPECT_EQ(serveNext(helper.batch), "call 0");
}

TEST_F(DatagramBatchTest, AnOwnerWithItsLastCallLosesNothing) {
    fill(m_client, m_batch, 2);
    serveNext(m_batch);
    const unsigned last = m_batch.next();
    Buffered helper(m_socket.descriptor());
    EXPECT_EQ(helper.batch.takeOver(m_batch), 0U);
    EXPECT_EQ(receiveAll(m_client), std::set<std::string>{"call 0!"});
    answer(m_batch, last, "last");
    EXPECT_EQ(m_batch.next(), DatagramBatch::NONE);
    m_batch.sendReplies();
    EXPECT_EQ(receiveAll(m_client), std::set<std::string>{"last"});
}

TEST_F(DatagramBatchTest, AnOwnerThatReceivesIsLeftAlone) {
    Buffered helper(m_socket.descriptor());
    EXPECT_EQ(helper.batch.takeOver(m_batch), std::nullopt) << "before its first datagram";
    fill(m_client, m_batch, 2);
    serveNext(m_batch);
    serveNext(m_batch);
    EXPECT_EQ(serveNext(m_batch), "(none)");
    EXPECT_EQ(helper.batch.takeOver(m_batch), std::nullopt) << "behind its last call";
    m_batch.sendReplies();
    EXPECT_EQ(receiveAll(m_client), (std::set<std::string>{"call 0!", "call 1!"}));
    m_client.send("next");
    ASSERT_EQ(m_batch.receive(MSG_DONTWAIT), 1U);
    EXPECT_EQ(helper.batch.takeOver(m_batch), 1U) << "but not for ever";
    EXPECT_EQ(serveNext(helper.batch), "next");
    EXPECT_EQ(serveNext(m_batch), "(none)");
    EXPECT_EQ(helper.batch.takeOver(m_batch), std::nullopt) << "once";
}

TEST_F(DatagramBatchTest, EveryCallIsServedOnceWhoeverIsFaster) {
    Buffered helper(m_socket.descriptor());
    fill(m_client, m_batch, DatagramBatch::MOST);
    for (int round = 0; round < 300; ++round) {
        while (serveNext(m_batch) != "(none)") {
        }
        for (unsigned i = 0; i < DatagramBatch::MOST; ++i) {
            m_client.send("call");
        }
        ASSERT_EQ(m_batch.receive(MSG_DONTWAIT), DatagramBatch::MOST);
        unsigned served = 0;
        std::thread other([&] {
            if (helper.batch.takeOver(m_batch).value_or(0) > 0) {
                while (helper.batch.next() != DatagramBatch::NONE) {
                    ++served;
                }
            }
        });
        unsigned own = 0;
        while (m_batch.next() != DatagramBatch::NONE) {
            ++own;
        }
        other.join();
        ASSERT_EQ(own + served, DatagramBatch::MOST);
    }
}

} // namespace
