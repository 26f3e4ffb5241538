#include "AccountIndex.h"

#include <karst/DN.h>
#include <karst/Exceptions.h>
#include <karst/Text.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include <unistd.h>

namespace quorad::ldap {

namespace {

constexpr std::size_t MAX_PROBLEMS = 100;
constexpr const char* PREFIX = "accounts-";

constexpr const char* SCHEMA =
    "PRAGMA journal_mode=OFF; PRAGMA synchronous=OFF; PRAGMA cache_size=-8192;"
    "CREATE TABLE user(name BLOB, dn BLOB, spelling BLOB, uid INTEGER, gid INTEGER, gecos BLOB,"
    " home BLOB, shell BLOB, hash BLOB, control INTEGER, expires INTEGER, expiry INTEGER,"
    " rid INTEGER);"
    "CREATE TABLE team(id INTEGER PRIMARY KEY, name BLOB, dn BLOB, spelling BLOB, gid INTEGER,"
    " rid INTEGER);"
    "CREATE TABLE member(team INTEGER, dn BLOB);"
    "CREATE TABLE named(team INTEGER, name BLOB);"
    "CREATE INDEX user_name ON user(name); CREATE INDEX user_dn ON user(dn);"
    "CREATE INDEX user_rid ON user(rid); CREATE INDEX team_name ON team(name);"
    "CREATE INDEX team_dn ON team(dn); CREATE INDEX member_team ON member(team);"
    "CREATE INDEX named_team ON named(team);";

} // namespace

struct AccountIndex::Statements {
    explicit Statements(sqlite::Database& d)
        : addUser(d, "INSERT INTO user VALUES(?,?,?,?,?,?,?,?,?,?,?,?,?)"),
          addTeam(d, "INSERT INTO team(name, dn, spelling, gid, rid) VALUES(?,?,?,?,?)"),
          addMember(d, "INSERT INTO member VALUES(?,?)"),
          addNamed(d, "INSERT INTO named VALUES(?,?)"),
          users(d, "SELECT name, uid, gid, gecos, home, shell, hash, control, expires, expiry"
                   " FROM user ORDER BY name, dn"),
          teams(d, "SELECT id, name, gid FROM team WHERE gid IS NOT NULL ORDER BY name, dn"),
          members(d, "WITH RECURSIVE inside(id, rid) AS ("
                     "  SELECT id, rid FROM team WHERE id = ?"
                     "  UNION SELECT team.id, team.rid FROM inside"
                     "   JOIN member ON member.team = inside.id JOIN team ON team.dn = member.dn)"
                     " SELECT user.name FROM inside JOIN member ON member.team = inside.id"
                     "  JOIN user ON user.dn = member.dn"
                     " UNION SELECT user.name FROM inside JOIN user ON user.rid = inside.rid"
                     " UNION SELECT named.name FROM inside JOIN named ON named.team = inside.id"
                     " ORDER BY 1") {}

