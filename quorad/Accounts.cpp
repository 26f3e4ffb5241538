#include "Accounts.h"

#include <karst/DN.h>
#include <karst/Exceptions.h>
#include <karst/Text.h>

#include <algorithm>
#include <limits>
#include <unordered_set>

namespace quorad {

namespace {

constexpr std::int64_t TICKS_PER_SECOND = 10'000'000;
constexpr std::int64_t SECONDS_1601_TO_1970 = 11'644'473'600;
constexpr std::int64_t NEVER = std::numeric_limits<std::int64_t>::max();
constexpr std::uint32_t ACCOUNT_DISABLED = 0x2;
constexpr std::string_view CRYPT_SCHEME = "{crypt}";
constexpr std::string_view NO_HASH = "x";

bool isControl(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7f;
}

// Whether the text would end the field or the line that it is written into.
bool breaksField(std::string_view text) {
    return std::any_of(text.begin(), text.end(), [](char c) { return c == ':' || isControl(c); });
}

bool hasValue(const tessa::ADAttribute& attribute, std::string_view value) {
    const auto& values = attribute.values();
    return std::any_of(values.begin(), values.end(), [&](const std::string& candidate) {
        return tessa::equalsIgnoreCase(candidate, value);
    });
}

// The category is a DN in the schema; written by hand it may be its first value alone.
bool isPerson(const tessa::ADObject& object) {
    if (!object.attributeExists("objectCategory", true)) {
        return !hasValue(object["objectClass"], "computer");
    }
    const std::string category = object["objectCategory"];
    const std::string first = tessa::DN::firstValue(category);
    return tessa::equalsIgnoreCase(first.empty() ? category : first, "person");
}

/// Reads the attributes of one object; the first thing found wrong is kept as the reason.
class Fields {
public:
    Fields(const tessa::ADObject& object, std::string& reason)
        : m_object(object), m_reason(reason) {}

    bool good() const { return m_good; }

    void refuse(std::string reason) {
        if (m_good) {
            m_good = false;
            m_reason = std::move(reason);
        }
    }

    std::int64_t number(const char* name, std::int64_t least, std::int64_t most,
                        std::int64_t absent) {
        if (!m_object.attributeExists(name, false)) {
            return absent;
        }
        const std::string text = m_object[name];
        try {
            const std::int64_t value = tessa::Int64::fromString(text).value();
            if (value >= least && value <= most) {
                return value;
            }
        } catch (const tessa::BadDataException&) { // NOLINT: told below like one out of range
        }
        refuse(std::string(name) + " '" + text + "' is not a number in the allowed range");
        return absent;
    }

    std::uint32_t id(const char* name) {
        if (!m_object.attributeExists(name, false)) {
            refuse(std::string("it has no ") + name);
            return 0;
        }
        return static_cast<std::uint32_t>(
            number(name, 0, std::numeric_limits<std::uint32_t>::max(), 0));
    }

