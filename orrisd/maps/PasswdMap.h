#pragma once

#include "maps/IntrinsicADNisMap.h"

#include <karst/LocalRpcSession.h>

#include <ctime>
#include <string>

namespace nis {

/// The users of the machine's zone as the maps passwd.byname and passwd.byuid.
class PasswdMap : public IntrinsicADNisMap {
public:
    static constexpr const char* PASSWD_MAP_NAME = "passwd";
    static constexpr const char* PASSWD_BY_NAME_MAP_NAME = "passwd.byname";
    static constexpr const char* PASSWD_BY_UID_MAP_NAME = "passwd.byuid";

    explicit PasswdMap(boost::shared_ptr<NisCache> cache);

    /// Reads all users. A failure leaves the map as it was.
    void initialize(const tessa::Int64& highUSN) override;
    void update(const tessa::Int64& highUSN) override { initialize(highUSN); }
    void rebuild(const tessa::Int64& highUSN) override { initialize(highUSN); }
    bool mustCacheThisMap(const std::string& name) const override;
    void derivedMapRemoved(const std::string& name) override;
    const char* type_name() const override { return "PasswdMap"; }

    /// The password field of a user.
    /// @param now seconds since the epoch
    /// @param expiredAllowed serve an account whose password has run out as if it had not
    static std::string passwordField(const tessa::UserRecord& user, std::time_t now,
                                     bool expiredAllowed);
    /// The user's line.
    static std::string line(const tessa::UserRecord& user, std::time_t now, bool expiredAllowed);

private:
    int enumerate(DataHorde& horde);
};

} // namespace nis
