#include "AccountCursors.h"

#include "../Pager.h"
#include "../Reporter.h"
#include "Text.h"

#include <karst/Exceptions.h>
#include <karst/Text.h>

#include <algorithm>

namespace quorad::ldap {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds SLICE(10);
constexpr const char* USERS = "(&(objectCategory=person)(objectClass=user)(uidNumber=*))";
constexpr const char* POSIX_GROUPS = "(&(objectClass=group)(gidNumber=*))";
constexpr const char* ALL_GROUPS = "(objectClass=group)";
// A part of the members with each group, so that no answer is too large; the rest follows by range.
constexpr const char* FIRST_MEMBERS = "member;range=0-1499";
constexpr unsigned long MEMBERS_AT_ONCE = 1500; // more is not handed out
constexpr unsigned GROUPS_AT_ONCE = 50;         // each with that part of its members
// Members of a single group are looked up one by one; clients wait for 30 seconds.
constexpr std::chrono::seconds LOOKUP_LIMIT(20);
constexpr const char* EXPIRY = "msDS-UserPasswordExpiryTimeComputed";

std::vector<std::string> userAttributes(bool withExpiry) {
    std::vector<std::string> names = Accounts::userAttributes();
    if (!withExpiry) {
        names.erase(std::remove(names.begin(), names.end(), EXPIRY), names.end());
    }
    return names;
}

std::vector<std::string> groupAttributes(bool withMembers) {
    std::vector<std::string> names = Accounts::groupAttributes();
    std::replace(names.begin(), names.end(), std::string("member"), std::string(FIRST_MEMBERS));
    if (!withMembers) {
        names.erase(std::remove(names.begin(), names.end(), FIRST_MEMBERS), names.end());
    }
    return names;
}

SearchOptions everywhere(unsigned pageSize = 0) {
    SearchOptions options;
    options.scope = LDAP_SCOPE_SUBTREE;
    options.pageSize = pageSize;
    return options;
}

// Takes the part of the members that the object has out of it.
// False when it has none by range.
bool takeMembers(tessa::ADObject& object, Range& range, std::vector<std::string>& members) {
    for (const auto& attribute : object.attributes()) {
        if (parseRange(attribute.name, range) &&
            tessa::equalsIgnoreCase(range.attribute, "member")) {
            members = attribute.values;
            object.set(std::string(attribute.name), std::vector<std::string>());
            return true;
        }
    }
    return false;
}

std::int64_t timeOf(Query& query) {
    return Accounts::directoryTime(
        query.ask([](Connection& connection) { return connection.readRoot().time; }));
}

std::string nameFilter(const char* filter, const std::string& name) {
    std::string text(filter);
    text.insert(text.size() - 1, "(sAMAccountName=" + escapeFilter(name) + ")");
    return text;
}

// Calls the function with each object that the filter finds, complete.
template <typename Take>
void forEachFound(Query& query, const std::string& filter,
                  const std::vector<std::string>& attributes, Take take) {
    query.start(query.connection().root().namingContext, filter, attributes, everywhere());
    bool more = true;
    while (more) {
        std::vector<tessa::ADObject> page;
        more = query.nextPage(page);
        for (tessa::ADObject& object : page) {
            query.ask([&](Connection& connection) {
                connection.complete(object, attributes);
                return true;
            });
            take(object);
        }
    }
}

// Attributes of a group with its members, whatever their number.
std::vector<std::string> wholeGroupAttributes() {
    std::vector<std::string> names = Accounts::groupAttributes();
    std::replace(names.begin(), names.end(), std::string("member"), rangeFrom("member", 0));
    return names;
}

/// Looks members up one by one: for a single group.
class MembersOfDomain : public MemberSource {
public:
    MembersOfDomain(Query& query, std::int64_t now) : m_query(query), m_now(now) {}

    bool find(const std::string& dn, AccountReference& account) override {
        static const std::vector<std::string> attributes = [] {
            std::vector<std::string> names = userAttributes(false);
            const std::vector<std::string> more = wholeGroupAttributes();
            names.insert(names.end(), more.begin(), more.end());
            return names;
        }();
        if (Clock::now() > m_end) {
            TESSA_THROW(tessa::IPCException,
                        "the group has too many members to look all of them up one by one in time; "
                        "enumerate the groups");
        }
        tessa::ADObject object;
        try {
            object = m_query.ask(
                [&](Connection& connection) { return connection.read(dn, attributes); });
        } catch (const tessa::NotFoundException&) {
            return false;
        } catch (const tessa::BadDataException&) {
            return false; // a member that names nothing is like one that is gone
        }
        const AccountKind kind = Accounts::kindOf(object);
        if (kind == AccountKind::GROUP) {
            account = Accounts::groupReference(object);
        } else if (kind == AccountKind::USER) {
            account.kind = kind;
            account.name = nameOf(object);
        }
        return kind != AccountKind::NONE;
    }

    std::vector<std::string> primaryMembers(std::uint32_t rid) override {
        std::string filter(USERS);
        filter.insert(filter.size() - 1, "(primaryGroupID=" + std::to_string(rid) + ")");
        std::vector<std::string> names;
        forEachFound(m_query, filter, userAttributes(false), [&](const tessa::ADObject& object) {
            std::string name = nameOf(object);
            if (!name.empty()) {
                names.push_back(std::move(name));
            }
        });
        return names;
    }

private:
    std::string nameOf(const tessa::ADObject& object) const {
        tessa::UserRecord user;
        std::string reason;
        return Accounts::makeUser(object, m_now, user, reason) ? user.name : "";
    }

