#include "maps/PasswdMap.h"
#include "unit/maps/MapsFixture.h"

#include <cstdint>

namespace {

constexpr std::int64_t DAY = 86400LL * 10000000;
constexpr std::int64_t EPOCH = 11644473600LL * 10000000;
constexpr std::time_t NOW = 1700000000;

/// The directory's time stamp of so many seconds since the epoch.
constexpr std::int64_t stamp(std::int64_t seconds) {
    return (seconds + 11644473600LL) * 10000000;
}

tessa::UserRecord user() {
    tessa::UserRecord record;
    record.name = "ines";
    record.uid = 1001;
    record.gid = 1000;
    record.gecos = "Ines Duarte,Lab";
    record.homeDirectory = "/home/ines";
    record.shell = "/bin/bash";
    record.passwordHash = "$6$salt$hash";
    record.passwordTime = stamp(NOW);
    return record;
}

std::string field(const tessa::UserRecord& record, bool expiredAllowed = false) {
    return nis::PasswdMap::passwordField(record, NOW, expiredAllowed);
}

TEST(PasswdLine, SevenFields) {
    EXPECT_EQ(nis::PasswdMap::line(user(), NOW, false),
              "ines:$6$salt$hash:1001:1000:Ines Duarte,Lab:/home/ines:/bin/bash");
    tessa::UserRecord record = user();
    record.uid = 4294967295U;
    record.gecos = record.homeDirectory = record.shell = "";
    EXPECT_EQ(nis::PasswdMap::line(record, NOW, false), "ines:$6$salt$hash:4294967295:1000:::");
}

TEST(PasswdLine, DisabledAccountsAreLockedWhateverTheirHash) {
    tessa::UserRecord record = user();
    record.accountControl = 0x202;
    EXPECT_EQ(field(record), "!!");
    EXPECT_EQ(field(record, true), "!!");
    record.passwordHash = "x";
    EXPECT_EQ(field(record), "!!");
    record = user();
    record.accountControl = 0x200;
    EXPECT_EQ(field(record), "$6$salt$hash");
    record.enabled = false;
    EXPECT_EQ(field(record), "!!");
}

TEST(PasswdLine, ExpiredPasswords) {
    tessa::UserRecord record = user();
    record.passwordExpiry = -1;
    EXPECT_EQ(field(record), "$6$salt$hash");
    record.passwordExpiry = stamp(NOW) + DAY;
    EXPECT_EQ(field(record), "$6$salt$hash");
    record.passwordExpiry = stamp(NOW);
    EXPECT_EQ(field(record), "!!") << "the day it runs out";
    EXPECT_EQ(field(record, true), "$6$salt$hash");
    record.passwordExpiry = 0;
    EXPECT_EQ(field(record), "!!") << "must be changed";
    record.passwordExpiry = INT64_MAX;
    EXPECT_EQ(field(record), "$6$salt$hash");
}

TEST(PasswdLine, DaysAreWholeDaysSinceTheEpoch) {
    tessa::UserRecord record = user();
    record.passwordTime = EPOCH + 10 * DAY + DAY - 1;
    record.passwordExpiry = EPOCH + 11 * DAY;
    EXPECT_EQ(field(record), "$6$salt$hash");
    record.passwordExpiry = EPOCH + 10 * DAY;
    EXPECT_EQ(field(record), "!!");
    record.passwordTime = 0;
    record.passwordExpiry = EPOCH + DAY;
    EXPECT_EQ(field(record), "$6$salt$hash") << "0 is day 0";
    record.passwordExpiry = EPOCH + DAY - 1;
    EXPECT_EQ(field(record), "!!");
}

TEST(PasswdLine, AllowedExpiredPasswordsAreNotCheckedForTheAccount) {
    tessa::UserRecord record = user();
    record.passwordExpiry = 0;
    record.accountExpires = stamp(NOW - 10);
    EXPECT_EQ(field(record, true), "$6$salt$hash");
    record.passwordHash = "x";
    EXPECT_EQ(field(record, true), "!");
}

TEST(PasswdLine, ExpiredAccounts) {
    tessa::UserRecord record = user();
    for (const std::int64_t never : {std::int64_t{-1}, std::int64_t{0}, INT64_MAX}) {
        record.accountExpires = never;
        EXPECT_EQ(field(record), "$6$salt$hash");
    }
    record.accountExpires = stamp(NOW);
    EXPECT_EQ(field(record), "!!");
    record.accountExpires = stamp(NOW + 1);
    EXPECT_EQ(field(record), "$6$salt$hash");
    record.accountExpires = 1;
    EXPECT_EQ(field(record), "!!");
}

TEST(PasswdLine, HashesKeptElsewhere) {
    tessa::UserRecord record = user();
    record.passwordHash = "x";
    EXPECT_EQ(field(record), "!");
    record.passwordHash = "";
    EXPECT_EQ(field(record), "!") << "nobody gets in without a password";
}

TEST(PasswdLine, NoFieldCanBreakTheLine) {
    tessa::UserRecord record = user();
    record.gecos = "Ines:0:0\nroot";
    record.homeDirectory = "/home:/root";
    record.passwordHash = ":0:0:";
    testing::internal::CaptureStderr();
    const std::string line = nis::PasswdMap::line(record, NOW, false);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(std::count(line.begin(), line.end(), ':'), 6) << line;
    EXPECT_EQ(line.find('\n'), std::string::npos);
    EXPECT_NE(log.find("The description of user 'ines' holds a separator"), std::string::npos);
}

} // namespace
