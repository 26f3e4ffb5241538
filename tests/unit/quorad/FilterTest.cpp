#include "Filter.h"

#include <karst/Exceptions.h>
#include <karst/Text.h>

#include <gtest/gtest.h>

#include <limits>
#include <map>
#include <string>
#include <vector>

namespace {

using quorad::Filter;

class Subject : public quorad::FilterSubject {
public:
    std::map<std::string, std::vector<std::string>> attributes;

    bool anyValue(std::string_view attribute, const Test& test) const override {
        EXPECT_EQ(attribute, tessa::lower(attribute));
        const auto found = attributes.find(std::string(attribute));
        if (found == attributes.end()) {
            return false;
        }
        for (const auto& value : found->second) {
            if (test(value)) {
                return true;
            }
        }
        return false;
    }
};

Subject sample() {
    Subject subject;
    subject.attributes = {
        {"cn", {"Bollard"}},      {"description", {"one", "Two (2)"}},
        {"uidnumber", {"900"}},   {"version", {"abc"}},
        {"usnchanged", {"1500"}}, {"objectguid", {std::string("\x01\x41\x00\x2a", 4)}},
        {"empty", {""}},
    };
    return subject;
}

struct Case {
    const char* filter;
    bool matches;
};

class FilterMatch : public testing::TestWithParam<Case> {};

TEST_P(FilterMatch, asExpected) {
    EXPECT_EQ(Filter(GetParam().filter).matches(sample()), GetParam().matches) << GetParam().filter;
}

INSTANTIATE_TEST_SUITE_P(
    Table, FilterMatch,
    testing::Values(
        // equality and presence
        Case{"(cn=bollard)", true}, Case{"(CN=BOLLARD)", true}, Case{"(cn=bollar)", false},
        Case{"(cn~=bollard)", true}, Case{"(description=two \\282\\29)", true},
        Case{"(description=one)", true}, Case{"(description=three)", false},
        Case{"(mail=x)", false}, Case{"(cn=*)", true}, Case{"(mail=*)", false},
        Case{"(empty=*)", true}, Case{"(empty=)", true}, Case{"(cn=)", false},
        // substrings
        Case{"(cn=bol*)", true}, Case{"(cn=*lard)", true}, Case{"(cn=*oll*)", true},
        Case{"(cn=b*l*d)", true}, Case{"(cn=b*d*l)", false}, Case{"(cn=*x*)", false},
        Case{"(cn=bollard*bollard)", false}, Case{"(cn=boll*llard)", false}, Case{"(cn=**)", true},
        Case{"(cn=b**d)", true}, Case{"(description=*\\28*)", true}, Case{"(cn=\\2a)", false},
        Case{"(cn=*\\2a*)", false},
        // order: numbers when both are
        Case{"(uidNumber>=100)", true}, Case{"(uidNumber>=1000)", false},
        Case{"(uidNumber<=1000)", true}, Case{"(uidNumber<=900)", true},
        Case{"(uidNumber<=899)", false}, Case{"(version>=abb)", true},
        Case{"(version<=abb)", false}, Case{"(version>=12)", true}, Case{"(mail>=1)", false},
        // sequence numbers
        Case{"(usnchanged>=1500)", true}, Case{"(uSNChanged>=1501)", false},
        Case{"(usnchanged<=1500)", true}, Case{"(usnchanged=01500)", true},
        Case{"(usnchanged<=0200)", false}, Case{"(usncreated>=1)", false},
        // binary values are exact
        Case{"(objectGUID=\\01A\\00*)", true}, Case{"(objectGUID=\\01a\\00*)", false},
        Case{"(objectGUID=\\01\\41\\00\\2a)", true},
        // composition
        Case{"(&)", true}, Case{"(|)", false}, Case{"(&(cn=bollard)(uidNumber=900))", true},
        Case{"(&(cn=bollard)(uidNumber=901))", false}, Case{"(|(cn=x)(uidNumber=900))", true},
        Case{"(|(cn=x)(cn=y))", false}, Case{"(!(cn=x))", true}, Case{"(!(cn=bollard))", false},
        Case{"(!(mail=*))", true},
        Case{"(&(|(cn=x)(cn=bollard))(!(|(mail=*)(uidNumber=1))))", true}));

class FilterMalformed : public testing::TestWithParam<std::string> {};

TEST_P(FilterMalformed, isRefused) {
    EXPECT_THROW(Filter{GetParam()}, tessa::BadDataException) << GetParam();
}

INSTANTIATE_TEST_SUITE_P(
    Table, FilterMalformed,
    testing::Values("", "(", ")", "()", "cn=a", "(cn=a", "(cn=a))", "(cn=a)(cn=b)", " (cn=a)",
                    "(cn=a) ", "(=a)", "(cn)", "(cn>a)", "(cn<a)", "(cn~a)", "(cn>=a*)", "(cn:=a)",
                    "(userAccountControl:1.2.840.113556.1.4.803:=2)", "(cn=a\\)", "(cn=\\4)",
                    "(cn=\\4g)", "(cn=a(b)", "(!)", "(!(cn=a)(cn=b))", "(!cn=a)", "(&(cn=a)",
                    "(&cn=a)", "(& (cn=a))", "(usnchanged>=x)", "(usnchanged>=)", "(usnchanged=1*)",
                    "(usnchanged>=99999999999999999999)", std::string("(cn=a\0b)", 8)));

TEST(Filter, saysWhereTheMistakeIs) {
    try {
        Filter("(&(cn=a)(b))");
        FAIL();
    } catch (const tessa::BadDataException& e) {
        EXPECT_NE(std::string(e.what()).find("position 11"), std::string::npos) << e.what();
    }
}

TEST(Filter, boundsDepthAndLength) {
    const auto nested = [](std::size_t depth) {
        std::string text;
        for (std::size_t i = 0; i < depth; ++i) {
            text += "(!";
        }
        text += "(cn=bollard)";
        return text + std::string(depth, ')');
    };
    EXPECT_TRUE(Filter(nested(Filter::MAX_DEPTH - 2)).matches(sample()));
    EXPECT_THROW(Filter{nested(Filter::MAX_DEPTH)}, tessa::BadDataException);
    EXPECT_THROW(Filter{nested(20'000)}, tessa::BadDataException);
    EXPECT_THROW(Filter{"(cn=" + std::string(Filter::MAX_LENGTH, 'a') + ")"},
                 tessa::BadDataException);
}

TEST(Filter, rangeOfAnIncrementalRefresh) {
    const auto range = Filter("(&(usnchanged>=1001)(usnchanged<=2000))").usnRange();
    EXPECT_EQ(range.lower, 1001);
    EXPECT_EQ(range.upper, 2000);
    EXPECT_TRUE(range.hasLower);
    EXPECT_TRUE(range.complete);
}

TEST(Filter, rangeOfAFirstLoadHasNoLowerBound) {
    const auto range = Filter("(usnchanged<=2000)").usnRange();
    EXPECT_FALSE(range.hasLower);
    EXPECT_EQ(range.upper, 2000);
    EXPECT_TRUE(range.complete);
}

TEST(Filter, rangeTakesTheNarrowestBounds) {
    const auto range =
        Filter("(&(uSNChanged>=5)(&(usnchanged>=7)(usnchanged<=20))(usnchanged<=30)(cn=a))")
            .usnRange();
    EXPECT_EQ(range.lower, 7);
    EXPECT_EQ(range.upper, 20);
    EXPECT_FALSE(range.complete) << "cn must be looked at too";
    const auto one = Filter("(usnchanged=9)").usnRange();
    EXPECT_EQ(one.lower, 9);
    EXPECT_EQ(one.upper, 9);
    EXPECT_TRUE(one.complete);
}

TEST(Filter, noBoundsFromAlternativesAndNegations) {
    for (const char* text :
         {"(|(usnchanged>=5)(cn=a))", "(!(usnchanged>=5))", "(objectClass=*)", "(usnchanged=*)"}) {
        const auto range = Filter(text).usnRange();
        EXPECT_FALSE(range.hasLower) << text;
        EXPECT_FALSE(range.complete) << text;
        EXPECT_EQ(range.upper, std::numeric_limits<std::int64_t>::max()) << text;
    }
}

} // namespace
