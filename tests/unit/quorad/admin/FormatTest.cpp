#include "admin/Format.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace quorad::admin;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

std::vector<std::string> pairs(const ParsedFile& file) {
    std::vector<std::string> result;
    for (const Record& record : file.records) {
        result.push_back(record.key + "=" + record.value);
    }
    return result;
}

TEST(Format, DefaultsFollowTheNameOfTheMap) {
    EXPECT_EQ(defaultFormat("hosts"), Format::HOSTS);
    EXPECT_EQ(defaultFormat("Services"), Format::SERVICES);
    EXPECT_EQ(defaultFormat("rpc"), Format::NUMBERED);
    EXPECT_EQ(defaultFormat("aliases"), Format::ALIASES);
    EXPECT_EQ(defaultFormat("passwd"), Format::PASSWD);
    EXPECT_EQ(defaultFormat("netgroup"), Format::KEYED);
    EXPECT_EQ(defaultFormat("auto.master"), Format::KEYED);
    EXPECT_EQ(defaultFormat("auto_master"), Format::KEYED);
    EXPECT_EQ(defaultFormat("auto.home"), Format::AUTO);
    EXPECT_EQ(defaultFormat("Auto_Home"), Format::AUTO);
    EXPECT_EQ(defaultFormat("automatic"), Format::KEYED);
}

TEST(Format, NamesAreKnown) {
    Format format{};
    EXPECT_TRUE(formatFromName("HOSTS", format));
    EXPECT_EQ(format, Format::HOSTS);
    EXPECT_TRUE(formatFromName("keyed", format));
    EXPECT_EQ(format, Format::KEYED);
    EXPECT_FALSE(formatFromName("nonsense", format));
    EXPECT_EQ(formatNames(),
              "keyed, tabbed, auto, hosts, services, numbered, ethers, timezone, passwd, aliases");
}

TEST(Format, KeyedLines) {
    const auto file =
        parseFile("# comment\n\nalpha the value # kept\r\nbeta\t x\ngamma\nlast v", Format::KEYED);
    EXPECT_THAT(pairs(file), ElementsAre("alpha=the value # kept", "beta=x", "gamma=", "last=v"));
    EXPECT_THAT(file.problems, IsEmpty());
    EXPECT_EQ(file.records[0].line, 3U);
    EXPECT_EQ(file.records[3].line, 6U);
}

// "ypcat -k" of an empty key, or of one that begins with a blank.
TEST(Format, KeysThatCannotBeToldAreRefused) {
    const auto file = parseFile("a 1\n the value\n\tx y\n  # comment\n", Format::KEYED);
    EXPECT_THAT(pairs(file), ElementsAre("a=1"));
    ASSERT_THAT(file.problems, SizeIs(2));
    EXPECT_EQ(file.problems[0].line, 2U);
    EXPECT_THAT(file.problems[0].text, HasSubstr("' the value' begins with a blank"));
    EXPECT_THAT(file.problems[0].text, HasSubstr("--format tabbed"));
    EXPECT_EQ(file.problems[1].line, 3U);
}

TEST(Format, Automounter) {
    const auto file = parseFile("* -rw filer:/export/&\nines filer2:/export/ines\ncd :/dev/sr0\n"
                                "multi /a filer:/a \\\n  /b filer:/b\nnet -hosts\n"
                                "quoted \"filer:/with blank\"\nvar $HOST:/x\n",
                                Format::AUTO);
    EXPECT_THAT(file.problems, IsEmpty());
    EXPECT_THAT(file.records, SizeIs(7));
    const auto bad = parseFile("good filer:/x\nMy Documents -rw filer:/d\nkey\n"
                               "two words filer:/x\n",
                               Format::AUTO);
    EXPECT_THAT(pairs(bad), ElementsAre("good=filer:/x"));
    ASSERT_THAT(bad.problems, SizeIs(3));
    EXPECT_EQ(bad.problems[0].line, 2U);
    EXPECT_THAT(bad.problems[0].text,
                HasSubstr("'My Documents -rw filer:/d' has not the form key"));
    EXPECT_THAT(bad.problems[0].text, HasSubstr("has its key a blank?"));
    EXPECT_EQ(bad.problems[1].line, 3U);
    EXPECT_EQ(bad.problems[2].line, 4U);
}

TEST(Format, TabbedLinesAreTakenAsTheyAre) {
    const auto file = parseFile("My Documents\t-rw  filer:/d\n lead\t v \n#no comment\tx\\\n\n"
                                "a\tb\tc\nempty\t\nno tab\n\tno key\nlast\tline\r",
                                Format::TABBED);
    EXPECT_THAT(pairs(file), ElementsAre("My Documents=-rw  filer:/d", " lead= v ",
                                         "#no comment=x\\", "a=b\tc", "empty=", "last=line\r"));
    ASSERT_THAT(file.problems, SizeIs(2));
    EXPECT_EQ(file.problems[0].line, 7U);
    EXPECT_THAT(file.problems[0].text, HasSubstr("has no tab"));
    EXPECT_EQ(file.problems[1].line, 8U);
    EXPECT_THAT(file.problems[1].text, HasSubstr("empty key"));
    EXPECT_EQ(file.records.back().line, 9U);
}

