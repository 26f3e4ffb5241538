#include "daemon/transport/RecordWriter.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include <arpa/inet.h>

namespace {

/// Keeps the fragments; refuses from a given one on.
class Sink final : public nis::RecordSink {
public:
    bool sendAll(const char* data, std::size_t size) override {
        if (fragments.size() >= refuseFrom) {
            return false;
        }
        fragments.emplace_back(data, size);
        return true;
    }
    void longRecord() override { ++longRecords; }
    int longRecords = 0;
    std::vector<std::string> fragments;
    std::size_t refuseFrom = SIZE_MAX;
};

std::uint32_t word(const std::string& bytes, std::size_t at) {
    std::uint32_t value = 0;
    bytes.copy(reinterpret_cast<char*>(&value), sizeof value, at);
    return ntohl(value);
}

class RecordWriter : public testing::Test {
protected:
    alignas(8) char buffer[4 + 16] = {};
    Sink sink;
    nis::RecordWriter writer{buffer, sink};
};

TEST_F(RecordWriter, a_small_record_is_one_last_fragment) {
    u_int value = 0x01020304;
    ASSERT_EQ(xdr_u_int(writer.xdr(), &value), TRUE);
    EXPECT_FALSE(writer.committed());
    ASSERT_TRUE(writer.finish());
    ASSERT_EQ(sink.fragments.size(), 1U);
    EXPECT_EQ(word(sink.fragments[0], 0), 0x80000004U);
    EXPECT_EQ(word(sink.fragments[0], 4), 0x01020304U);
    EXPECT_EQ(sink.longRecords, 0);
}

TEST_F(RecordWriter, a_full_buffer_goes_out_as_a_fragment_that_is_not_the_last) {
    std::string bytes = "abcdefghijklmnopqrstuvwxyz0123456789";
    ASSERT_EQ(xdr_opaque(writer.xdr(), bytes.data(), 36), TRUE);
    EXPECT_TRUE(writer.committed());
    EXPECT_EQ(xdr_getpos(writer.xdr()), 36U);
    ASSERT_TRUE(writer.finish());
    ASSERT_EQ(sink.fragments.size(), 3U);
    EXPECT_EQ(word(sink.fragments[0], 0), 16U);
    EXPECT_EQ(word(sink.fragments[1], 0), 16U);
    EXPECT_EQ(word(sink.fragments[2], 0), 0x80000004U);
    std::string payload;
    for (const std::string& fragment : sink.fragments) {
        payload += fragment.substr(4);
    }
    EXPECT_EQ(payload, bytes);
    EXPECT_EQ(sink.longRecords, 1);
}

TEST_F(RecordWriter, room_in_one_piece_is_given_only_where_there_is) {
    EXPECT_NE(XDR_INLINE(writer.xdr(), 12), nullptr);
    EXPECT_EQ(XDR_INLINE(writer.xdr(), 8), nullptr);
    EXPECT_NE(XDR_INLINE(writer.xdr(), 4), nullptr);
    EXPECT_EQ(xdr_getpos(writer.xdr()), 16U);
    EXPECT_TRUE(sink.fragments.empty());
}

TEST_F(RecordWriter, a_refused_fragment_fails_everything_after_it) {
    sink.refuseFrom = 1;
    std::string bytes(40, 'x');
    EXPECT_EQ(xdr_opaque(writer.xdr(), bytes.data(), 40), FALSE);
    EXPECT_TRUE(writer.committed());
    EXPECT_FALSE(writer.finish());
    EXPECT_EQ(sink.fragments.size(), 1U);
}

TEST_F(RecordWriter, it_only_encodes) {
    u_int value = 0;
    writer.xdr()->x_op = XDR_DECODE;
    EXPECT_EQ(xdr_u_int(writer.xdr(), &value), FALSE);
    char byte = 0;
    EXPECT_EQ(xdr_opaque(writer.xdr(), &byte, 1), FALSE);
    EXPECT_EQ(xdr_setpos(writer.xdr(), 0), FALSE);
}

} // namespace
