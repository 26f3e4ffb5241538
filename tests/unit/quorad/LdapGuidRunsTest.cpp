#include "ldap/GuidRuns.h"
#include "support/TempFolder.h"

#include <karst/Exceptions.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <random>
#include <vector>

namespace {

using namespace quorad::ldap;

class LdapGuidRuns : public testing::TestWithParam<std::size_t> {
protected:
    std::vector<GuidBytes> some(std::size_t count) {
        std::vector<GuidBytes> all(count);
        for (GuidBytes& guid : all) {
            for (char& byte : guid) {
                byte = static_cast<char>(random());
            }
        }
        return all;
    }
    std::vector<GuidBytes> sorted(GuidRuns& runs) {
        runs.sort();
        std::vector<GuidBytes> found;
        GuidBytes guid{};
        while (runs.next(guid)) {
            found.push_back(guid);
        }
        EXPECT_FALSE(runs.next(guid));
        return found;
    }

    std::mt19937 random{42}; // NOLINT: the same each time
    test::TempFolder folder;
};

TEST_P(LdapGuidRuns, ComeBackInOrder) {
    std::vector<GuidBytes> all = some(GetParam());
    if (all.size() > 1) {
        all.push_back(all.front()); // as often as it was added
    }
    GuidRuns runs(folder.path().string(), 64);
    for (const GuidBytes& guid : all) {
        runs.add(guid);
    }
    EXPECT_EQ(runs.size(), all.size());
    std::sort(all.begin(), all.end(), isBefore);
    EXPECT_EQ(sorted(runs), all);
    EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
}

INSTANTIATE_TEST_SUITE_P(Sizes, LdapGuidRuns, testing::Values(0, 1, 63, 64, 65, 128, 129, 50000));

TEST_F(LdapGuidRuns, BytesAreUnsigned) {
    EXPECT_TRUE(isBefore(toBytes("\x7f"), toBytes("\x80")));
    EXPECT_FALSE(isBefore(toBytes("\xff"), toBytes("\x01")));
}

TEST_F(LdapGuidRuns, NoRoomForTheFile) {
    GuidRuns runs((folder.path() / "missing").string(), 2);
    const auto guids = some(3);
    runs.add(guids[0]);
    runs.add(guids[1]);
    EXPECT_THROW(runs.add(guids[2]), tessa::IPCException);
}

} // namespace
