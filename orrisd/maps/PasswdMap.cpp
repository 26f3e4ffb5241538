#include "maps/PasswdMap.h"

#include "common/ConfigKeys.h"
#include "common/Globals.h"
#include "maps/Directory.h"
#include "maps/Enumeration.h"

#include <karst/Text.h>

#include <cstdint>

namespace nis {

namespace {

constexpr const char* LOCKED = "!!";
constexpr const char* IN_SHADOW = "x";
constexpr const char* NO_PASSWORD = "!";

constexpr std::uint32_t ACCOUNT_DISABLED = 0x2;

// The directory counts units of 100 nanoseconds since 1601-01-01.
constexpr std::int64_t UNITS_PER_SECOND = 10000000;
constexpr std::int64_t SECONDS_TO_EPOCH = 11644473600;
constexpr std::int64_t SECONDS_PER_DAY = 86400;

std::int64_t toSeconds(std::int64_t stamp) {
    return stamp / UNITS_PER_SECOND - SECONDS_TO_EPOCH;
}

std::int64_t toDay(std::int64_t stamp) {
    return stamp == 0 ? 0 : toSeconds(stamp) / SECONDS_PER_DAY;
}

bool passwordExpired(const tessa::UserRecord& user) {
    return user.passwordExpiry >= 0 && toDay(user.passwordExpiry) <= toDay(user.passwordTime);
}

bool accountExpired(const tessa::UserRecord& user, std::time_t now) {
    const std::int64_t expires = user.accountExpires;
    if (expires == -1 || expires == 0 || expires == INT64_MAX) {
        return false;
    }
    return std::int64_t{now} >= toSeconds(expires);
}

/// A text that would break the line apart (and so give the user another home or shell, or more)
/// loses the characters that do.
std::string asField(const std::string& text, const std::string& userName, const char* what) {
    if (isField(text)) {
        return text;
    }
    KARST_LOG(logger, tessa::LOG_WARN,
              "The %s of user '%s' holds a separator of fields or lines, which is left out", what,
              userName.c_str());
    std::string field;
    for (const char c : text) {
        field += isField({&c, 1}) ? c : ' ';
    }
    return field;
}

} // namespace

PasswdMap::PasswdMap(boost::shared_ptr<NisCache> cache)
    : IntrinsicADNisMap(std::move(cache), PASSWD_BY_NAME_MAP_NAME, PASSWD_BY_UID_MAP_NAME) {}

bool PasswdMap::mustCacheThisMap(const std::string& name) const {
    return name == PASSWD_MAP_NAME;
}

void PasswdMap::derivedMapRemoved(const std::string& /*name*/) {}

std::string PasswdMap::passwordField(const tessa::UserRecord& user, std::time_t now,
                                     bool expiredAllowed) {
    if ((user.accountControl & ACCOUNT_DISABLED) != 0 || !user.enabled) {
        return LOCKED;
    }
    if (passwordExpired(user)) {
        if (!expiredAllowed) {
            return LOCKED;
        }
    } else if (accountExpired(user, now)) {
        return LOCKED;
    }
    // An empty hash would let everybody in.
    if (user.passwordHash == IN_SHADOW || user.passwordHash.empty()) {
        return NO_PASSWORD;
    }
    return asField(user.passwordHash, user.name, "password");
}

std::string PasswdMap::line(const tessa::UserRecord& user, std::time_t now, bool expiredAllowed) {
    std::string line = user.name;
    for (const std::string& field :
         {passwordField(user, now, expiredAllowed), tessa::uitoa(user.uid), tessa::uitoa(user.gid),
          asField(user.gecos, user.name, "description"),
          asField(user.homeDirectory, user.name, "home directory"),
          asField(user.shell, user.name, "login shell")}) {
        line += ':';
        line += field;
    }
    return line;
}

int PasswdMap::enumerate(DataHorde& horde) {
    const auto interface = directory();
    const bool expiredAllowed = getConfig()->getBool(PROP_PASSWD_EXPIRED, false);
    const std::time_t now = std::time(nullptr);
    int count = 0;
    interface->startListUser();
    const Listing listing([&interface] { interface->endListUser(); });
    try {
        forEachEntry([&interface] { return interface->nextUser(); },
                     [&](const tessa::UserRecord& user) {
                         if (!isAccountName(user.name)) {
                             KARST_LOG(logger, tessa::LOG_WARN,
                                       "User '%s' (uid %u) is left out: not a usable name",
                                       user.name.c_str(), user.uid);
                             return;
                         }
                         horde.add(user.name, tessa::uitoa(user.uid),
                                   line(user, now, expiredAllowed));
                         ++count;
                     });
    } catch (...) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "catch incomplete map when download %s",
                  getName().c_str());
        throw;
    }
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "Complete downloading map entries from nextUser() %s",
              getName().c_str());
    return count;
}

void PasswdMap::initialize(const tessa::Int64& /*highUSN*/) {
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "Beginning load for map '%s', server %s",
              getName().c_str(), getServer().c_str());
    setNextUpdateTime();
    const auto horde = startHorde();
    const int count = enumerate(*horde);
    dataHordeComplete(*horde);
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "Load complete for map '%s', server %s. %d new records",
              getName().c_str(), getServer().c_str(), count);
}

} // namespace nis
