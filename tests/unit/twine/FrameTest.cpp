#include <twine/Errors.h>
#include <twine/Frame.h>

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <string>
#include <thread>

#include <arpa/inet.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using std::chrono::milliseconds;
using twine::Clock;

Clock::time_point in(int ms) {
    return Clock::now() + milliseconds(ms);
}
Clock::time_point generous() {
    return in(20000);
}

class FrameTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, m_ends));
    }
    void TearDown() override {
        closeEnd(0);
        closeEnd(1);
    }
    void closeEnd(int end) {
        if (m_ends[end] >= 0) {
            ::close(m_ends[end]);
            m_ends[end] = -1;
        }
    }
    void sendRaw(const std::string& bytes) const {
        ASSERT_EQ(static_cast<ssize_t>(bytes.size()),
                  ::send(m_ends[0], bytes.data(), bytes.size(), MSG_NOSIGNAL));
    }
    static std::string header(std::uint32_t length) {
        const std::uint32_t word = htonl(length);
        std::string bytes(sizeof(word), '\0');
        std::memcpy(bytes.data(), &word, sizeof(word));
        return bytes;
    }

    int m_ends[2] = {-1, -1};
};

TEST_F(FrameTest, PayloadIsCarriedUnchanged) {
    const std::string sent("a\0b\xFF", 4);
    twine::writeFrame(m_ends[0], sent, generous());
    std::string got;
    ASSERT_TRUE(twine::readFrame(m_ends[1], got, generous()));
    EXPECT_EQ(sent, got);
}

TEST_F(FrameTest, LengthIsBigEndianInFrontOfThePayload) {
    twine::writeFrame(m_ends[0], "abc", generous());
    char raw[7];
    ASSERT_EQ(7, ::recv(m_ends[1], raw, sizeof(raw), MSG_WAITALL));
    EXPECT_EQ(std::string("\0\0\0\3abc", 7), std::string(raw, 7));
}

TEST_F(FrameTest, EmptyFrameIsAFrame) {
    twine::writeFrame(m_ends[0], "", generous());
    std::string got = "old";
    ASSERT_TRUE(twine::readFrame(m_ends[1], got, generous()));
    EXPECT_EQ("", got);
}

TEST_F(FrameTest, LargestFramePassesThroughASmallSocketBuffer) {
    std::string sent(twine::MAX_FRAME, '\0');
    for (std::size_t at = 0; at < sent.size(); ++at) {
        sent[at] = static_cast<char>(at * 7 + at / 251);
    }
    std::thread writer([&] { twine::writeFrame(m_ends[0], sent, generous()); });
    std::string got;
    EXPECT_TRUE(twine::readFrame(m_ends[1], got, generous()));
    writer.join();
    EXPECT_TRUE(sent == got);
}

TEST_F(FrameTest, TooLargePayloadIsNotSent) {
    const std::string large(twine::MAX_FRAME + 1, 'x');
    EXPECT_THROW(twine::writeFrame(m_ends[0], large, generous()), twine::FrameError);
    char byte = 0;
    EXPECT_EQ(-1, ::recv(m_ends[1], &byte, 1, MSG_DONTWAIT));
    EXPECT_EQ(EAGAIN, errno);
}

TEST_F(FrameTest, TooLargeAnnouncedLengthIsRefused) {
    for (const std::uint32_t length : {twine::MAX_FRAME + 1, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
        sendRaw(header(length));
        std::string got;
        EXPECT_THROW(twine::readFrame(m_ends[1], got, generous()), twine::FrameError) << length;
    }
}

TEST_F(FrameTest, AnnouncedBytesThatNeverComeCostNoMemory) {
    sendRaw(header(twine::MAX_FRAME) + "few");
    std::string got;
    EXPECT_THROW(twine::readFrame(m_ends[1], got, in(50)), twine::CallError);
    EXPECT_LE(got.capacity(), 128U * 1024);
}

TEST_F(FrameTest, CloseBeforeTheFirstByteIsAnOrderlyEnd) {
    closeEnd(0);
    std::string got;
    EXPECT_FALSE(twine::readFrame(m_ends[1], got, generous()));
}

TEST_F(FrameTest, CloseInsideTheHeaderOrThePayloadIsAnError) {
    sendRaw(std::string("\0\0", 2));
    closeEnd(0);
    std::string got;
    EXPECT_THROW(twine::readFrame(m_ends[1], got, generous()), twine::FrameError);

    closeEnd(1);
    SetUp();
    sendRaw(header(10) + "12345");
    closeEnd(0);
    EXPECT_THROW(twine::readFrame(m_ends[1], got, generous()), twine::FrameError);
}

TEST_F(FrameTest, HalfAFrameEndsAtTheDeadline) {
    sendRaw(std::string("\0\0\0", 3));
    std::string got;
    EXPECT_THROW(twine::readFrame(m_ends[1], got, in(30)), twine::CallError);
}

TEST_F(FrameTest, FrameInSingleBytesIsRead) {
    const std::string raw = header(5) + "hello";
    std::thread writer([&] {
        for (const char c : raw) {
            sendRaw(std::string(1, c));
        }
    });
    std::string got;
    EXPECT_TRUE(twine::readFrame(m_ends[1], got, generous()));
    writer.join();
    EXPECT_EQ("hello", got);
}

TEST_F(FrameTest, WritingToAPeerThatDoesNotReadEndsAtTheDeadline) {
    const std::string large(twine::MAX_FRAME, 'x');
    EXPECT_THROW(twine::writeFrame(m_ends[0], large, in(50)), twine::CallError);
}

TEST_F(FrameTest, WritingToAClosedPeerRaisesNoSignal) {
    closeEnd(1);
    EXPECT_THROW(twine::writeFrame(m_ends[0], "x", generous()), twine::CallError);
}

} // namespace