TEST(Format, WhichLinesReadBack) {
    EXPECT_TRUE(readsBack("key", "any  value", Format::KEYED));
    EXPECT_TRUE(readsBack("key", "", Format::KEYED));
    for (const auto& [key, value] :
         std::vector<std::pair<std::string, std::string>>{{"a key", "v"},
                                                          {"#key", "v"},
                                                          {" key", "v"},
                                                          {"key", " v"},
                                                          {"key", "v "},
                                                          {"key", "v\\"},
                                                          {"key", "v\r"}}) {
        EXPECT_FALSE(readsBack(key, value, Format::KEYED)) << key << '=' << value;
        EXPECT_TRUE(readsBack(key, value, Format::TABBED)) << key << '=' << value;
        EXPECT_EQ(makeLine(key, value, Format::TABBED), key + "\t" + value);
    }
    EXPECT_FALSE(readsBack("a\tb", "v", Format::TABBED));
    EXPECT_FALSE(readsBack("a", "v\nw", Format::TABBED));
    EXPECT_FALSE(readsBack("", "v", Format::TABBED));
}

TEST(Format, ContinuedLinesKeepTheNumberOfTheirFirst) {
    const auto file = parseFile("group (a,,) \\\n  (b,,)\nnext v\n", Format::KEYED);
    EXPECT_THAT(pairs(file), ElementsAre("group=(a,,)   (b,,)", "next=v"));
    EXPECT_EQ(file.records[1].line, 3U);
    // The end of the file ends a line that would be continued.
    EXPECT_THAT(pairs(parseFile("a b\\", Format::KEYED)), ElementsAre("a=b"));
}

TEST(Format, OneKeyWithTwoValuesIsAProblem) {
    const auto file = parseFile("a 1\nb 2\na 3\na 1\n", Format::KEYED);
    EXPECT_THAT(pairs(file), ElementsAre("a=1", "b=2"));
    ASSERT_THAT(file.problems, SizeIs(1));
    EXPECT_EQ(file.problems[0].line, 3U);
    EXPECT_THAT(file.problems[0].text, HasSubstr("stands in line 1"));
    EXPECT_EQ(file.repeated, 1U);
}

TEST(Format, HostsFile) {
    const auto file = parseFile("127.0.0.1\tlocalhost # loopback\n10.0.0.1 alpha a\n::1 ip6 six\n",
                                Format::HOSTS);
    EXPECT_FALSE(file.dump);
    EXPECT_THAT(pairs(file), ElementsAre("localhost=127.0.0.1\tlocalhost", "alpha=10.0.0.1 alpha a",
                                         "ip6=::1 ip6 six"));
}

TEST(Format, HostsDumpHasEachRecordOnce) {
    const auto by_name = parseFile("a 10.0.0.1 alpha a\nalpha 10.0.0.1 alpha a\n"
                                   "gw 10.0.0.2 gw\n",
                                   Format::HOSTS);
    EXPECT_TRUE(by_name.dump);
    EXPECT_EQ(by_name.repeated, 1U);
    EXPECT_THAT(pairs(by_name), ElementsAre("alpha=10.0.0.1 alpha a", "gw=10.0.0.2 gw"));
    const auto by_address = parseFile("10.0.0.1 10.0.0.1 alpha a\n", Format::HOSTS);
    EXPECT_TRUE(by_address.dump);
    EXPECT_THAT(pairs(by_address), ElementsAre("alpha=10.0.0.1 alpha a"));
}

TEST(Format, OneHostNameWithTwoAddressesIsFine) {
    const auto file = parseFile("10.0.0.1 gw\n10.1.0.1 gw\n", Format::HOSTS);
    EXPECT_THAT(pairs(file), ElementsAre("gw=10.0.0.1 gw", "gw=10.1.0.1 gw"));
    EXPECT_THAT(file.problems, IsEmpty());
}

TEST(Format, WrongLinesAreNamed) {
    const auto file = parseFile("10.0.0.1 alpha\nnonsense here\n10.0.0.2\n", Format::HOSTS);
    EXPECT_THAT(pairs(file), ElementsAre("alpha=10.0.0.1 alpha"));
    ASSERT_THAT(file.problems, SizeIs(2));
    EXPECT_EQ(file.problems[0].line, 2U);
    EXPECT_THAT(file.problems[0].text, HasSubstr("'nonsense here' has not the form"));
    EXPECT_EQ(file.problems[1].line, 3U);
    const auto dump = parseFile("alpha 10.0.0.1 alpha\nbeta 10.0.0.2 gamma\n", Format::HOSTS);
    ASSERT_THAT(dump.problems, SizeIs(1));
    EXPECT_EQ(dump.problems[0].line, 2U);
}