    sqlite::Statement addUser, addTeam, addMember, addNamed, users, teams, members;
};

template <typename Work> auto AccountIndex::guarded(Work work) {
    try {
        return work();
    } catch (const tessa::DBException& e) {
        TESSA_THROW(tessa::IPCException,
                    std::string("users and groups cannot be collected (disk space low?): ") +
                        e.what());
    }
}

// Files of this process; others with the prefix are left over from one that was killed.
std::string AccountIndex::prefix() {
    return PREFIX + std::to_string(::getpid()) + "-";
}

void AccountIndex::removeStale(const std::string& folder) {
    std::error_code failure;
    for (const auto& entry : std::filesystem::directory_iterator(folder, failure)) {
        const std::string name = entry.path().filename();
        if (name.starts_with(PREFIX) && !name.starts_with(prefix())) {
            ::unlink(entry.path().c_str());
        }
    }
}

AccountIndex::AccountIndex(const std::string& folder, std::int64_t now)
    : m_now(now), m_path(folder + "/" + prefix() + "XXXXXX") {
    const int file = ::mkstemp(m_path.data());
    if (file < 0) {
        TESSA_THROW(tessa::IPCException, "cannot create a temporary file in '" + folder +
                                             "': " + tessa::errorText(errno));
    }
    ::close(file);
    try {
        guarded([&] {
            m_database =
                std::make_unique<sqlite::Database>(m_path, sqlite::Database::Access::WRITE);
            m_database->execute(SCHEMA);
            m_statements = std::make_unique<Statements>(*m_database);
        });
    } catch (...) {
        ::unlink(m_path.c_str());
        throw;
    }
}

AccountIndex::~AccountIndex() {
    ::unlink(m_path.c_str());
}

void AccountIndex::addProblem(const tessa::ADObject& object, const char* kind,
                              const std::string& reason) {
    if (m_problems.size() < MAX_PROBLEMS) {
        m_problems.insert("'" + object["_dn"].asString() + "' is not served as a " + kind + ": " +
                          reason);
    } else {
        ++m_moreProblems;
    }
}

void AccountIndex::addUser(const tessa::ADObject& object) {
    tessa::UserRecord user;
    std::string reason;
    if (!Accounts::makeUser(object, m_now, user, reason)) {
        addProblem(object, "user", reason);
        return;
    }
    const std::string spelling = object["_dn"];
    const std::string dn = tessa::DN::normalize(spelling);
    sqlite::Statement& add = m_statements->addUser;
    add.bind(1, user.name).bind(2, dn).bind(3, spelling).bind(4, std::int64_t{user.uid});
    add.bind(5, std::int64_t{user.gid}).bind(6, user.gecos).bind(7, user.homeDirectory);
    add.bind(8, user.shell).bind(9, user.passwordHash);
    add.bind(10, std::int64_t{user.accountControl}).bind(11, user.accountExpires);
    add.bind(12, user.passwordExpiry);
    add.bind(13, std::int64_t{tessa::atoui(object["primaryGroupID"].asString())}).run();
}

std::int64_t AccountIndex::addGroup(const tessa::ADObject& object) {
    tessa::GroupRecord group;
    std::string reason;
    const bool posix = object.attributeExists("gidNumber", false);
    const bool served = posix && Accounts::makeGroup(object, group, reason);
    if (posix && !served) {
        addProblem(object, "group", reason);
    }
    const AccountReference reference = Accounts::groupReference(object);
    const std::string spelling = object["_dn"];
    const std::string dn = tessa::DN::normalize(spelling);
    const std::int64_t id = guarded([&] {
        sqlite::Statement& add = m_statements->addTeam;
        add.bind(1, group.name).bind(2, dn).bind(3, spelling);
        served ? add.bind(4, std::int64_t{group.gid}) : add.bindNull(4);
        reference.hasRid ? add.bind(5, std::int64_t{reference.rid}) : add.bindNull(5);
        add.run();
        return static_cast<std::int64_t>(sqlite3_last_insert_rowid(m_database->handle()));
    });
    addMembers(id, reference.members);
    guarded([&] {
        for (const std::string& name : reference.names) {
            m_statements->addNamed.bind(1, id).bind(2, name).run();
        }
    });
    return id;
}

void AccountIndex::addMembers(std::int64_t group, const std::vector<std::string>& members) {
    guarded([&] {
        sqlite::Transaction transaction(*m_database, "BEGIN");
        for (const std::string& member : members) {
            const std::string dn = tessa::DN::normalize(member);
            m_statements->addMember.bind(1, group).bind(2, dn).run();
        }
        transaction.commit();
    });
}

void AccountIndex::addUsers(const std::vector<tessa::ADObject>& objects) {
    guarded([&] {
        sqlite::Transaction transaction(*m_database, "BEGIN");
        for (const tessa::ADObject& object : objects) {
            addUser(object);
        }
        transaction.commit();
    });
}

void AccountIndex::findDuplicates(const char* table, const char* column, const char* what) {
    const std::string sql = std::string("SELECT min(spelling), max(spelling), ") + column +
                            " FROM " + table + " WHERE " + column + " IS NOT NULL AND name <> X''" +
                            " GROUP BY " + column + " HAVING count(*) > 1";
    sqlite::Statement pairs(*m_database, sql.c_str());
    while (pairs.step()) {
        if (m_problems.size() >= MAX_PROBLEMS) {
            ++m_moreProblems;
            continue;
        }
        m_problems.insert("'" + std::string(pairs.bytes(0)) + "' and '" +
                          std::string(pairs.bytes(1)) + "' have the same " + what + " " +
                          std::string(pairs.bytes(2)));
    }
}

std::set<std::string> AccountIndex::problems() {
    guarded([&] {
        findDuplicates("user", "uid", "uidNumber");
        findDuplicates("user", "name", "user name");
        findDuplicates("team", "gid", "gidNumber");
        findDuplicates("team", "name", "group name");
    });
    std::set<std::string> all = std::move(m_problems);
    m_problems.clear();
    if (m_moreProblems > 0) {
        all.insert(std::to_string(m_moreProblems) + " further warnings about accounts were left "
                                                    "out");
    }
    return all;
}

bool AccountIndex::nextUser(tessa::UserRecord& user) {
    return guarded([&] {
        sqlite::Statement& row = m_statements->users;
        if (!row.step()) {
            return false;
        }
        user.name = row.bytes(0);
        user.uid = static_cast<std::uint32_t>(row.number(1));
        user.gid = static_cast<std::uint32_t>(row.number(2));
        user.gecos = row.bytes(3);
        user.homeDirectory = row.bytes(4);
        user.shell = row.bytes(5);
        user.passwordHash = row.bytes(6);
        user.accountControl = static_cast<std::uint32_t>(row.number(7));
        user.enabled = (user.accountControl & 0x2U) == 0;
        user.accountExpires = row.number(8);
        user.passwordExpiry = row.number(9);
        user.passwordTime = m_now;
        return true;
    });
}

bool AccountIndex::nextGroup(tessa::GroupRecord& group, bool withMembers) {
    return guarded([&] {
        sqlite::Statement& row = m_statements->teams;
        if (!row.step()) {
            return false;
        }
        group = tessa::GroupRecord();
        const std::int64_t id = row.number(0);
        group.name = row.bytes(1);
        group.gid = static_cast<std::uint32_t>(row.number(2));
        if (withMembers) {
            group.members = membersOf(id);
        }
        return true;
    });
}

// Users in the group and in the groups in it at any depth, in the order of their names. The
// database does it, so that only the names are in memory.
std::vector<std::string> AccountIndex::membersOf(std::int64_t group) {
    std::vector<std::string> names;
    sqlite::Statement& row = m_statements->members.bind(1, group);
    const sqlite::ScopedReset reset(row);
    while (row.step()) {
        const std::string_view name = row.bytes(0);
        if (Accounts::isMemberName(name)) {
            names.emplace_back(name);
        }
    }
    return names;
}

} // namespace quorad::ldap
