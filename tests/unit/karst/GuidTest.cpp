#include <karst/Exceptions.h>
#include <karst/Guid.h>

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace {

using tessa::BadDataException;
using tessa::Guid;

constexpr const char* TEXT = "01020304-0506-0708-090a-0b0c0d0e0f10";
const std::string STORED("\x04\x03\x02\x01\x06\x05\x08\x07\x09\x0A\x0B\x0C\x0D\x0E\x0F\x10", 16);

TEST(GuidTest, FirstThreeFieldsAreStoredLittleEndian) {
    EXPECT_EQ(STORED, Guid::fromString(TEXT).bytes());
    EXPECT_EQ(TEXT, Guid::fromBytes(STORED).toString());
}

TEST(GuidTest, BracesAndUpperCaseAreAccepted) {
    EXPECT_EQ(STORED, Guid::fromString("{01020304-0506-0708-090A-0B0C0D0E0F10}").bytes());
    EXPECT_EQ("abcdefab-cdef-abcd-efab-cdefabcdefab",
              Guid::fromString("ABCDEFAB-CDEF-ABCD-EFAB-CDEFABCDEFAB").toString());
}

TEST(GuidTest, OtherTextIsRefused) {
    for (const char* text :
         {"", "01020304", "01020304-0506-0708-090a-0b0c0d0e0f1",
          "01020304-0506-0708-090a-0b0c0d0e0f100", "01020304x0506-0708-090a-0b0c0d0e0f10",
          "0102030405060708090a0b0c0d0e0f10aaaa", "0102030g-0506-0708-090a-0b0c0d0e0f10",
          "{01020304-0506-0708-090a-0b0c0d0e0f10", "01020304-0506-0708-090a-0b0c0d0e0f10}",
          "[01020304-0506-0708-090a-0b0c0d0e0f10]", "0102030--0506-0708-090a-0b0c0d0e0f10"}) {
        EXPECT_THROW(Guid::fromString(text), BadDataException) << text;
    }
}

TEST(GuidTest, OtherNumbersOfBytesAreRefused) {
    EXPECT_THROW(Guid::fromBytes(""), BadDataException);
    EXPECT_THROW(Guid::fromBytes(STORED.substr(1)), BadDataException);
    EXPECT_THROW(Guid::fromBytes(STORED + "x"), BadDataException);
}

TEST(GuidTest, NameFindsTheObjectByItsGuid) {
    EXPECT_EQ("<GUID=01020304-0506-0708-090a-0b0c0d0e0f10>", Guid::fromBytes(STORED).toDN());
}

TEST(GuidTest, RandomOnesDifferAndAreOfVersionFour) {
    std::set<std::string> seen;
    for (int turn = 0; turn < 200; ++turn) {
        const std::string text = Guid::random().toString();
        EXPECT_EQ('4', text[14]) << text;
        EXPECT_NE(std::string::npos, std::string("89ab").find(text[19])) << text;
        seen.insert(text);
    }
    EXPECT_EQ(200U, seen.size());
}

TEST(GuidTest, ComparesByItsBytes) {
    EXPECT_EQ(Guid::fromString(TEXT), Guid::fromBytes(STORED));
    EXPECT_NE(Guid(), Guid::fromBytes(STORED));
    EXPECT_LT(Guid(), Guid::fromBytes(STORED));
}

} // namespace
