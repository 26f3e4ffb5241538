#include "IndexReader.h"

#include "Index.h"
#include "Name.h"

#include <karst/DN.h>

#include <algorithm>

namespace quorad::ldif {

namespace {

// Components of type DC compare between these two.
constexpr const char* DOMAIN_NODES =
    "SELECT n.id, n.rdn, n.guid IS NOT NULL OR EXISTS(SELECT 1 FROM node c WHERE c.parent = n.id "
    "AND (c.rdn < X'64633D' OR c.rdn >= X'64633E')) FROM node n "
    "WHERE n.parent = ? AND n.rdn >= X'64633D' AND n.rdn < X'64633E'";

const ObjectMaker& groupMaker() {
    static const ObjectMaker maker(Accounts::groupAttributes(), false);
    return maker;
}

} // namespace

IndexReader::IndexReader(const std::string& path)
    : m_database(path, sqlite::Database::Access::READ),
      m_meta(m_database, "SELECT value FROM meta WHERE name = ?"),
      m_name(m_database, "SELECT id FROM node WHERE parent = ? AND rdn = ?"),
      m_guid(m_database, "SELECT id FROM node WHERE guid = ?"),
      m_object(m_database, "SELECT guid, usn, body FROM node WHERE id = ? AND guid IS NOT NULL"),
      m_children(m_database, "SELECT id, usn, guid, body FROM node WHERE parent = ?1 "
                             "AND guid IS NOT NULL AND usn >= ?2 AND usn <= ?3 "
                             "AND (usn > ?2 OR id > ?4) ORDER BY usn, id"),
      m_deletions(m_database, "SELECT usn, guid, dn FROM tombstone WHERE parent = ? "
                              "AND usn >= ? AND usn <= ? ORDER BY usn"),
      m_all(m_database, "SELECT id, usn, guid, body FROM node WHERE id > ? AND guid IS NOT NULL "
                        "AND usn >= ? AND usn <= ? ORDER BY id"),
      m_parent(m_database, "SELECT parent FROM node WHERE id = ?"),
      m_accounts(m_database, "SELECT n.guid, n.usn, n.body FROM account a CROSS JOIN node n "
                             "WHERE a.kind = ? AND n.id = a.id ORDER BY a.name, a.id"),
      m_account(m_database, "SELECT id FROM account WHERE kind = ? AND name = ? ORDER BY id"),
      m_member(m_database, "SELECT n.guid, n.usn, n.body, a.kind, a.name FROM node n "
                           "LEFT JOIN account a ON a.id = n.id "
                           "WHERE n.id = ? AND n.guid IS NOT NULL"),
      m_primary(m_database, "SELECT name FROM account WHERE kind = 1 AND rid = ?") {
    // The pages of a walk come one after the other: little is gained from keeping them.
    m_database.execute("PRAGMA cache_size=-4096");
}

void IndexReader::begin() {
    m_database.execute("BEGIN");
    m_reading = true;
    m_parentText.clear();
    m_parentNode = 0;
}

void IndexReader::end() {
    m_accounts.reset();
    if (m_reading) {
        m_reading = false;
        m_database.execute("ROLLBACK");
    }
}

bool IndexReader::metaValue(const char* name, std::string& value) {
    m_meta.bind(1, name);
    const sqlite::ScopedReset reset(m_meta);
    if (!m_meta.step()) {
        return false;
    }
    value = m_meta.bytes(0);
    return true;
}

std::string IndexReader::server() {
    std::string value;
    metaValue(meta::SERVER, value);
    return value;
}

std::string IndexReader::source() {
    std::string value;
    metaValue(meta::SOURCE, value);
    return value;
}

std::int64_t IndexReader::counter() {
    m_meta.bind(1, meta::COUNTER);
    const sqlite::ScopedReset reset(m_meta);
    if (!m_meta.step()) {
        TESSA_THROW(sqlite::Damaged, "the index has no counter");
    }
    return m_meta.number(0);
}

std::vector<std::string> IndexReader::domains() {
    struct Open {
        std::int64_t id;
        std::string domain;
    };
    std::vector<std::string> domains;
    std::vector<Open> open{{0, ""}};
    sqlite::Statement nodes(m_database, DOMAIN_NODES);
    while (!open.empty()) {
        const Open above = std::move(open.back());
        open.pop_back();
        nodes.bind(1, above.id);
        while (nodes.step()) {
            std::string domain = tessa::DN::firstValue(nodes.bytes(1));
            if (!above.domain.empty()) {
                domain += "." + above.domain;
            }
            if (nodes.number(2) != 0) {
                domains.push_back(domain);
            }
            open.push_back({nodes.number(0), domain});
        }
    }
    return domains;
}

// The node of a name whether it is an object or not, 0 when there is none.
std::int64_t IndexReader::nodeOf(std::string_view dn) {
    std::vector<SplitName> names;
    std::int64_t node = 0;
    for (std::string_view rest = dn; !rest.empty(); rest = names.back().parent) {
        if (rest == m_parentText) {
            node = m_parentNode;
            break;
        }
        names.push_back(splitName(rest));
        if (names.size() > MAX_DEPTH) {
            TESSA_THROW(tessa::BadDataException, "a name of that many components is not supported");
        }
    }
    while (!names.empty()) {
        const std::string component = tessa::DN::normalize(names.back().component);
        m_name.bind(1, node).bind(2, component);
        const sqlite::ScopedReset reset(m_name);
        if (!m_name.step()) {
            return 0;
        }
        node = m_name.number(0);
        names.pop_back();
        if (names.size() == 1) {
            m_parentText = names.front().parent;
            m_parentNode = node;
        }
    }
    return node;
}

std::int64_t IndexReader::findName(std::string_view dn) {
    if (dn.empty()) {
        TESSA_THROW(tessa::BadDataException, "an empty name");
    }
    const std::int64_t node = nodeOf(dn);
    m_object.bind(1, node);
    const sqlite::ScopedReset reset(m_object);
    return m_object.step() ? node : 0;
}

std::int64_t IndexReader::findGuid(std::string_view guid) {
    m_guid.bind(1, guid);
    const sqlite::ScopedReset reset(m_guid);
    return m_guid.step() ? m_guid.number(0) : 0;
}

bool IndexReader::object(std::int64_t id, const ObjectMaker& maker, tessa::ADObject& object) {
    m_object.bind(1, id);
    const sqlite::ScopedReset reset(m_object);
    return m_object.step() &&
           maker.make({m_object.bytes(0), m_object.number(1), m_object.bytes(2)}, object);
}

void IndexReader::root(const ObjectMaker& maker, tessa::ADObject& object) {
    std::string body;
    if (metaValue(meta::ROOT, body)) {
        maker.addAttributes(body, object);
    }
    object.set("_dn", std::string());
    object.set("_server", maker.server());
    object.set("dnsHostName", maker.server());
    object.set("highestCommittedUSN", std::to_string(counter()));
}

bool IndexReader::children(const WalkRange& range, WalkPosition& position, const ObjectMaker& maker,
                           std::vector<tessa::ADObject>& objects, std::size_t limit) {
    m_children.bind(1, range.base)
        .bind(2, std::max(range.lower, position.usn))
        .bind(3, range.upper)
        .bind(4, position.id);
    const sqlite::ScopedReset reset(m_children);
    while (objects.size() < limit) {
        if (!m_children.step()) {
            return false;
        }
        position.id = m_children.number(0);
        position.usn = m_children.number(1);
        tessa::ADObject object;
        if (maker.make({m_children.bytes(2), position.usn, m_children.bytes(3)}, object)) {
            objects.push_back(std::move(object));
        }
    }
    return true;
}

bool IndexReader::deletions(const WalkRange& range, WalkPosition& position,
                            const ObjectMaker& maker, std::vector<tessa::ADObject>& objects,
                            std::size_t limit) {
    m_deletions.bind(1, range.base)
        .bind(2, std::max(range.lower, position.usn))
        .bind(3, range.upper);
    const sqlite::ScopedReset reset(m_deletions);
    while (objects.size() < limit) {
        if (!m_deletions.step()) {
            return false;
        }
        const std::int64_t usn = m_deletions.number(0);
        objects.push_back(maker.makeDeleted(m_deletions.bytes(1), usn, m_deletions.bytes(2)));
        position.usn = usn + 1;
    }
    return true;
}

bool IndexReader::isInside(std::int64_t id, std::int64_t base,
                           std::unordered_map<std::int64_t, bool>& inside) {
    std::vector<std::int64_t> path;
    bool result = false;
    for (std::int64_t node = id; node != 0;) {
        if (node == base) {
            result = true;
            break;
        }
        const auto known = inside.find(node);
        if (known != inside.end()) {
            result = known->second;
            break;
        }
        path.push_back(node);
        m_parent.bind(1, node);
        const sqlite::ScopedReset reset(m_parent);
        node = m_parent.step() && path.size() <= MAX_DEPTH ? m_parent.number(0) : 0;
    }
    // The object itself is not remembered: there may be millions of them.
    for (std::size_t i = 1; i < path.size(); ++i) {
        inside.emplace(path[i], result);
    }
    return result;
}

bool IndexReader::subtree(const WalkRange& range, WalkPosition& position,
                          std::unordered_map<std::int64_t, bool>& inside, const ObjectMaker& maker,
                          std::vector<tessa::ADObject>& objects, std::size_t limit) {
    m_all.bind(1, position.id).bind(2, range.lower).bind(3, range.upper);
    const sqlite::ScopedReset reset(m_all);
    while (objects.size() < limit) {
        if (!m_all.step()) {
            return false;
        }
        position.id = m_all.number(0);
        tessa::ADObject object;
        if (isInside(position.id, range.base, inside) &&
            maker.make({m_all.bytes(2), m_all.number(1), m_all.bytes(3)}, object)) {
            objects.push_back(std::move(object));
        }
    }
    return true;
}

void IndexReader::startAccounts(AccountKind kind) {
    m_accounts.reset();
    m_accounts.bind(1, static_cast<std::int64_t>(kind));
}

bool IndexReader::nextAccount(const ObjectMaker& maker, tessa::ADObject& object) {
    object = tessa::ADObject();
    return m_accounts.step() &&
           maker.make({m_accounts.bytes(0), m_accounts.number(1), m_accounts.bytes(2)}, object);
}

std::int64_t IndexReader::findAccount(AccountKind kind, std::string_view name) {
    m_account.bind(1, static_cast<std::int64_t>(kind)).bind(2, name);
    const sqlite::ScopedReset reset(m_account);
    return m_account.step() ? m_account.number(0) : 0;
}

bool IndexReader::member(const std::string& dn, AccountReference& account) {
    std::int64_t node = 0;
    try {
        node = nodeOf(dn);
    } catch (const tessa::BadDataException&) {
        return false; // a member that names nothing is like one that is gone
    }
    m_member.bind(1, node);
    const sqlite::ScopedReset reset(m_member);
    if (node == 0 || !m_member.step()) {
        return false;
    }
    if (!m_member.isNull(3) && m_member.number(3) == static_cast<std::int64_t>(AccountKind::USER)) {
        account.kind = AccountKind::USER;
        account.name = m_member.bytes(4);
        return true;
    }
    tessa::ADObject object;
    groupMaker().make({m_member.bytes(0), m_member.number(1), m_member.bytes(2)}, object);
    if (Accounts::kindOf(object) != AccountKind::GROUP) {
        return false;
    }
    account = Accounts::groupReference(object);
    return true;
}

std::vector<std::string> IndexReader::primaryMembers(std::uint32_t rid) {
    std::vector<std::string> names;
    m_primary.bind(1, std::int64_t{rid});
    const sqlite::ScopedReset reset(m_primary);
    while (m_primary.step()) {
        names.emplace_back(m_primary.bytes(0));
    }
    return names;
}

} // namespace quorad::ldif
