#include "IndexLoader.h"

#include "Index.h"
#include "Name.h"
#include "ObjectMaker.h"
#include "Quoted.h"

#include <karst/DN.h>
#include <karst/Guid.h>
#include <karst/Int64.h>
#include <karst/Text.h>

#include <algorithm>

namespace quorad::ldif {

namespace {

constexpr std::size_t GUID_SIZE = 16;
constexpr std::size_t MAX_NAME = 8192;
constexpr std::size_t MAX_WARNINGS = 20;
/// Sequence numbers of a file beyond this are not believed: they would leave no room for ours.
constexpr std::int64_t MAX_FILE_USN = std::int64_t{1} << 60U;
constexpr const char* NO_SERVER = "ldif";

std::int64_t metaNumber(sqlite::Database& database, const char* name) {
    sqlite::Statement statement(database, "SELECT value FROM meta WHERE name = ?");
    statement.bind(1, name);
    const sqlite::ScopedReset reset(statement);
    if (!statement.step()) {
        TESSA_THROW(sqlite::Damaged, std::string("the index has no ") + name);
    }
    return statement.number(0);
}

// A controller hands out long attributes in pieces, "member;range=0-1499".
std::string_view withoutRange(std::string_view name) {
    const std::size_t at = name.find(";range=");
    return at == std::string_view::npos ? name : name.substr(0, at);
}

bool isDC(std::string_view component) {
    return component.substr(0, 3) == "dc=";
}

} // namespace

IndexLoader::IndexLoader(sqlite::Database& writer, std::int64_t now)
    : m_database(writer), m_now(now), m_server(NO_SERVER),
      m_find(writer, "SELECT id, guid, usn, body FROM node WHERE parent = ? AND rdn = ?"),
      m_findGuid(writer, "SELECT id FROM node WHERE guid = ?"),
      m_row(writer, "SELECT parent, guid, body FROM node WHERE id = ?"),
      m_insert(writer, "INSERT INTO node(id, parent, rdn, guid, usn, body) "
                       "VALUES(?, ?, ?, ?, ?, ?)"),
      m_update(writer, "UPDATE node SET guid = ?, usn = ?, body = ? WHERE id = ?"),
      m_strip(writer, "UPDATE node SET guid = NULL, usn = NULL, body = NULL WHERE id = ?"),
      m_identify(writer, "UPDATE node SET guid = ?, usn = ? WHERE id = ?"),
      m_bury(writer, "INSERT OR REPLACE INTO tombstone(guid, parent, usn, time, dn) "
                     "VALUES(?, ?, ?, ?, ?)"),
      m_unbury(writer, "DELETE FROM tombstone WHERE guid = ? AND parent = ?"),
      m_insertAccount(writer, "INSERT OR REPLACE INTO account(id, kind, name, number, rid) "
                              "VALUES(?, ?, ?, ?, ?)"),
      m_deleteAccount(writer, "DELETE FROM account WHERE id = ?"),
      m_setMeta(writer, "INSERT OR REPLACE INTO meta(name, value) VALUES(?, ?)") {
    m_counter = metaNumber(writer, meta::COUNTER);
    m_nextId = metaNumber(writer, meta::NEXT_ID);
    m_guidPrefix = tessa::Guid::random().bytes();
    m_seen.resize(static_cast<std::size_t>(m_nextId));
}

void IndexLoader::add(const LdifRecord& record) {
    if (record.dn.empty()) {
        addRoot(record);
        return;
    }
    if (record.dn.size() > MAX_NAME) {
        TESSA_THROW(tessa::BadDataException,
                    "a name of " + std::to_string(record.dn.size()) + " bytes is too long");
    }
    const SplitName name = splitName(record.dn);
    const std::int64_t parent = parentNode(name.parent, 1);
    m_component = tessa::DN::normalize(name.component);
    collect(record, name.component);
    if (!findNode(parent, m_component, m_stored)) {
        m_stored.id = 0;
        m_stored.isObject = false;
    } else if (isMarked(m_seen, m_stored.id)) {
        TESSA_THROW(tessa::BadDataException, "a second record of " + quoted(record.dn));
    }
    place(record, parent, m_stored);
    mark(m_seen, m_stored.id);
    if (!m_fileGuid.empty()) {
        mark(m_stated, m_stored.id);
    }
    ++m_summary.objects;
}

void IndexLoader::addRoot(const LdifRecord& record) {
    if (m_hasRoot) {
        TESSA_THROW(tessa::BadDataException, "a second record with an empty name");
    }
    m_hasRoot = true;
    m_attributes.clear();
    for (std::size_t i = 0; i < record.size(); ++i) {
        if (tessa::equalsIgnoreCase(record.name(i), "dnsHostName")) {
            m_server = tessa::lower(record.value(i));
        } else if (!tessa::equalsIgnoreCase(record.name(i), "highestCommittedUSN")) {
            m_attributes.push_back({record.name(i), record.value(i)});
        }
    }
    packBody("", m_attributes, m_root);
}

// Sorts what the index keeps of the record from what it manages itself, and packs it.
void IndexLoader::collect(const LdifRecord& record, std::string_view component) {
    m_attributes.clear();
    m_fileGuid = {};
    m_fileUsn = 0;
    m_mayBeAccount = false;
    for (std::size_t i = 0; i < record.size(); ++i) {
        const std::string_view name = withoutRange(record.name(i));
        const std::string_view value = record.value(i);
        if (isName(name, "objectguid")) {
            if (value.size() != GUID_SIZE || !m_fileGuid.empty()) {
                TESSA_THROW(tessa::BadDataException, "objectGUID of " + quoted(record.dn) +
                                                         " must be one value of 16 bytes");
            }
            m_fileGuid = value;
        } else if (isName(name, "usnchanged")) {
            m_fileUsn = tessa::Int64::fromString(value).value();
            m_fileUsn = m_fileUsn > MAX_FILE_USN ? 0 : m_fileUsn;
        } else {
            m_mayBeAccount =
                m_mayBeAccount || isName(name, "uidnumber") || isName(name, "gidnumber");
            m_attributes.push_back({name, value});
        }
    }
    addNamingAttribute(component);
    packBody(record.dn, m_attributes, m_body);
}

// The attribute that the name begins with may be left out of a record that was written by hand.
void IndexLoader::addNamingAttribute(std::string_view component) {
    const std::string_view type = tessa::trimWhiteSpace(component.substr(0, component.find('=')));
    const bool present =
        std::any_of(m_attributes.begin(), m_attributes.end(), [&](const NameAndValue& attribute) {
            return tessa::equalsIgnoreCase(attribute.name, type);
        });
    if (!present) {
        m_namingValue = tessa::DN::firstValue(component);
        m_attributes.push_back({isName(type, "cn") ? std::string_view("cn") : type, m_namingValue});
    }
}

std::int64_t IndexLoader::parentNode(std::string_view dn, unsigned depth) {
    if (dn.empty()) {
        return 0;
    }
    if (m_parent.known && m_parent.text == dn) {
        return m_parent.node;
    }
    if (depth > MAX_DEPTH) {
        TESSA_THROW(tessa::BadDataException, "a name of that many components is not supported");
    }
    const SplitName name = splitName(dn);
    const std::int64_t above = parentNode(name.parent, depth + 1);
    const std::string component = tessa::DN::normalize(name.component);
    Stored stored;
    if (!findNode(above, component, stored)) {
        stored.id = makeNode(above, component);
    }
    if (depth == 1) {
        m_parent = {std::string(dn), stored.id, true};
    }
    return stored.id;
}

std::int64_t IndexLoader::makeNode(std::int64_t parent, std::string_view component) {
    const std::int64_t id = m_nextId++;
    m_insert.bind(1, id).bind(2, parent).bind(3, component).bindNull(4).bindNull(5).bindNull(6);
    m_insert.run();
    return id;
}

bool IndexLoader::findNode(std::int64_t parent, std::string_view component, Stored& stored) {
    m_find.bind(1, parent).bind(2, component);
    const sqlite::ScopedReset reset(m_find);
    if (!m_find.step()) {
        return false;
    }
    stored.id = m_find.number(0);
    stored.isObject = !m_find.isNull(1);
    stored.guid = m_find.bytes(1);
    stored.usn = m_find.number(2);
    stored.body = m_find.bytes(3);
    return true;
}

bool IndexLoader::isMarked(const std::vector<bool>& marks, std::int64_t id) {
    const auto index = static_cast<std::size_t>(id);
    return index < marks.size() && marks[index];
}

void IndexLoader::mark(std::vector<bool>& marks, std::int64_t id) const {
    const auto index = static_cast<std::size_t>(id);
    if (id < 0 || id > m_nextId) {
        TESSA_THROW(sqlite::Damaged, "the index has a node with a bad number");
    }
    if (index >= marks.size()) {
        marks.resize(std::max<std::size_t>(index + 1, marks.size() * 2));
    }
    marks[index] = true;
}

// Puts the record's object where its name says.
void IndexLoader::place(const LdifRecord& record, std::int64_t parent, Stored& stored) {
    const bool sameObject = stored.isObject && (m_fileGuid.empty() || m_fileGuid == stored.guid);
    if (sameObject && stored.body == m_body && m_fileUsn <= stored.usn) {
        return;
    }
    if (!sameObject) {
        const std::string guid = m_fileGuid.empty() ? freshGuid() : std::string(m_fileGuid);
        if (!m_fileGuid.empty()) {
            takeFromElsewhere(stored.id, guid);
        }
        if (stored.isObject) {
            entomb(stored.id);
        }
        stored.guid = guid;
        m_unbury.bind(1, stored.guid).bind(2, parent).run();
        ++m_summary.added;
    } else {
        ++m_summary.changed;
    }
    store(record, parent, stored);
}

// An object that the file states the GUID of may have had another name.
void IndexLoader::takeFromElsewhere(std::int64_t id, std::string_view guid) {
    m_findGuid.bind(1, guid);
    std::int64_t holder = 0;
    {
        const sqlite::ScopedReset reset(m_findGuid);
        if (!m_findGuid.step()) {
            return;
        }
        holder = m_findGuid.number(0);
    }
    if (holder == id) {
        return;
    }
    if (!isMarked(m_seen, holder)) {
        entomb(holder);
        return;
    }
    if (isMarked(m_stated, holder)) {
        TESSA_THROW(tessa::BadDataException, "the objectGUID " +
                                                 tessa::Guid::fromBytes(guid).toString() +
                                                 " belongs to an object further up");
    }
    // What the file states goes before what was kept by name: that object is another one now.
    bury(holder);
    const std::string fresh = freshGuid();
    m_identify.bind(1, fresh).bind(2, nextUsn()).bind(3, holder).run();
    ++m_summary.added;
}

// A number that the file states is taken when nobody can have read past it.
std::int64_t IndexLoader::usnOfRecord() {
    m_counter = std::max(m_counter + 1, m_fileUsn);
    return m_counter;
}

void IndexLoader::store(const LdifRecord& record, std::int64_t parent, Stored& stored) {
    const std::int64_t usn = usnOfRecord();
    if (stored.id == 0) {
        stored.id = m_nextId++;
        m_insert.bind(1, stored.id).bind(2, parent).bind(3, m_component).bind(4, stored.guid);
        m_insert.bind(5, usn).bind(6, m_body).run();
    } else {
        m_update.bind(1, stored.guid).bind(2, usn).bind(3, m_body).bind(4, stored.id).run();
        m_deleteAccount.bind(1, stored.id).run();
        m_accountsChanged = true;
    }
    if (m_mayBeAccount) {
        storeAccount(stored.id, stored.guid, record.dn);
    }
}

void IndexLoader::storeAccount(std::int64_t id, std::string_view guid, std::string_view dn) {
    static const ObjectMaker maker({}, true);
    tessa::ADObject object;
    maker.make({guid, 0, m_body}, object);
    const AccountKind kind = Accounts::kindOf(object);
    const bool isUser = kind == AccountKind::USER && object.attributeExists("uidNumber", false);
    const bool isGroup = kind == AccountKind::GROUP && object.attributeExists("gidNumber", false);
    if (!isUser && !isGroup) {
        return;
    }
    tessa::UserRecord user;
    tessa::GroupRecord group;
    std::string reason;
    if (isUser ? !Accounts::makeUser(object, 0, user, reason)
               : !Accounts::makeGroup(object, group, reason)) {
        warn(quoted(dn) + " is not served as a " + (isUser ? "user" : "group") + ": " + reason);
        return;
    }
    const std::string& name = isUser ? user.name : group.name;
    m_insertAccount.bind(1, id).bind(2, static_cast<std::int64_t>(kind)).bind(3, name);
    m_insertAccount.bind(4, std::int64_t{isUser ? user.uid : group.gid});
    std::uint32_t rid = 0;
    if (isUser && object.attributeExists("primaryGroupID", true)) {
        rid = tessa::atoui(object["primaryGroupID"].asString());
    }
    if (rid != 0) {
        m_insertAccount.bind(5, std::int64_t{rid});
    } else {
        m_insertAccount.bindNull(5);
    }
    m_insertAccount.run();
    m_accountsChanged = true;
}

// Random for each load, then counting: new rows go to one end of the index by GUID.
std::string IndexLoader::freshGuid() {
    std::string guid = m_guidPrefix;
    auto number = static_cast<std::uint64_t>(m_nextId) + m_summary.added;
    for (std::size_t i = 0; i < 6; ++i) {
        guid[GUID_SIZE - 1 - i] = static_cast<char>(static_cast<unsigned char>(number & 0xffU));
        number >>= 8U;
    }
    return guid;
}

// Remembers that the object was where it is.
void IndexLoader::bury(std::int64_t id) {
    std::int64_t parent = 0;
    std::string guid;
    std::string dn;
    {
        m_row.bind(1, id);
        const sqlite::ScopedReset reset(m_row);
        if (!m_row.step()) {
            return;
        }
        parent = m_row.number(0);
        guid = m_row.bytes(1);
        dn = BodyReader(m_row.bytes(2)).dn();
    }
    m_bury.bind(1, guid).bind(2, parent).bind(3, nextUsn()).bind(4, m_now).bind(5, dn).run();
}

// The same, and leaves a bare node behind.
void IndexLoader::entomb(std::int64_t id) {
    bury(id);
    m_strip.bind(1, id).run();
    m_deleteAccount.bind(1, id).run();
    m_accountsChanged = true;
}

void IndexLoader::removeVanished() {
    std::vector<std::int64_t> vanished;
    {
        // In this form the index is enough; the rows with the objects need not be read.
        sqlite::Statement all(m_database, "SELECT id FROM node INDEXED BY node_usn "
                                          "WHERE guid IS NOT NULL");
        while (all.step()) {
            if (!isMarked(m_seen, all.number(0))) {
                vanished.push_back(all.number(0));
            }
        }
    }
    std::sort(vanished.begin(), vanished.end());
    for (const std::int64_t id : vanished) {
        entomb(id);
    }
    m_summary.deleted = vanished.size();
}

void IndexLoader::pruneTombstones() {
    sqlite::Statement old(m_database, "DELETE FROM tombstone WHERE usn <= "
                                      "(SELECT max(usn) FROM tombstone WHERE time < ?)");
    old.bind(1, m_now - TOMBSTONE_SECONDS).run();
    sqlite::Statement surplus(m_database, "DELETE FROM tombstone WHERE usn <= "
                                          "(SELECT usn FROM tombstone ORDER BY usn DESC "
                                          "LIMIT 1 OFFSET ?)");
    surplus.bind(1, MAX_TOMBSTONES).run();
}

// Bare nodes that are part of no name any more. One stays while objects that were below it are
// remembered, so that they are found when its object comes back.
void IndexLoader::pruneNodes() {
    m_database.execute("DELETE FROM node WHERE guid IS NULL "
                       "AND NOT EXISTS(SELECT 1 FROM node c WHERE c.parent = node.id) "
                       "AND NOT EXISTS(SELECT 1 FROM tombstone t WHERE t.parent = node.id)");
}

void IndexLoader::warn(std::string text) {
    if (m_warnings.size() < MAX_WARNINGS) {
        m_warnings.push_back(std::move(text));
    } else {
        ++m_moreWarnings;
    }
}

// Nobody finds an object by walking down to it when a container above it has no record.
void IndexLoader::warnOfOrphans() {
    sqlite::Statement orphans(m_database,
                              "SELECT c.rdn, c.body FROM node p CROSS JOIN node c "
                              "WHERE p.guid IS NULL AND c.parent = p.id AND c.guid IS NOT NULL "
                              "ORDER BY p.id, c.usn");
    while (orphans.step()) {
        if (!isDC(orphans.bytes(0))) {
            warn("the object above " + quoted(BodyReader(orphans.bytes(1)).dn()) + " is missing");
            return;
        }
    }
}

void IndexLoader::warnOfDuplicates(AccountKind kind, const char* column, const char* what) {
    const std::string sql =
        std::string("SELECT a.body, b.body FROM (SELECT min(id) first, max(id) last FROM account "
                    "WHERE kind = ? GROUP BY ") +
        column + " HAVING count(*) > 1) CROSS JOIN node a ON a.id = first " +
        "CROSS JOIN node b ON b.id = last";
    sqlite::Statement pairs(m_database, sql.c_str());
    pairs.bind(1, static_cast<std::int64_t>(kind));
    while (pairs.step()) {
        warn(quoted(BodyReader(pairs.bytes(0)).dn()) + " and " +
             quoted(BodyReader(pairs.bytes(1)).dn()) + " have the same " + what);
    }
}

void IndexLoader::writeMeta(const char* name, std::int64_t value) {
    m_setMeta.bind(1, name).bind(2, value).run();
}

void IndexLoader::writeMeta(const char* name, std::string_view value) {
    m_setMeta.bind(1, name).bind(2, value).run();
}

LoadSummary IndexLoader::finish(const std::string& source) {
    removeVanished();
    pruneTombstones();
    pruneNodes();
    if (m_summary.added + m_summary.changed + m_summary.deleted > 0) {
        warnOfOrphans();
    }
    if (m_accountsChanged) {
        warnOfDuplicates(AccountKind::USER, "number", "uidNumber");
        warnOfDuplicates(AccountKind::USER, "name", "user name");
        warnOfDuplicates(AccountKind::GROUP, "number", "gidNumber");
        warnOfDuplicates(AccountKind::GROUP, "name", "group name");
    }
    if (m_moreWarnings > 0) {
        m_warnings.push_back(std::to_string(m_moreWarnings) + " further warnings were left out");
    }
    writeMeta(meta::COUNTER, m_counter);
    writeMeta(meta::NEXT_ID, m_nextId);
    writeMeta(meta::SERVER, m_server);
    if (m_hasRoot) {
        writeMeta(meta::ROOT, m_root);
    } else {
        sqlite::Statement(m_database, "DELETE FROM meta WHERE name = ?").bind(1, meta::ROOT).run();
    }
    writeMeta(meta::SOURCE, source);
    return m_summary;
}

} // namespace quorad::ldif
