#include "karst/Properties.h"

#include "CapturedError.h"
#include "karst/Logger.h"
#include "karst/Thread.h"
#include "support/TempFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <filesystem>

#include <sys/stat.h>

using namespace tessa;
using namespace std::string_view_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Pair;

namespace {

class PropertiesTest : public testing::Test {
protected:
    PropertiesTest() { Logger::logToStandardError(); }

    /// Reads the text and returns what was logged.
    std::string parse(std::string_view text) {
        const test::CapturedError log;
        m_properties.parse(text, "test.conf");
        return log.text();
    }

    Properties m_properties;
};

TEST_F(PropertiesTest, linesCommentsAndWhiteSpace) {
    EXPECT_THAT(parse("# comment: no\n"
                      "\n"
                      "   \t\n"
                      "  # indented: no\n"
                      "a:1\n"
                      "\tnisd.maps \t:  passwd, group  \n"
                      "c: x # not a comment\n"),
                IsEmpty());
    EXPECT_EQ(m_properties.get("a"), "1");
    EXPECT_EQ(m_properties.get("nisd.maps"), "passwd, group");
    EXPECT_EQ(m_properties.get("c"), "x # not a comment");
    EXPECT_EQ(m_properties.withPrefix("").size(), 3U);
}

TEST_F(PropertiesTest, firstColonSeparates) {
    EXPECT_THAT(parse("quorad.directory: ldap://dc1:389\nempty:\ncolons:::\n"), IsEmpty());
    EXPECT_EQ(m_properties.get("quorad.directory"), "ldap://dc1:389");
    EXPECT_TRUE(m_properties.exists("empty"));
    EXPECT_EQ(m_properties.get("empty", "fallback"), "");
    EXPECT_EQ(m_properties.get("colons"), "::");
}

TEST_F(PropertiesTest, caseOfKeysDoesNotCount) {
    parse("NISD.Threads: 4\nnisd.threads: 8\n");
    EXPECT_EQ(m_properties.get("Nisd.THREADS"), "8") << "the later line holds";
    EXPECT_THAT(m_properties.withPrefix("nisd."), ElementsAre(Pair("nisd.threads", "8")));
    m_properties.set("NISD.THREADS", "2");
    EXPECT_EQ(m_properties.get("nisd.threads"), "2");
    EXPECT_FALSE(m_properties.exists("nisd.thread"));
    EXPECT_EQ(m_properties.get("nisd.thread", "x"), "x");
}

TEST_F(PropertiesTest, malformedLinesAreReportedAndSkipped) {
    const std::string log = parse("a: 1\n"
                                  "no colon here\n"
                                  " : no key\n"
                                  "\n"
                                  "zero\0: byte\n"
                                  "value: ze\0ro\n"
                                  "b: 2\n"sv);
    EXPECT_THAT(log, HasSubstr("warning"));
    EXPECT_THAT(log, HasSubstr(" karst "));
    EXPECT_THAT(log, HasSubstr("test.conf:2: not a 'key: value' line, skipped: no colon here\n"));
    EXPECT_THAT(log, HasSubstr("test.conf:3: "));
    EXPECT_THAT(log, HasSubstr("test.conf:5: not a 'key: value' line, skipped: zero\\x00: byte\n"));
    EXPECT_THAT(log, HasSubstr("test.conf:6: "));
    EXPECT_THAT(log, Not(HasSubstr("test.conf:1:")));
    EXPECT_THAT(log, Not(HasSubstr("test.conf:4:")));
    EXPECT_THAT(m_properties.withPrefix(""), ElementsAre(Pair("a", "1"), Pair("b", "2")));
}

TEST_F(PropertiesTest, messagesCannotBeForged) {
    const std::string log = parse("x\r2026-11-21 fatal \x1B[31m");
    EXPECT_THAT(log, HasSubstr("x\\x0d2026-11-21 fatal \\x1b[31m\n"));
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1);
}

