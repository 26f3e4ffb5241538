#include "ldif/LdifReader.h"

#include "ldif/Base64.h"

#include <karst/Exceptions.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace {

using quorad::ldif::LdifReader;
using quorad::ldif::LdifRecord;

struct Record {
    std::string dn;
    std::vector<std::pair<std::string, std::string>> attributes;
    std::size_t line = 0;

    friend bool operator==(const Record&, const Record&) = default;
};

LdifReader::Source sourceOf(const std::string& text, std::size_t piece) {
    return [&text, piece, at = std::size_t{0}](char* buffer, std::size_t size) mutable {
        const std::size_t count = std::min({piece, size, text.size() - at});
        std::memcpy(buffer, text.data() + at, count);
        at += count;
        return count;
    };
}

std::vector<Record> read(const std::string& text, std::size_t piece = 1U << 20U) {
    LdifReader reader("test.ldif", sourceOf(text, piece));
    std::vector<Record> records;
    LdifRecord record;
    while (reader.next(record)) {
        Record& copy = records.emplace_back();
        copy.dn = record.dn;
        copy.line = record.line;
        for (std::size_t i = 0; i < record.size(); ++i) {
            copy.attributes.emplace_back(record.name(i), record.value(i));
        }
    }
    return records;
}

std::string failureOf(const std::string& text) {
    try {
        read(text);
    } catch (const tessa::BadDataException& e) {
        return e.what();
    }
    return "(none)";
}

TEST(LdifReader, plainRecords) {
    const auto records = read("version: 1\n"
                              "\n"
                              "dn: CN=a,DC=b\n"
                              "objectClass: top\n"
                              "objectClass: container\n"
                              "description:  two blanks before\n"
                              "\n"
                              "\n"
                              "dn: CN=c,DC=b\n"
                              "cn:c\n"
                              "empty:\n");
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[0], (Record{"CN=a,DC=b",
                                  {{"objectClass", "top"},
                                   {"objectClass", "container"},
                                   {"description", "two blanks before"}},
                                  3}));
    EXPECT_EQ(records[1], (Record{"CN=c,DC=b", {{"cn", "c"}, {"empty", ""}}, 9}));
}

TEST(LdifReader, emptyTextHasNoRecords) {
    EXPECT_TRUE(read("").empty());
    EXPECT_TRUE(read("\n\n# nothing\n").empty());
    EXPECT_TRUE(read("version: 1\n").empty());
    EXPECT_TRUE(read("\xef\xbb\xbf").empty());
}

TEST(LdifReader, versionMayStandAboveTheFirstRecordWithoutEmptyLine) {
    EXPECT_EQ(read("version: 1\ndn: DC=a\ndc: a\n").size(), 1U);
    EXPECT_EQ(read("VERSION:1\n\ndn: DC=a\ndc: a\n").size(), 1U);
    EXPECT_EQ(failureOf("version: 2\n\ndn: DC=a\ndc: a\n"),
              "test.ldif:1: LDIF version '2' is not supported, only 1");
    EXPECT_EQ(failureOf("dn: DC=a\ndc: a\n\nversion: 1\n").substr(0, 12), "test.ldif:4:");
}

TEST(LdifReader, carriageReturnsAndAMissingLastLineFeed) {
    const auto records = read("version: 1\r\n\r\ndn: DC=a\r\ndc: a\r\ndesc: long\r\n er\r\n\r\n"
                              "dn: DC=b\r\ndc: b");
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[0].attributes[1].second, "longer");
    EXPECT_EQ(records[1].attributes[0].second, "b");
}

TEST(LdifReader, commentsAnywhereEvenContinuedOnes) {
    const auto records = read("# first\n# second, which\n  goes on: here\ndn: DC=a\n#inside\n"
                              " folded comment\ndc: a\n# last\n\n#\n\ndn: DC=b\ndc: b\n#end");
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[0].attributes.size(), 1U);
    EXPECT_EQ(records[1].dn, "DC=b");
}

TEST(LdifReader, continuationLines) {
    const auto records = read("dn: CN=a,\n DC=b\ncn: one\n  two\n three\nx:: aGVs\n bG8=\n");
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].dn, "CN=a,DC=b");
    EXPECT_EQ(records[0].attributes[0].second, "one twothree");
    EXPECT_EQ(records[0].attributes[1].second, "hello");
}