    Query& m_query;
    const std::int64_t m_now;
    const Clock::time_point m_end = Clock::now() + LOOKUP_LIMIT;
};

} // namespace

AccountNotices::AccountNotices() : m_logger(tessa::Logger::get(LOGGER_NAME)) {}

void AccountNotices::report(AccountKind kind, const std::set<std::string>& problems) {
    const tessa::Lock lock(m_mutex);
    std::set<std::string>& known = kind == AccountKind::USER ? m_users : m_groups;
    for (const std::string& problem : problems) {
        if (m_users.count(problem) == 0 && m_groups.count(problem) == 0) {
            KARST_LOG(m_logger, tessa::LOG_WARN, "%s", problem.c_str());
        }
    }
    known = problems;
}

AccountReader::AccountReader(Controllers& controllers, const std::string& folder, AccountKind kind,
                             bool withUsers, AccountNotices& notices,
                             Controllers::Deadline deadline)
    : m_kind(kind), m_notices(notices), m_query(std::in_place, controllers, deadline),
      m_index(folder, timeOf(*m_query)), m_usersLeft(withUsers),
      m_groupsLeft(kind == AccountKind::GROUP) {}

void AccountReader::step() {
    const bool users = m_usersLeft;
    if (!m_query->running()) {
        const std::string& base = m_query->connection().root().namingContext;
        if (users) {
            m_query->start(base, USERS, userAttributes(m_kind == AccountKind::USER), everywhere());
        } else {
            const bool withMembers = m_kind == AccountKind::GROUP;
            m_query->start(base, ALL_GROUPS, groupAttributes(withMembers),
                           everywhere(withMembers ? GROUPS_AT_ONCE : 0));
        }
    }
    std::vector<tessa::ADObject> page;
    const bool more = m_query->nextPage(page);
    if (users) {
        m_index.addUsers(page);
        m_usersLeft = more;
    } else {
        for (tessa::ADObject& object : page) {
            addGroup(object);
        }
        m_groupsLeft = more;
    }
}

// Never more of its members in memory than come at once.
void AccountReader::addGroup(tessa::ADObject& object) {
    const std::string dn = object["_dn"];
    Range range;
    std::vector<std::string> members;
    bool more = takeMembers(object, range, members) && !range.complete;
    const std::int64_t group = m_index.addGroup(object);
    m_index.addMembers(group, members);
    while (more) {
        const unsigned long first = range.next;
        tessa::ADObject part = m_query->ask([&](Connection& connection) {
            return connection.read(dn, {rangeOf("member", first, MEMBERS_AT_ONCE)});
        });
        members.clear();
        more = takeMembers(part, range, members) && !range.complete && range.next > first;
        m_index.addMembers(group, members);
    }
}

bool AccountReader::read() {
    const auto end = Clock::now() + SLICE;
    while (m_usersLeft || m_groupsLeft) {
        if (Clock::now() >= end) {
            return false;
        }
        step();
    }
    if (m_query) {
        m_query.reset();
        m_notices.report(m_kind, m_index.problems());
    }
    return true;
}

bool UsersOfDomain::nextPage(std::vector<tessa::UserRecord>& items, std::size_t limit) {
    if (!m_reader.read()) {
        return true;
    }
    tessa::UserRecord user;
    for (std::size_t count = 0; count < limit; ++count) {
        if (!m_reader.index().nextUser(user)) {
            return false;
        }
        items.push_back(user);
    }
    return true;
}

bool GroupsOfDomain::nextPage(std::vector<tessa::GroupRecord>& items, std::size_t limit) {
    if (!m_reader.read()) {
        return true;
    }
    const auto end = Clock::now() + SLICE;
    std::size_t bytes = 0; // groups differ in size by orders of magnitude
    for (std::size_t count = 0; count < limit && bytes < PAGE_BYTES && Clock::now() < end;
         ++count) {
        tessa::GroupRecord group;
        if (!m_reader.index().nextGroup(group, m_withMembers)) {
            return false;
        }
        bytes += tessa::messages::encodedSize(group);
        items.push_back(std::move(group));
    }
    return true;
}

tessa::UserRecord userOfDomain(Query& query, const std::string& name) {
    const std::int64_t now = timeOf(query);
    std::optional<tessa::UserRecord> found;
    forEachFound(
        query, nameFilter(USERS, name), userAttributes(true), [&](const tessa::ADObject& object) {
            tessa::UserRecord user;
            std::string reason;
            if (!found && Accounts::makeUser(object, now, user, reason) && user.name == name) {
                found = user;
            }
        });
    if (!found) {
        TESSA_THROW(tessa::NotFoundException, "no user '" + name + "'");
    }
    return *found;
}

tessa::GroupRecord groupOfDomain(Query& query, const std::string& name) {
    const std::int64_t now = timeOf(query);
    std::optional<tessa::GroupRecord> found;
    AccountReference reference;
    forEachFound(query, nameFilter(POSIX_GROUPS, name), wholeGroupAttributes(),
                 [&](const tessa::ADObject& object) {
                     tessa::GroupRecord group;
                     std::string reason;
                     if (!found && Accounts::makeGroup(object, group, reason) &&
                         group.name == name) {
                         found = group;
                         reference = Accounts::groupReference(object);
                     }
                 });
    if (!found) {
        TESSA_THROW(tessa::NotFoundException, "no group '" + name + "'");
    }
    MembersOfDomain source(query, now);
    found->members = Accounts::members(reference, source);
    return *found;
}

} // namespace quorad::ldap
