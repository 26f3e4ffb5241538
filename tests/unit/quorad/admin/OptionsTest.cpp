#include "admin/Options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace quorad::admin;
using testing::ElementsAre;
using testing::HasSubstr;

TEST(Options, WordsAndOptionsMayBeMixed) {
    const Options options = Options::parse(
        {"--dry-run", "import", "--format=hosts", "hosts", "--zone", "CN=z,CN=Zones,DC=x", "-"});
    EXPECT_THAT(options.words, ElementsAre("import", "hosts", "-"));
    EXPECT_TRUE(options.dryRun);
    EXPECT_FALSE(options.yes);
    EXPECT_EQ(options.format, Format::HOSTS);
    EXPECT_EQ(options.zone, "CN=z,CN=Zones,DC=x");
    EXPECT_EQ(options.configuration, "/etc/velmorix/velmorix.conf");
}

TEST(Options, AfterTwoDashesEverythingIsAWord) {
    EXPECT_THAT(Options::parse({"map", "create", "--", "--yes"}).words,
                ElementsAre("map", "create", "--yes"));
}

TEST(Options, MistakesAreNamed) {
    const auto complaint = [](const std::vector<std::string>& arguments) -> std::string {
        try {
            Options::parse(arguments);
        } catch (const UsageError& error) {
            return error.what();
        }
        return "none";
    };
    EXPECT_EQ(complaint({"--nonsense"}), "unknown option '--nonsense'");
    EXPECT_EQ(complaint({"-x"}), "unknown option '-x'");
    EXPECT_EQ(complaint({"--zone"}), "--zone needs a value");
    EXPECT_EQ(complaint({"--zone="}), "--zone needs a value");
    EXPECT_THAT(complaint({"--format", "odd"}),
                HasSubstr("'odd' is none of keyed, tabbed, auto, hosts"));
    EXPECT_EQ(complaint({"--bind", "CN=x"}), "--bind needs --password-file");
    EXPECT_EQ(complaint({"--dry-run=yes"}), "unknown option '--dry-run=yes'");
}

TEST(Options, TheHelpNamesEveryCommandAndOption) {
    const std::string text = usage();
    for (const char* word :
         {"join-check", "zone create", "map list", "map create", "map delete", "import", "export",
          "--dry-run", "--yes", "--keep", "--skip-bad", "--format", "--zone", "--nisdomain",
          "--server", "--machine", "--bind", "--password-file", "--config"}) {
        EXPECT_THAT(text, HasSubstr(word));
    }
}

} // namespace
