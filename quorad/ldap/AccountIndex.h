#pragma once

#include "../Accounts.h"
#include "../ldif/Sqlite.h"

#include <karst/ADObject.h>

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace quorad::ldap {

/// The users and groups of one enumeration, in a temporary file: they are delivered in the order of
/// their names, whatever their number, and members of groups are looked up in it. The file goes
/// with the object. One thread at a time.
///
/// Operations throw tessa::IPCException when the file cannot be written or read.
class AccountIndex {
public:
    /// @param folder where there is room for it
    AccountIndex(const std::string& folder, std::int64_t now);
    ~AccountIndex();
    /// Removes what a process that was killed left behind.
    static void removeStale(const std::string& folder);
    AccountIndex(const AccountIndex&) = delete;
    AccountIndex& operator=(const AccountIndex&) = delete;

    void addUsers(const std::vector<tessa::ADObject>& objects);
    /// A group, without a number too: others may contain it.
    /// @return its number here, for addMembers
    std::int64_t addGroup(const tessa::ADObject& object);
    /// Further members of a group.
    void addMembers(std::int64_t group, const std::vector<std::string>& members);
    /// What is wrong with the accounts, for an administrator; a bounded number of texts.
    std::set<std::string> problems();

    /// @return false at the end; begins again then
    bool nextUser(tessa::UserRecord& user);
    bool nextGroup(tessa::GroupRecord& group, bool withMembers);

private:
    struct Statements;

    static std::string prefix();
    void addUser(const tessa::ADObject& object);
    void addProblem(const tessa::ADObject& object, const char* kind, const std::string& reason);
    void findDuplicates(const char* table, const char* column, const char* what);
    std::vector<std::string> membersOf(std::int64_t group);
    template <typename Work> auto guarded(Work work);

    const std::int64_t m_now;
    std::string m_path;
    std::unique_ptr<sqlite::Database> m_database;
    std::unique_ptr<Statements> m_statements;
    std::set<std::string> m_problems;
    std::size_t m_moreProblems = 0;
};

} // namespace quorad::ldap
