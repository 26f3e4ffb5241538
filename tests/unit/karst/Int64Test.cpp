#include "karst/Int64.h"

#include "karst/Exceptions.h"

#include <gtest/gtest.h>

#include <cstdint>

using tessa::BadDataException;
using tessa::Int64;

namespace {

TEST(Int64Test, defaultIsZero) {
    EXPECT_EQ(Int64(), Int64::ZERO);
    EXPECT_EQ(Int64::ZERO.value(), 0);
    EXPECT_EQ(Int64::ZERO.toString(), "0");
}

TEST(Int64Test, textAndBack) {
    for (const std::int64_t number :
         {std::int64_t{0}, std::int64_t{-1}, std::int64_t{4711}, INT64_MAX, INT64_MIN}) {
        EXPECT_EQ(Int64::fromString(Int64(number).toString()).value(), number);
    }
    EXPECT_EQ(Int64::fromString("+17").value(), 17);
    EXPECT_EQ(Int64::fromString("-0").value(), 0);
    EXPECT_EQ(Int64::fromString("00012").value(), 12);
}

TEST(Int64Test, refusesEverythingElse) {
    for (const char* text :
         {"", " ", "+", "-", "+-5", "-+5", "--5", " 5", "5 ", "5x", "0x10", "1e3", "5.0",
          "9223372036854775808", "-9223372036854775809", "99999999999999999999999"}) {
        EXPECT_THROW(Int64::fromString(text), BadDataException) << "'" << text << "'";
    }
    EXPECT_THROW(Int64::fromString({}), BadDataException);
    EXPECT_THROW(Int64::fromString(std::string_view("5\0", 2)), BadDataException);
}

TEST(Int64Test, messageShowsTheTextPrintably) {
    try {
        Int64::fromString("1\n2");
        FAIL() << "no exception";
    } catch (const BadDataException& error) {
        EXPECT_STREQ(error.what(), "'1\\x0a2' is not a 64-bit number");
    }
}

TEST(Int64Test, comparesAsNumbers) {
    EXPECT_LT(Int64(-1), Int64::ZERO);
    EXPECT_LT(Int64(9), Int64(10));
    EXPECT_GE(Int64(10), Int64(10));
    EXPECT_NE(Int64(9), Int64(10));
    EXPECT_LT(Int64(INT64_MIN), Int64(INT64_MAX));
}

TEST(Int64Test, additionSaturates) {
    EXPECT_EQ(Int64(2) + Int64(3), Int64(5));
    EXPECT_EQ(Int64(INT64_MAX) + 1, Int64(INT64_MAX));
    EXPECT_EQ(Int64(INT64_MIN) + -1, Int64(INT64_MIN));
    EXPECT_EQ(Int64(INT64_MAX) + Int64(INT64_MIN), Int64(-1));
}

} // namespace