TEST_F(PropertiesTest, otherEditorsLineEndsAndByteOrderMark) {
    EXPECT_THAT(parse("\xEF\xBB\xBF"
                      "a: 1\r\n\r\n# c\r\nb: 2\r\nlast: 3"),
                IsEmpty());
    EXPECT_EQ(m_properties.get("a"), "1");
    EXPECT_EQ(m_properties.get("b"), "2");
    EXPECT_EQ(m_properties.get("last"), "3");
    EXPECT_THAT(parse(""), IsEmpty());
    EXPECT_THAT(parse("\xEF\xBB\xBF"), IsEmpty());
}

TEST_F(PropertiesTest, veryLongLines) {
    const std::string value(1000000, 'v');
    EXPECT_THAT(parse("long: " + value + "\nafter: 1\n"), IsEmpty());
    EXPECT_EQ(m_properties.get("long"), value);
    EXPECT_EQ(m_properties.get("after"), "1");
    const std::string log = parse(std::string(1000000, 'k') + "\nmore: 2\n");
    EXPECT_LT(log.size(), 1000U) << "a message shows only the beginning";
    EXPECT_EQ(m_properties.get("more"), "2");
}

TEST_F(PropertiesTest, anotherEncodingGivesReportsOnly) {
    EXPECT_THAT(parse("\xFF\xFE"
                      "a\0:\0 \0"
                      "1\0\n\0"sv),
                HasSubstr("test.conf:1:"));
    EXPECT_THAT(m_properties.withPrefix(""), IsEmpty());
}

TEST_F(PropertiesTest, booleans) {
    parse("t1: true\nt2: YES\nt3: 1\nf1: False\nf2: no\nf3: 0\nodd: maybe\nempty:\nten: 10\n");
    for (const char* key : {"t1", "t2", "t3"}) {
        EXPECT_TRUE(m_properties.getBool(key, false)) << key;
    }
    for (const char* key : {"f1", "f2", "f3"}) {
        EXPECT_FALSE(m_properties.getBool(key, true)) << key;
    }
    for (const char* key : {"odd", "empty", "ten", "missing"}) {
        EXPECT_TRUE(m_properties.getBool(key, true)) << key;
        EXPECT_FALSE(m_properties.getBool(key, false)) << key;
    }
    m_properties.set("blank", " yes ");
    EXPECT_TRUE(m_properties.getBool("blank", false));
}

TEST_F(PropertiesTest, times) {
    const std::vector<std::pair<std::string, long>> times{
        {"0", 0},
        {"5", 5},
        {"5s", 5},
        {"5m", 300},
        {"2h", 7200},
        {"1d", 86400},
        {"1D", 86400},
        {"5 m", 300},
        {"-5", -5},
        {"-2m", -120},
        {" 7 ", 7},
        {"0012", 12},
        {"9223372036854775807", LONG_MAX},
        {"106751991167300d", 106751991167300L * 86400}};
    for (const auto& [text, seconds] : times) {
        const test::CapturedError log;
        m_properties.set("t", text);
        EXPECT_EQ(m_properties.getTime("t", 77), seconds) << text;
        EXPECT_THAT(log.text(), IsEmpty()) << text;
    }
    const test::CapturedError log;
    EXPECT_EQ(m_properties.getTime("missing", 77), 77);
    EXPECT_THAT(log.text(), IsEmpty());
}

TEST_F(PropertiesTest, malformedTimesGiveTheFallbackAndAWarning) {
    for (const std::string text :
         {"", "s", "soon", "5x", "5ms", "5m3", "1.5h", "+5", "--5", "0x10", "5 5",
          "9223372036854775808", "106751991167301d", "-99999999999999999999",
          "5\n"
          "fake"}) {
        const test::CapturedError log;
        m_properties.set("nisd.update.interval", text);
        EXPECT_EQ(m_properties.getTime("nisd.update.interval", 77), 77) << text;
        EXPECT_THAT(log.text(), HasSubstr("warning")) << text;
        EXPECT_THAT(log.text(), HasSubstr("nisd.update.interval: '")) << text;
        EXPECT_THAT(log.text(), HasSubstr("77 seconds\n")) << text;
    }
}

