#include "daemon/transport/RecordReader.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace {

using nis::RecordReader;
using Status = RecordReader::Status;

std::string mark(std::uint32_t length, bool last) {
    const std::uint32_t value = length | (last ? 0x80000000U : 0);
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8) {
        bytes += static_cast<char>(value >> shift & 0xff);
    }
    return bytes;
}

std::string fragment(const std::string& bytes, bool last) {
    return mark(static_cast<std::uint32_t>(bytes.size()), last) + bytes;
}

/// Feeds the stream in pieces of a size.
/// @return the records, and "bogus" where the stream ended so
std::vector<std::string> read(RecordReader& reader, std::string stream, std::size_t piece) {
    std::vector<std::string> records;
    for (std::size_t at = 0; at < stream.size(); at += piece) {
        std::span<char> input(stream.data() + at, std::min(piece, stream.size() - at));
        while (!input.empty()) {
            std::span<char> record;
            const Status status = reader.feed(input, record);
            if (status == Status::Bogus) {
                records.emplace_back("bogus");
                return records;
            }
            if (status == Status::Complete) {
                records.emplace_back(record.begin(), record.end());
            }
        }
    }
    return records;
}

using Records = std::vector<std::string>;

class RecordReaderPieces : public testing::TestWithParam<std::size_t> {};

TEST_P(RecordReaderPieces, records_come_out_whole_and_in_order) {
    RecordReader reader(1000);
    const std::string stream = fragment("first", true) + fragment("se", false) +
                               fragment("con", false) + fragment("d", true) +
                               fragment(std::string(1000, 'x'), true) + fragment("", false) +
                               fragment("four", true);
    EXPECT_EQ(read(reader, stream, GetParam()),
              (Records{"first", "second", std::string(1000, 'x'), "four"}));
    EXPECT_FALSE(reader.inRecord());
}

TEST_P(RecordReaderPieces, half_a_record) {
    RecordReader reader(1000);
    EXPECT_EQ(read(reader, fragment("first", true) + mark(5, true) + "1234", GetParam()),
              Records{"first"});
    EXPECT_TRUE(reader.inRecord());
    EXPECT_EQ(read(reader, "5", GetParam()), Records{"12345"});
    EXPECT_FALSE(reader.inRecord());
}

TEST_P(RecordReaderPieces, a_mark_that_promises_too_much) {
    for (const std::uint32_t length : {1001U, 0x7fffffffU}) {
        for (const bool last : {false, true}) {
            RecordReader reader(1000);
            EXPECT_EQ(read(reader, mark(length, last) + "data", GetParam()), Records{"bogus"});
        }
    }
}

TEST_P(RecordReaderPieces, fragments_that_are_too_much_together) {
    RecordReader reader(1000);
    const std::string half(501, 'x');
    EXPECT_EQ(read(reader, fragment(half, false) + fragment(half, true), GetParam()),
              Records{"bogus"});
}

TEST_P(RecordReaderPieces, endless_empty_fragments) {
    RecordReader reader(1000);
    std::string stream;
    for (int i = 0; i < 100; ++i) {
        stream += mark(0, false);
    }
    EXPECT_EQ(read(reader, stream, GetParam()), Records{"bogus"});
}

TEST_P(RecordReaderPieces, an_empty_record) {
    RecordReader reader(1000);
    EXPECT_EQ(read(reader, mark(0, true) + fragment("next", true), GetParam()),
              (Records{"", "next"}));
}

INSTANTIATE_TEST_SUITE_P(Sizes, RecordReaderPieces, testing::Values(1, 2, 3, 4, 5, 7, 64, 100000),
                         testing::PrintToStringParamName());

TEST(RecordReader, a_whole_record_is_not_copied) {
    RecordReader reader(1000);
    std::string stream = fragment("record", true);
    std::span<char> input(stream);
    std::span<char> record;
    ASSERT_EQ(reader.feed(input, record), Status::Complete);
    EXPECT_EQ(record.data(), stream.data() + 4);
    EXPECT_TRUE(input.empty());
}

} // namespace
