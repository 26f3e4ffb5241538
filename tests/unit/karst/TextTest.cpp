#include "karst/Text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>

using namespace tessa;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

TEST(StringSplitTest, dropsEmptyPiecesUnlessAsked) {
    EXPECT_THAT(StringSplit("a,b c", ", "), ElementsAre("a", "b", "c"));
    EXPECT_THAT(StringSplit(",,a,,b,,", ","), ElementsAre("a", "b"));
    EXPECT_THAT(StringSplit(",a,,b,", ",", true), ElementsAre("", "a", "", "b", ""));
    EXPECT_THAT(StringSplit("plain", ",", true), ElementsAre("plain"));
    EXPECT_THAT(StringSplit("plain", ""), ElementsAre("plain"));
}

TEST(StringSplitTest, emptyTextHasNoPieces) {
    EXPECT_THAT(StringSplit("", ","), IsEmpty());
    EXPECT_THAT(StringSplit(",,,", ","), IsEmpty());
    EXPECT_THAT(StringSplit("", ",", true), ElementsAre(""));
    EXPECT_THAT(StringSplit(",", ",", true), ElementsAre("", ""));
}

TEST(StringSplitTest, takesZeroBytesAsTheyAre) {
    const std::string text("a\0b,c\0", 6);
    EXPECT_THAT(StringSplit(text, ","), ElementsAre(std::string("a\0b", 3), std::string("c\0", 2)));
    EXPECT_THAT(StringSplit(text, std::string_view("\0", 1)), ElementsAre("a", "b,c"));
}

TEST(SplitTest, viewsPointIntoTheText) {
    const std::string text = "  one\ttwo ";
    const auto pieces = split(text, " \t");
    ASSERT_THAT(pieces, ElementsAre("one", "two"));
    EXPECT_EQ(pieces[0].data(), text.data() + 2);
    EXPECT_THAT(split("", " "), IsEmpty());
    EXPECT_THAT(split("    ", " "), IsEmpty());
    EXPECT_THAT(split({}, {}), IsEmpty());
}

TEST(TrimWhiteSpaceTest, trimsBothEndsOnly) {
    EXPECT_EQ(trimWhiteSpace(" \t\r\n a b \n"), "a b");
    EXPECT_EQ(trimWhiteSpace("ab"), "ab");
    EXPECT_EQ(trimWhiteSpace(""), "");
    EXPECT_EQ(trimWhiteSpace(" \r\n\t "), "");
    EXPECT_EQ(trimWhiteSpace("\v\fa"), "\v\fa") << "no white space of the configuration";
}

TEST(LowerTest, changesAsciiLettersOnly) {
    EXPECT_EQ(lower("AZaz@[`{09"), "azaz@[`{09");
    EXPECT_EQ(lower("\xC3\x84\xFF"), "\xC3\x84\xFF");
    EXPECT_EQ(lower(""), "");
    EXPECT_EQ(lower(std::string_view("A\0B", 3)), std::string("a\0b", 3));
}

TEST(EqualsIgnoreCaseTest, comparesWholeTexts) {
    EXPECT_TRUE(equalsIgnoreCase("", ""));
    EXPECT_TRUE(equalsIgnoreCase("Member", "mEMBER"));
    EXPECT_FALSE(equalsIgnoreCase("member", "members"));
    EXPECT_FALSE(equalsIgnoreCase("@", "`")) << "differ by the case bit, but are no letters";
    EXPECT_FALSE(equalsIgnoreCase("\xC3\x84", "\xC3\xA4"));
}

TEST(ItoaTest, allBasesAndLimits) {
    EXPECT_EQ(itoa(0), "0");
    EXPECT_EQ(itoa(-5), "-5");
    EXPECT_EQ(itoa(LLONG_MAX), "9223372036854775807");
    EXPECT_EQ(itoa(LLONG_MIN), "-9223372036854775808");
    EXPECT_EQ(itoa(255, 16), "ff");
    EXPECT_EQ(itoa(-255, 16), "-ff");
    EXPECT_EQ(itoa(35, 36), "z");
    EXPECT_EQ(itoa(LLONG_MIN, 2), "-1" + std::string(63, '0'));
}