TEST_F(PropertiesTest, lists) {
    parse("maps: passwd, group\thosts,,netgroup ,\nempty:\n");
    EXPECT_THAT(m_properties.getList("maps"), ElementsAre("passwd", "group", "hosts", "netgroup"));
    EXPECT_THAT(m_properties.getList("empty", "a b"), IsEmpty()) << "set to nothing is set";
    EXPECT_THAT(m_properties.getList("missing", "a b"), ElementsAre("a", "b"));
    EXPECT_THAT(m_properties.getList("missing"), IsEmpty());
}

TEST_F(PropertiesTest, keysByPrefix) {
    parse("log.level: 3\nlog.level.Orrisd: 1\nlog.levee: 0\nLOG.LEVEL.quorad: 2\nlog.levem: 1\n");
    EXPECT_THAT(m_properties.withPrefix("log.level"),
                testing::UnorderedElementsAre(Pair("log.level", "3"), Pair("log.level.Orrisd", "1"),
                                              Pair("LOG.LEVEL.quorad", "2")));
    EXPECT_EQ(m_properties.withPrefix("").size(), 5U);
    EXPECT_THAT(m_properties.withPrefix("zzz"), IsEmpty());
}

TEST_F(PropertiesTest, loadAddsToWhatIsHeld) {
    const test::TempFolder folder;
    test::writeFile("a.conf", "a: 1\nb: 2\n");
    test::writeFile("b.conf", "bad line\nb: 3\nc: 4");
    test::writeFile("empty.conf", "");
    const test::CapturedError log;
    EXPECT_TRUE(m_properties.load("a.conf"));
    EXPECT_TRUE(m_properties.load("b.conf"));
    EXPECT_TRUE(m_properties.load("empty.conf"));
    EXPECT_THAT(m_properties.withPrefix(""),
                ElementsAre(Pair("a", "1"), Pair("b", "3"), Pair("c", "4")));
    EXPECT_THAT(log.text(), HasSubstr("b.conf:1: "));
}

TEST_F(PropertiesTest, filesThatCannotBeReadAreReported) {
    const test::TempFolder folder;
    m_properties.set("a", "1");
    ASSERT_EQ(::mkfifo("pipe", 0600), 0);
    std::filesystem::create_directory("folder");
    std::filesystem::create_symlink("loop", "loop");
    const std::vector<std::pair<std::string, std::string>> cases{
        {"missing.conf", "Cannot read configuration file 'missing.conf': No such file"},
        {"folder", "Cannot read configuration file 'folder': not a regular file"},
        {"pipe", "Cannot read configuration file 'pipe': not a regular file"},
        {"loop", "Too many levels of symbolic links"},
        {"", "Cannot read configuration file '': No such file"},
        {std::string(5000, 'x'), "File name too long"}};
    for (const auto& [path, message] : cases) {
        const test::CapturedError log;
        EXPECT_FALSE(m_properties.load(path)) << path;
        EXPECT_THAT(log.text(), HasSubstr("warning"));
        EXPECT_THAT(log.text(), HasSubstr(message));
    }
    EXPECT_THAT(m_properties.withPrefix(""), ElementsAre(Pair("a", "1")));
}

TEST_F(PropertiesTest, threadsReadWhileOneWrites) {
    m_properties.set("key", "0");
    Thread writer;
    writer.start("writer", [this] {
        for (int i = 0; i < 2000; ++i) {
            m_properties.set("key", std::to_string(i));
            m_properties.set("key." + std::to_string(i % 10), "x");
        }
    });
    for (int i = 0; i < 2000; ++i) {
        ASSERT_TRUE(m_properties.exists("key"));
        ASSERT_GE(m_properties.getTime("KEY", -1), 0);
        ASSERT_FALSE(m_properties.withPrefix("key").empty());
    }
    writer.join();
    EXPECT_EQ(m_properties.get("key"), "1999");
}

} // namespace
