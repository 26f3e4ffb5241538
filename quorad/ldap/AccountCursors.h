#pragma once

#include "../Directory.h"
#include "AccountIndex.h"
#include "Query.h"

#include <karst/Logger.h>
#include <karst/Mutex.h>

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace quorad::ldap {

/// Tells an administrator what is wrong with accounts: each thing once, and again when it comes
/// back after it was put right. Thread-safe.
class AccountNotices {
public:
    AccountNotices();
    /// @param kind of which kind of enumeration these are all
    void report(AccountKind kind, const std::set<std::string>& problems);

private:
    const boost::shared_ptr<tessa::Logger> m_logger;
    tessa::Mutex m_mutex;
    std::set<std::string> m_users KARST_GUARDED_BY(m_mutex);
    std::set<std::string> m_groups KARST_GUARDED_BY(m_mutex);
};

/// Reads the accounts of the domain into an index, bit by bit.
class AccountReader {
public:
    /// @param kind users alone, or groups with the users that may be in them
    AccountReader(Controllers& controllers, const std::string& folder, AccountKind kind,
                  bool withUsers, AccountNotices& notices, Controllers::Deadline deadline);
    /// Goes on for a limited time.
    /// @return whether all is read
    bool read();
    AccountIndex& index() { return m_index; }

private:
    void step();
    void addGroup(tessa::ADObject& object);

    const AccountKind m_kind;
    AccountNotices& m_notices;
    std::optional<Query> m_query; ///< given back when all is read
    AccountIndex m_index;
    bool m_usersLeft;
    bool m_groupsLeft;
};

class UsersOfDomain : public UserCursor {
public:
    UsersOfDomain(Controllers& controllers, const std::string& folder, AccountNotices& notices,
                  Controllers::Deadline deadline)
        : m_reader(controllers, folder, AccountKind::USER, true, notices, deadline) {}
    bool nextPage(std::vector<tessa::UserRecord>& items, std::size_t limit) override;

private:
    AccountReader m_reader;
};

class GroupsOfDomain : public GroupCursor {
public:
    GroupsOfDomain(Controllers& controllers, const std::string& folder, bool withMembers,
                   AccountNotices& notices, Controllers::Deadline deadline)
        : m_withMembers(withMembers),
          m_reader(controllers, folder, AccountKind::GROUP, withMembers, notices, deadline) {}
    bool nextPage(std::vector<tessa::GroupRecord>& items, std::size_t limit) override;

private:
    const bool m_withMembers;
    AccountReader m_reader;
};

/// One account by its name.
/// @throws tessa::NotFoundException
tessa::UserRecord userOfDomain(Query& query, const std::string& name);
tessa::GroupRecord groupOfDomain(Query& query, const std::string& name);

} // namespace quorad::ldap
