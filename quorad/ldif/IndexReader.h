#pragma once

#include "../Accounts.h"
#include "ObjectMaker.h"
#include "Sqlite.h"

#include <karst/ADObject.h>
#include <karst/LocalRpcSession.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace quorad::ldif {

/// Where a walk over a container has come to.
struct WalkPosition {
    bool deletionsDone = false;
    std::int64_t usn = 0; ///< of the last row
    std::int64_t id = 0;
};

/// What a search looks at.
struct WalkRange {
    std::int64_t base = 0;
    std::int64_t lower = 0; ///< of the sequence number; both inclusive
    std::int64_t upper = 0;
};

/// A connection that reads the index. All reads between begin() and end() see one state of it. One
/// thread at a time. Errors as sqlite::Database.
class IndexReader {
public:
    explicit IndexReader(const std::string& path);

    void begin();
    void end();

    std::string server();
    std::int64_t counter();
    /// Path and identity of the file that was loaded; empty before the first load.
    std::string source();
    /// DNS domains that the objects lie in, lower-cased.
    std::vector<std::string> domains();

    /// @return the node of that name, 0 when there is no such object
    /// @throws tessa::BadDataException when it is no DN
    std::int64_t findName(std::string_view dn);
    std::int64_t findGuid(std::string_view guid);

    /// @return false when the node is no object
    bool object(std::int64_t id, const ObjectMaker& maker, tessa::ADObject& object);
    void root(const ObjectMaker& maker, tessa::ADObject& object);

    /// Objects directly below a node in the order of their sequence numbers.
    /// @return false at the end
    bool children(const WalkRange& range, WalkPosition& position, const ObjectMaker& maker,
                  std::vector<tessa::ADObject>& objects, std::size_t limit);
    /// The same for objects that were there.
    bool deletions(const WalkRange& range, WalkPosition& position, const ObjectMaker& maker,
                   std::vector<tessa::ADObject>& objects, std::size_t limit);
    /// Objects at any depth below a node, itself included, in no meaningful order.
    /// @param inside remembers, for the length of the walk, which containers lie below the base
    bool subtree(const WalkRange& range, WalkPosition& position,
                 std::unordered_map<std::int64_t, bool>& inside, const ObjectMaker& maker,
                 std::vector<tessa::ADObject>& objects, std::size_t limit);

    /// Starts a walk over the accounts of a kind in the order of their names.
    void startAccounts(AccountKind kind);
    bool nextAccount(const ObjectMaker& maker, tessa::ADObject& object);
    /// @return the account of that name, 0 when there is none
    std::int64_t findAccount(AccountKind kind, std::string_view name);

    // What the members of a group are found by.
    bool member(const std::string& dn, AccountReference& account);
    std::vector<std::string> primaryMembers(std::uint32_t rid);

private:
    std::int64_t nodeOf(std::string_view dn);
    bool isInside(std::int64_t id, std::int64_t base,
                  std::unordered_map<std::int64_t, bool>& inside);
    bool metaValue(const char* name, std::string& value);

    sqlite::Database m_database;
    bool m_reading = false;
    std::string m_parentText; ///< of the last name looked for, with its node: names come in heaps
    std::int64_t m_parentNode = 0;

    sqlite::Statement m_meta;
    sqlite::Statement m_name;
    sqlite::Statement m_guid;
    sqlite::Statement m_object;
    sqlite::Statement m_children;
    sqlite::Statement m_deletions;
    sqlite::Statement m_all;
    sqlite::Statement m_parent;
    sqlite::Statement m_accounts;
    sqlite::Statement m_account;
    sqlite::Statement m_member;
    sqlite::Statement m_primary;
};

} // namespace quorad::ldif