TEST(LdifReader, continuationOfNothingIsRefused) {
    EXPECT_EQ(failureOf(" dn: DC=a\n"), "test.ldif:1: a line that continues none");
    EXPECT_EQ(failureOf("dn: DC=a\ndc: a\n\n more\n"), "test.ldif:4: a line that continues none");
}

TEST(LdifReader, base64) {
    const auto records = read("dn:: REM9w6Q=\nb:: AAEC/w==\ne::\nx::   QQ==  \n");
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].dn, "DC=\xc3\xa4");
    EXPECT_EQ(records[0].attributes[0].second, std::string("\0\x01\x02\xff", 4));
    EXPECT_EQ(records[0].attributes[1].second, "");
    EXPECT_EQ(records[0].attributes[2].second, "A");
    for (const char* bad : {"A", "AB", "ABC", "A===", "====", "AB=C", "A B=", "AB!D", "=ABC"}) {
        EXPECT_EQ(failureOf(std::string("dn: DC=a\nx:: ") + bad + "\n"),
                  "test.ldif:2: the value of 'x' is not Base64")
            << bad;
    }
}

TEST(LdifReader, base64OfEveryLengthComesBack) {
    std::string bytes;
    for (int i = 0; i < 300; ++i) {
        std::string back = "before";
        ASSERT_TRUE(quorad::ldif::appendDecoded(quorad::ldif::encoded(bytes), back));
        EXPECT_EQ(back, "before" + bytes);
        bytes += static_cast<char>(static_cast<unsigned char>((i * 37) & 0xff));
    }
}

TEST(LdifReader, attributeLineComesBackWhateverTheValue) {
    for (const std::string& value :
         {std::string("plain"), std::string(" blank"), std::string("blank "), std::string(":x"),
          std::string("<x"), std::string(), std::string("a\nb"), std::string("\0", 1),
          std::string("\xc3\xa4"), std::string("\r")}) {
        const auto records =
            read("dn: DC=a\n" + quorad::ldif::attributeLine("x", value) + "y: 1\n");
        ASSERT_EQ(records.size(), 1U);
        EXPECT_EQ(records[0].attributes[0].second, value);
    }
}

TEST(LdifReader, urlsAreRefused) {
    EXPECT_EQ(failureOf("dn: DC=a\njpegPhoto:< file:///etc/shadow\n"),
              "test.ldif:2: the value of 'jpegPhoto' is a URL; values must be in the file itself");
}

TEST(LdifReader, changeRecords) {
    const auto records = read("dn: DC=a\nchangetype: add\ndc: a\n");
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].attributes.size(), 1U);
    for (const char* type : {"modify", "delete", "modrdn", "moddn"}) {
        EXPECT_NE(failureOf(std::string("dn: DC=a\nchangetype: ") + type + "\n").find(type),
                  std::string::npos);
    }
    EXPECT_EQ(failureOf("dn: DC=a\ncontrol: 1.2.3\nchangetype: add\ndc: a\n"),
              "test.ldif:2: controls are not supported");
    // Further down it is an attribute like any other.
    EXPECT_EQ(read("dn: DC=a\ndc: a\nchangetype: delete\n")[0].attributes.size(), 2U);
}

TEST(LdifReader, attributeOptionsBelongToTheName) {
    const auto records = read("dn: DC=a\ncn;lang-de: x\nmember;range=0-1499: y\n1.2.3: z\n");
    EXPECT_EQ(records[0].attributes[0].first, "cn;lang-de");
    EXPECT_EQ(records[0].attributes[1].first, "member;range=0-1499");
    EXPECT_EQ(records[0].attributes[2].first, "1.2.3");
}

TEST(LdifReader, malformedLinesAreNamed) {
    EXPECT_EQ(failureOf("dn: DC=example,DC=com\nno colon\n"),
              "test.ldif:2: no colon in 'no colon'");
    EXPECT_EQ(failureOf("dn: DC=a\n: value\n"), "test.ldif:2: '' is no attribute name");
    EXPECT_EQ(failureOf("dn: DC=a\nbad name: value\n"),
              "test.ldif:2: 'bad name' is no attribute name");
    EXPECT_EQ(failureOf("cn: a\ndn: DC=a\n"),
              "test.ldif:1: a record begins with 'cn'; its first line must be its dn");
    EXPECT_EQ(failureOf("dn: DC=a\ndc: a\ndn: DC=b\ndc: b\n"),
              "test.ldif:3: a second dn in one record; an empty line is missing before it");
    EXPECT_EQ(failureOf("\n\ndn: DC=a\n\ndn: DC=b\ndc: b\n"),
              "test.ldif:3: the record has no attributes");
    EXPECT_EQ(failureOf("dn: DC=a\n"), "test.ldif:1: the record has no attributes");
    EXPECT_EQ(failureOf(std::string("dn: DC=a\ncn: a\0b\n", 17)),
              "test.ldif:2: the value of 'cn' holds a zero byte; such a value must be in Base64");
}

