#pragma once

#include <karst/ADObject.h>
#include <karst/LocalRpcSession.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace quorad {

enum class AccountKind { NONE = 0, USER = 1, GROUP = 2 };

/// What a member of a group turns out to be.
struct AccountReference {
    AccountKind kind = AccountKind::NONE;
    std::string name;                 ///< of a user; empty when it is none that can be served
    std::vector<std::string> members; ///< of a group, nested in the other: DNs,
    std::vector<std::string> names;   ///< and what it names directly
    bool hasRid = false;
    std::uint32_t rid = 0;
};

/// Finds the members of groups in a directory.
class MemberSource {
public:
    virtual ~MemberSource() = default;
    /// @return false when there is no such object, or it is neither user nor group
    virtual bool find(const std::string& dn, AccountReference& account) = 0;
    /// Names of the users whose primary group has that relative id.
    virtual std::vector<std::string> primaryMembers(std::uint32_t rid) = 0;
};

/// Turns directory objects into users and groups. What could not be written into a line of a passwd
/// or group file without forging another field or line is refused. Pure functions.
class Accounts {
public:
    /// Whether the object is a user or a group at all, numbers or none.
    static AccountKind kindOf(const tessa::ADObject& object);
    /// Attributes that the operations below look at.
    static const std::vector<std::string>& userAttributes();
    static const std::vector<std::string>& groupAttributes();

    /// @param now the directory's time (see directoryTime)
    /// @return false with a reason for an administrator when the object cannot be served
    static bool makeUser(const tessa::ADObject& object, std::int64_t now, tessa::UserRecord& user,
                         std::string& reason);
    /// The group without its members.
    static bool makeGroup(const tessa::ADObject& object, tessa::GroupRecord& group,
                          std::string& reason);
    /// The same as a nested group, which needs no number of its own.
    static AccountReference groupReference(const tessa::ADObject& object);

    /// Names of the users in the group: those it lists, those whose primary group it is, and those
    /// of the groups in it at any depth, in byte order and each once.
    static std::vector<std::string> members(const AccountReference& group, MemberSource& source);

    /// Whether the name can stand in a list of members.
    static bool isMemberName(std::string_view name);
    /// The relative id at the end of the object's SID, in either form.
    static bool ridOf(const tessa::ADObject& object, std::uint32_t& rid);
    /// A time as the directory counts: 100-nanosecond units since 1601.
    static std::int64_t directoryTime(std::int64_t secondsSince1970);
};

} // namespace quorad