TEST(Format, Services) {
    EXPECT_THAT(pairs(parseFile("ssh 22/tcp shell # secure\n", Format::SERVICES)),
                ElementsAre("ssh/tcp=ssh 22/tcp shell"));
    const auto dump = parseFile("22/tcp ssh 22/tcp shell\nssh/tcp ssh 22/tcp shell\n"
                                "shell/tcp ssh 22/tcp shell\n",
                                Format::SERVICES);
    EXPECT_TRUE(dump.dump);
    EXPECT_THAT(pairs(dump), ElementsAre("ssh/tcp=ssh 22/tcp shell"));
    EXPECT_THAT(parseFile("ssh tcp\n", Format::SERVICES).problems, SizeIs(1));
    EXPECT_THAT(parseFile("ssh x/tcp\n", Format::SERVICES).problems, SizeIs(1));
}

TEST(Format, NumberedAndEthers) {
    EXPECT_THAT(pairs(parseFile("tcp 6 TCP\n", Format::NUMBERED)), ElementsAre("tcp=tcp 6 TCP"));
    EXPECT_THAT(pairs(parseFile("6 tcp 6 TCP\ntcp tcp 6 TCP\nTCP tcp 6 TCP\n", Format::NUMBERED)),
                ElementsAre("tcp=tcp 6 TCP"));
    EXPECT_THAT(pairs(parseFile("loopback 127.0.0 lo\n", Format::NUMBERED)),
                ElementsAre("loopback=loopback 127.0.0 lo"));
    EXPECT_THAT(pairs(parseFile("2:0:0:0:0:a alpha\n", Format::ETHERS)),
                ElementsAre("alpha=2:0:0:0:0:a alpha"));
    EXPECT_THAT(pairs(parseFile("alpha 2:0:0:0:0:a alpha\n", Format::ETHERS)),
                ElementsAre("alpha=2:0:0:0:0:a alpha"));
}

TEST(Format, Timezone) {
    EXPECT_THAT(pairs(parseFile("UTC alpha beta\n", Format::TIMEZONE)),
                ElementsAre("alpha=UTC alpha beta"));
    const auto dump = parseFile("alpha UTC alpha beta\nbeta UTC alpha beta\n", Format::TIMEZONE);
    EXPECT_TRUE(dump.dump);
    EXPECT_THAT(pairs(dump), ElementsAre("alpha=UTC alpha beta"));
    EXPECT_THAT(parseFile("UTC\n", Format::TIMEZONE).problems, SizeIs(1));
}

TEST(Format, Passwd) {
    EXPECT_THAT(pairs(parseFile("ines:x:1001:100:Ines M:/home/ines:/bin/sh\n", Format::PASSWD)),
                ElementsAre("ines=ines:x:1001:100:Ines M:/home/ines:/bin/sh"));
    EXPECT_THAT(pairs(parseFile("1001 ines:x:1001:100:Ines M::\n", Format::PASSWD)),
                ElementsAre("ines=ines:x:1001:100:Ines M::"));
    EXPECT_THAT(parseFile("no colon\n:x:\n", Format::PASSWD).problems, SizeIs(2));
}

TEST(Format, Aliases) {
    EXPECT_THAT(pairs(parseFile("staff: ines, olu,\n   tomas\n# x\nroot:ines\n", Format::ALIASES)),
                ElementsAre("staff=staff: ines, olu, tomas", "root=root: ines"));
    EXPECT_THAT(pairs(parseFile("staff ines, olu\n", Format::ALIASES)),
                ElementsAre("staff=staff: ines, olu"));
}

TEST(Format, CharactersAreCountedAsTheDirectoryDoes) {
    EXPECT_EQ(characters(""), 0U);
    EXPECT_EQ(characters("abc"), 3U);
    EXPECT_EQ(characters("J\xC3\xBCrgen"), 6U);
    EXPECT_EQ(characters("\xE2\x82\xAC"), 1U);
    EXPECT_EQ(characters("\xF0\x9F\x98\x80"), 2U);
    for (const char* bad : {"J\xFCrgen", "\xC3", "\xC0\x80", "\xED\xA0\x80", "\xF4\x90\x80\x80",
                            "\xE2\x82", "\x80"}) {
        EXPECT_EQ(characters(bad), std::string::npos) << bad;
    }
}

TEST(Format, EveryFileEnds) {
    for (const char* text : {"", "\n", "\\", "\\\n", "#", "   \n\t\n"}) {
        for (const Format format :
             {Format::KEYED, Format::HOSTS, Format::ALIASES, Format::PASSWD}) {
            EXPECT_THAT(parseFile(text, format).records, IsEmpty()) << text;
        }
    }
}

} // namespace