TEST(LdifReader, lineNumbersCountFoldedLines) {
    EXPECT_EQ(failureOf("# c\n more\n more\ndn: DC=a\ndc: a\n b\n c\nbroken\n"),
              "test.ldif:8: no colon in 'broken'");
}

TEST(LdifReader, longGarbageIsQuotedInPart) {
    const std::string failure = failureOf("dn: DC=a\n" + std::string(5000, 'x') + "\n");
    EXPECT_LT(failure.size(), 150U);
}

TEST(LdifReader, whatLdapsearchWritesBelowTheRecords) {
    const auto records =
        read("dn: DC=a\ndc: a\n\n# search reference\nref: ldap://x/DC=b??sub\n\n"
             "# search result\nsearch: 2\nresult: 0 Success\ncontrol: 1.2 false x\n"
             "pagedresults: cookie=\n\n# numResponses: 2\n# numEntries: 1\n");
    EXPECT_EQ(records.size(), 1U);
    EXPECT_EQ(failureOf("dn: DC=a\ndc: a\n\nsearch: 2\nresult: 4 Size limit exceeded\n"),
              "test.ldif:5: the search that made this file ended with '4 Size limit exceeded'");
}

TEST(LdifReader, aByteOrderMarkIsSkipped) {
    EXPECT_EQ(read("\xef\xbb\xbf"
                   "dn: DC=a\ndc: a\n")
                  .size(),
              1U);
}

TEST(LdifReader, rawUtf8IsTaken) {
    EXPECT_EQ(read("dn: DC=a\ncn: J\xc3\xb6rg\n")[0].attributes[0].second, "J\xc3\xb6rg");
}

// However the bytes arrive, the records are the same.
TEST(LdifReader, anyPieceSizeGivesTheSame) {
    std::string text = "\xef\xbb\xbfversion: 1\r\n\r\n# comment\n folded\n";
    for (int i = 0; i < 40; ++i) {
        text += "dn: CN=e" + std::to_string(i) +
                ",\n DC=a\r\ndescription: " + std::string(static_cast<std::size_t>(i), 'x') +
                "\r\n y\nb:: AAEC\n /w==\n\n";
    }
    const auto whole = read(text);
    ASSERT_EQ(whole.size(), 40U);
    for (const std::size_t piece : {1U, 2U, 3U, 7U, 64U, 1000U}) {
        EXPECT_TRUE(read(text, piece) == whole) << piece;
    }
}

TEST(LdifReader, longValuesPassTheBuffersSize) {
    const std::string value(3'000'000, 'v');
    const auto records = read("dn: DC=a\nx: " + value + "\n\ndn: DC=b\nx: 1\n", 100'000);
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[0].attributes[0].second, value);
}

TEST(LdifReader, recordsWithoutEndAreRefused) {
    // A source that never ends: one line, and one record of many lines.
    const auto endless = [](const std::string& begin, const std::string& piece) {
        std::string waiting = begin;
        LdifReader reader("endless", [&](char* buffer, std::size_t size) {
            while (waiting.size() < size) {
                waiting += piece;
            }
            std::memcpy(buffer, waiting.data(), size);
            waiting.erase(0, size);
            return size;
        });
        LdifRecord record;
        EXPECT_THROW(reader.next(record), tessa::BadDataException);
    };
    const std::string line = "x: " + std::string(100'000, 'v') + "\n";
    endless("dn: DC=a\nx: ", std::string(100'000, 'v'));
    endless("dn: DC=a\n", line);
    endless("dn: DC=a\nx: \n", " " + std::string(100'000, 'v') + "\n");
}

TEST(LdifReader, readFailuresPassThrough) {
    LdifReader reader("broken", [](char*, std::size_t) -> std::size_t {
        TESSA_THROW(tessa::SystemException, "disk");
    });
    LdifRecord record;
    EXPECT_THROW(reader.next(record), tessa::SystemException);
}

} // namespace
