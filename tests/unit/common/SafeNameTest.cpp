#include "common/SafeName.h"

#include <gtest/gtest.h>

using namespace nis;
using std::string_literals::operator""s;

TEST(SafeNameTest, AcceptsOrdinaryNames) {
    for (const char* name : {"passwd.byname", "dc1.example.com", ".GLOBAL", "a b", "...", "-f",
                             "ma\xc3\xb6p", "file:", "a:b"}) {
        EXPECT_TRUE(isSafeFileNamePart(name)) << name;
    }
    EXPECT_TRUE(isSafeFileNamePart(std::string(200, 'x')));
}

TEST(SafeNameTest, RefusesWhatLeavesTheFolderOrFitsNoFileName) {
    for (const std::string& name : {""s, "."s, ".."s, "/"s, "../../etc/passwd"s, "a/b"s, "a/"s,
                                    "a\0b"s, "\0"s, std::string(201, 'x')}) {
        EXPECT_FALSE(isSafeFileNamePart(name)) << name;
    }
}

TEST(SafeNameTest, NamesTogetherFitAFileNameWithTheLongestEndings) {
    const std::string part(77, 'x');
    ASSERT_TRUE(fitsFileName(part, part, part));
    for (const char* ending : {":4294967295.snap", ".999.map-journal"}) {
        EXPECT_LE((part + ":" + part + ":" + part + ending).size(), 255U);
    }
    EXPECT_FALSE(fitsFileName(std::string(80, 'x'), part, std::string(80, 'x')));
}