TEST(ItoaTest, anyOtherBaseIsTen) {
    for (const int base : {INT_MIN, -1, 0, 1, 37, INT_MAX}) {
        EXPECT_EQ(itoa(42, base), "42") << base;
    }
}

TEST(UitoaTest, limits) {
    EXPECT_EQ(uitoa(0), "0");
    EXPECT_EQ(uitoa(ULLONG_MAX), "18446744073709551615");
}

TEST(AtouiTest, numberAtTheStart) {
    EXPECT_EQ(atoui("42"), 42U);
    EXPECT_EQ(atoui("0042x17"), 42U);
    EXPECT_EQ(atoui("7 8"), 7U);
    EXPECT_EQ(atoui(std::string_view("12345").substr(0, 2)), 12U) << "the view ends the number";
    EXPECT_EQ(atoui("4294967295"), UINT_MAX);
    EXPECT_EQ(atoui(std::string(500, '0') + "9"), 9U);
}

TEST(AtouiTest, zeroForEverythingElse) {
    for (const char* text :
         {"", "x1", "-1", "+1", " 1", "0x10", "4294967296", "99999999999999999999999999", "\xFF"}) {
        EXPECT_EQ(atoui(text), 0U) << text;
    }
    EXPECT_EQ(atoui({}), 0U);
}

TEST(PrintableTest, keepsPrintableAsciiAndUtf8) {
    const std::string ascii = " !\"#$%&'()*+,-./0129:;<=>?@AZ[\\]^_`az{|}~";
    EXPECT_EQ(printable(ascii), ascii);
    for (const std::string text : {"\xC2\xA0", "\xC3\xA4", "\xE2\x82\xAC", "\xEF\xBF\xBD",
                                   "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF"}) {
        EXPECT_EQ(printable(text), text);
    }
    EXPECT_EQ(printable(""), "");
}

TEST(PrintableTest, escapesControlCharacters) {
    EXPECT_EQ(printable("a\nb\tc\r\x1B[0m\x7F"), "a\\x0ab\\x09c\\x0d\\x1b[0m\\x7f");
    EXPECT_EQ(printable(std::string_view("\0", 1)), "\\x00");
    EXPECT_EQ(printable("\xC2\x9B"
                        "31m"),
              "\\xc2\\x9b31m")
        << "U+009B starts a terminal sequence";
}

TEST(PrintableTest, escapesBytesThatAreNoUtf8) {
    EXPECT_EQ(printable("\x80"), "\\x80") << "continuation alone";
    EXPECT_EQ(printable("\xC3"), "\\xc3") << "cut off";
    EXPECT_EQ(printable("\xE2\x82"), "\\xe2\\x82");
    EXPECT_EQ(printable("\xC3("), "\\xc3(") << "the byte behind is kept";
    EXPECT_EQ(printable("\xC0\x8A"), "\\xc0\\x8a") << "over-long line feed";
    EXPECT_EQ(printable("\xE0\x80\x8A"), "\\xe0\\x80\\x8a");
    EXPECT_EQ(printable("\xF0\x80\x80\x8A"), "\\xf0\\x80\\x80\\x8a");
    EXPECT_EQ(printable("\xED\xA0\x80"), "\\xed\\xa0\\x80") << "surrogate";
    EXPECT_EQ(printable("\xF4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80") << "above U+10FFFF";
    EXPECT_EQ(printable("\xF5\xFF\xFE"), "\\xf5\\xff\\xfe");
}

TEST(PrintableTest, neverLeavesAnUnprintableByte) {
    for (int first = 0; first < 256; ++first) {
        for (int second = 0; second < 256; ++second) {
            const std::string text{static_cast<char>(first), static_cast<char>(second)};
            const std::string shown = printable(text);
            EXPECT_EQ(printable(shown), shown) << first << ' ' << second;
            for (const char c : shown) {
                const auto byte = static_cast<unsigned char>(c);
                ASSERT_TRUE(byte >= 0x20 && byte != 0x7F) << first << ' ' << second;
            }
        }
    }
}

TEST(ErrorTextTest, textOfTheSystem) {
    EXPECT_EQ(errorText(ENOENT), "No such file or directory");
    EXPECT_NE(errorText(123456).find("123456"), std::string::npos);
}

} // namespace
