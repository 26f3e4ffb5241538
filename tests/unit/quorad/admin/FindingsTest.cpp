#include "admin/Findings.h"

#include "admin/JoinCheck.h"
#include "admin/Progress.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace quorad::admin;
using testing::HasSubstr;

TEST(Findings, AreRenderedWithAdviceBelow) {
    const std::vector<Finding> findings{
        {Verdict::OK, "zone", "there", ""},
        {Verdict::WARNING, "clock", "late", "set it"},
        {Verdict::FAILED, "a very long name of it", "bad\nworse", ""}};
    EXPECT_EQ(render(findings), "OK       zone            there\n"
                                "WARNING  clock           late\n"
                                "                         -> set it\n"
                                "FAILED   a very long name of it bad\n"
                                "                         worse\n"
                                "1 failed, 1 warning.\n");
    EXPECT_EQ(worst(findings), Verdict::FAILED);
}

TEST(Findings, GoodOnesEndWithThat) {
    EXPECT_EQ(render({{Verdict::OK, "zone", "there", ""}}),
              "OK       zone            there\nEverything is in order.\n");
    EXPECT_EQ(worst({}), Verdict::OK);
    EXPECT_EQ(worst({{Verdict::WARNING, "", "", ""}, {Verdict::OK, "", "", ""}}), Verdict::WARNING);
}

TEST(JoinCheck, Clocks) {
    EXPECT_EQ(JoinCheck::judgeClock("dc1", 1000, 1000).verdict, Verdict::OK);
    EXPECT_EQ(JoinCheck::judgeClock("dc1", 1030, 1000).verdict, Verdict::OK);
    const Finding notable = JoinCheck::judgeClock("dc1", 969, 1000);
    EXPECT_EQ(notable.verdict, Verdict::WARNING);
    EXPECT_EQ(notable.text, "dc1 is 31 s behind");
    EXPECT_EQ(JoinCheck::judgeClock("dc1", 1300, 1000).verdict, Verdict::WARNING);
    const Finding wrong = JoinCheck::judgeClock("dc1", 1301, 1000);
    EXPECT_EQ(wrong.verdict, Verdict::FAILED);
    EXPECT_EQ(wrong.text, "dc1 is 301 s ahead");
    EXPECT_THAT(wrong.advice, HasSubstr("time source"));
}

TEST(JoinCheck, Keytabs) {
    EXPECT_EQ(JoinCheck::judgeKeytab("/k", "A$@R", {"host/a@R", "A$@R"}).verdict, Verdict::OK);
    const Finding other = JoinCheck::judgeKeytab("/k", "A$@R", {"B$@R", "host/b@R"});
    EXPECT_EQ(other.verdict, Verdict::FAILED);
    EXPECT_EQ(other.text, "/k has no key of A$@R, but of B$@R, host/b@R");
    EXPECT_THAT(JoinCheck::judgeKeytab("/k", "A$@R", {}).text, HasSubstr("but of nobody"));
}

TEST(JoinCheck, ADirectoryThatIsNoDomainIsSaidSo) {
    tessa::Properties configuration;
    configuration.set("quorad.directory", "ldif:/x.ldif");
    configuration.set("quorad.zone", "CN=z,CN=Zones,DC=example,DC=com");
    const auto findings = JoinCheck(configuration).run();
    ASSERT_FALSE(findings.empty());
    EXPECT_EQ(findings[0].verdict, Verdict::FAILED);
    EXPECT_THAT(findings[0].text, HasSubstr("names no Active Directory domain"));
}

TEST(Progress, FitsTheTerminal) {
    EXPECT_EQ(Progress::render("Importing m", 5, 10, 40),
              "Importing m [########        ]  50% 5/10");
    EXPECT_EQ(Progress::render("m", 0, 10, 200).size(), 2 + 1 + 50 + 11U);
    EXPECT_EQ(Progress::render("Importing m", 10, 10, 20), "100% Importing m");
    for (std::size_t columns = 0; columns < 90; ++columns) {
        EXPECT_LE(Progress::render("Importing a long name of a map", 7, 1000, columns).size(),
                  columns);
    }
    EXPECT_THAT(Progress::render("m", 3, 3, 60), HasSubstr("100% 3/3"));
    EXPECT_THAT(Progress::render("m", 0, 0, 60), HasSubstr("100%"));
}

} // namespace