    std::string text(const char* name) {
        std::string value = m_object[name];
        if (breaksField(value)) {
            refuse(std::string(name) + " '" + value + "' holds a colon or a control character");
        }
        return value;
    }

private:
    const tessa::ADObject& m_object;
    std::string& m_reason;
    bool m_good = true;
};

std::string gecosOf(const tessa::ADObject& object) {
    std::string gecos = object["gecos"];
    if (gecos.empty()) {
        gecos = object["displayName"].asString();
    }
    std::replace_if(
        gecos.begin(), gecos.end(), [](char c) { return c == ':' || isControl(c); }, ' ');
    return gecos;
}

std::string hashOf(Fields& fields) {
    std::string hash = fields.text("unixUserPassword");
    if (tessa::equalsIgnoreCase(std::string_view(hash).substr(0, CRYPT_SCHEME.size()),
                                CRYPT_SCHEME)) {
        hash.erase(0, CRYPT_SCHEME.size());
    }
    return hash.empty() ? std::string(NO_HASH) : hash;
}

void addNames(const std::vector<std::string>& names, std::vector<std::string>& members) {
    std::copy_if(names.begin(), names.end(), std::back_inserter(members),
                 [](const std::string& name) { return Accounts::isMemberName(name); });
}

} // namespace

AccountKind Accounts::kindOf(const tessa::ADObject& object) {
    const tessa::ADAttribute classes = object["objectClass"];
    if (hasValue(classes, "group")) {
        return AccountKind::GROUP;
    }
    return hasValue(classes, "user") && isPerson(object) ? AccountKind::USER : AccountKind::NONE;
}

const std::vector<std::string>& Accounts::userAttributes() {
    static const std::vector<std::string> names{
        "objectClass",        "objectCategory",
        "sAMAccountName",     "uidNumber",
        "gidNumber",          "gecos",
        "displayName",        "unixHomeDirectory",
        "loginShell",         "accountExpires",
        "userAccountControl", "unixUserPassword",
        "primaryGroupID",     "msDS-UserPasswordExpiryTimeComputed"};
    return names;
}

const std::vector<std::string>& Accounts::groupAttributes() {
    static const std::vector<std::string> names{
        "objectClass", "sAMAccountName", "cn", "gidNumber", "member", "memberUid", "objectSid"};
    return names;
}

bool Accounts::makeUser(const tessa::ADObject& object, std::int64_t now, tessa::UserRecord& user,
                        std::string& reason) {
    constexpr std::int64_t LEAST = std::numeric_limits<std::int64_t>::min();
    Fields fields(object, reason);
    user = tessa::UserRecord();
    user.name = fields.text("sAMAccountName");
    if (!isMemberName(user.name)) {
        fields.refuse("'" + user.name + "' cannot be a user name");
    }
    user.uid = fields.id("uidNumber");
    user.gid = fields.id("gidNumber");
    user.gecos = gecosOf(object);
    user.homeDirectory = fields.text("unixHomeDirectory");
    user.shell = fields.text("loginShell");
    user.passwordHash = hashOf(fields);
    // Signed in the directory: the highest flag makes it negative.
    user.accountControl = static_cast<std::uint32_t>(
        fields.number("userAccountControl", std::numeric_limits<std::int32_t>::min(),
                      std::numeric_limits<std::uint32_t>::max(), 0));
    user.enabled = (user.accountControl & ACCOUNT_DISABLED) == 0;
    user.accountExpires = fields.number("accountExpires", LEAST, NEVER, 0);
    const std::int64_t expiry =
        fields.number("msDS-UserPasswordExpiryTimeComputed", LEAST, NEVER, -1);
    user.passwordExpiry = expiry == NEVER ? -1 : expiry;
    user.passwordTime = now;
    return fields.good();
}

bool Accounts::makeGroup(const tessa::ADObject& object, tessa::GroupRecord& group,
                         std::string& reason) {
    Fields fields(object, reason);
    group = tessa::GroupRecord();
    group.name =
        fields.text(object.attributeExists("sAMAccountName", true) ? "sAMAccountName" : "cn");
    if (group.name.empty()) {
        fields.refuse("it has no name");
    }
    group.gid = fields.id("gidNumber");
    return fields.good();
}

AccountReference Accounts::groupReference(const tessa::ADObject& object) {
    AccountReference group;
    group.kind = AccountKind::GROUP;
    group.members = object["member"].values();
    group.names = object["memberUid"].values();
    group.hasRid = ridOf(object, group.rid);
    return group;
}

std::vector<std::string> Accounts::members(const AccountReference& group, MemberSource& source) {
    std::vector<std::string> names;
    std::unordered_set<std::string> seen;
    std::vector<std::string> open; // DNs that are still to be looked at
    const auto take = [&](const AccountReference& account) {
        addNames(account.names, names);
        if (account.hasRid) {
            addNames(source.primaryMembers(account.rid), names);
        }
        open.insert(open.end(), account.members.begin(), account.members.end());
    };
    take(group);
    while (!open.empty()) {
        const std::string dn = std::move(open.back());
        open.pop_back();
        if (!seen.insert(tessa::DN::normalize(dn)).second) {
            continue;
        }
        AccountReference account;
        if (!source.find(dn, account)) {
            continue;
        }
        if (account.kind == AccountKind::GROUP) {
            take(account);
        } else if (isMemberName(account.name)) {
            names.push_back(std::move(account.name));
        }
    }
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    return names;
}

bool Accounts::isMemberName(std::string_view name) {
    return !name.empty() && !breaksField(name) && name.find(',') == std::string_view::npos;
}

bool Accounts::ridOf(const tessa::ADObject& object, std::uint32_t& rid) {
    constexpr std::size_t HEADER = 8; // revision, count, authority
    const std::string sid = object["objectSid"];
    if (tessa::equalsIgnoreCase(std::string_view(sid).substr(0, 4), "S-1-")) {
        try {
            const auto last =
                tessa::Int64::fromString(std::string_view(sid).substr(sid.rfind('-') + 1)).value();
            rid = static_cast<std::uint32_t>(last);
            return last >= 0 && last <= std::numeric_limits<std::uint32_t>::max();
        } catch (const tessa::BadDataException&) {
            return false;
        }
    }
    const std::size_t count = sid.size() > 1 ? static_cast<unsigned char>(sid[1]) : 0;
    if (count == 0 || sid[0] != 1 || sid.size() != HEADER + 4 * count) {
        return false;
    }
    rid = 0;
    for (std::size_t i = 0; i < 4; ++i) {
        rid = (rid << 8U) | static_cast<unsigned char>(sid[sid.size() - 1 - i]);
    }
    return true;
}

std::int64_t Accounts::directoryTime(std::int64_t secondsSince1970) {
    return (secondsSince1970 + SECONDS_1601_TO_1970) * TICKS_PER_SECOND;
}

} // namespace quorad
