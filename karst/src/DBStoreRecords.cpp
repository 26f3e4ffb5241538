// Records, transactions and the digest of a store.
#include "DBStoreImpl.h"
#include "DBStoreQuery.h"
#include "karst/Exceptions.h"

#include <bit>
#include <cstring>
#include <limits>

namespace tessa {

namespace {

/// The texts of the statements, by StatementId.
constexpr std::array<const char*, 14> SQL = {
    "SELECT value FROM record WHERE key=?1",
    "SELECT key FROM record ORDER BY key LIMIT 1",
    "SELECT key FROM record WHERE key>?1 ORDER BY key LIMIT 1",
    "SELECT key, value FROM record WHERE key>?1 ORDER BY key",
    "SELECT key, value FROM record WHERE key>=?1 ORDER BY key",
    "INSERT OR IGNORE INTO record VALUES(?1, ?2)",
    "UPDATE record SET value=?2 WHERE key=?1",
    "DELETE FROM record WHERE key=?1",
    "BEGIN IMMEDIATE",
    "COMMIT",
    "ROLLBACK",
    "SELECT records, checksum FROM digest",
    "UPDATE digest SET records=?1, checksum=?2",
    "SELECT key, value FROM record ORDER BY key",
};

constexpr std::size_t CHECKSUM_SIZE = sizeof(std::uint64_t);
constexpr std::size_t WALK_AHEAD_RECORDS = 32;
constexpr std::size_t READ_AHEAD_BYTES = std::size_t{64} * 1024;

// Odd constants with well-spread bits (binary digits of pi).
constexpr std::uint64_t MULTIPLIER = 0x243f6a8885a308d3;
constexpr std::uint64_t SECOND_MULTIPLIER = 0x13198a2e03707345;

std::uint64_t mix(std::uint64_t state, std::uint64_t word) {
    state = (std::rotl(state, 23) ^ word) * MULTIPLIER;
    return state ^ (state >> 32);
}

std::uint64_t mixBytes(std::uint64_t state, std::string_view bytes) {
    std::uint64_t word = 0;
    while (bytes.size() >= sizeof word) {
        std::memcpy(&word, bytes.data(), sizeof word);
        state = mix(state, word);
        bytes.remove_prefix(sizeof word);
    }
    word = 0;
    if (!bytes.empty()) {
        std::memcpy(&word, bytes.data(), bytes.size());
    }
    return mix(state, word);
}

std::uint64_t storedChecksum(std::string_view stored) {
    std::uint64_t checksum = 0;
    std::memcpy(&checksum, stored.data(), sizeof checksum);
    return checksum;
}

} // namespace

std::uint64_t recordChecksum(std::string_view key, std::string_view value) {
    std::uint64_t state = mix(mix(SECOND_MULTIPLIER, key.size()), value.size());
    state = mixBytes(mixBytes(state, key), value);
    state *= SECOND_MULTIPLIER;
    return state ^ (state >> 29);
}

void DBStore::Impl::prepareStatements() {
    static_assert(SQL.size() == COUNT && STATEMENTS == COUNT);
    for (std::size_t i = 0; i < SQL.size(); ++i) {
        if (sqlite3_prepare_v3(m_db, SQL.at(i), -1, SQLITE_PREPARE_PERSISTENT, &m_statements.at(i),
                               nullptr) != SQLITE_OK) {
            fail("cannot open");
        }
    }
}

/// The value without its checksum, which must be right.
std::string_view DBStore::Impl::checkedValue(std::string_view key, std::string_view stored) const {
    if (stored.size() < CHECKSUM_SIZE) {
        failText("damaged record (too short)");
    }
    const std::string_view value = stored.substr(CHECKSUM_SIZE);
    if (storedChecksum(stored) != recordChecksum(key, value)) {
        failText("damaged record (wrong checksum)");
    }
    return value;
}

bool DBStore::Impl::recall(std::string_view key, DBItem& value) const {
    RecordCache::Finding finding = RecordCache::instance().find(m_recordOwner, key);
    value = std::move(finding.value);
    return finding.known;
}

bool DBStore::Impl::recallNext(std::string_view key, Record& record) const {
    const RecordCache::Finding finding = RecordCache::instance().find(m_walkOwner, key);
    if (finding.present) {
        record = {true, finding.key.toString(), finding.value.toString()};
    }
    return finding.known;
}

void DBStore::Impl::forget(std::string_view key) {
    RecordCache::instance().forget(m_recordOwner, key);
    m_walkOwner = RecordCache::newOwner();
}

void DBStore::Impl::forgetAll(bool isOpen) {
    m_recordOwner = isOpen ? RecordCache::newOwner() : RecordCache::NOBODY;
    m_walkOwner = isOpen ? RecordCache::newOwner() : RecordCache::NOBODY;
}

DBItem DBStore::Impl::fetch(std::string_view key, bool alone) {
    requireOpen();
    Query query(*this, FETCH, "fetch");
    if (!query.bind(1, key).row()) {
        if (mayRemember(alone)) {
            RecordCache::instance().insertAbsent(m_recordOwner, key);
        }
        return {};
    }
    const std::string_view value = checkedValue(key, query.bytes(0));
    if (mayRemember(alone)) {
        RecordCache::instance().insert(m_recordOwner, key, {}, value);
    }
    return {value.data(), value.size()};
}

DBItem DBStore::Impl::firstKey() {
    requireOpen();
    Query query(*this, FIRST_KEY, "first");
    if (!query.row()) {
        return {};
    }
    const std::string_view key = query.bytes(0);
    return {key.data(), key.size()};
}

DBItem DBStore::Impl::keyAfter(std::string_view key) {
    requireOpen();
    Query query(*this, KEY_AFTER, "next");
    if (!query.bind(1, key).row()) {
        return {};
    }
    const std::string_view next = query.bytes(0);
    return {next.data(), next.size()};
}

DBStore::Record DBStore::Impl::seek(std::string_view key, bool inclusive) {
    requireOpen();
    Record record;
    Query query(*this, inclusive ? SEEK_FROM : SEEK_AFTER, "seek");
    if (query.bind(1, key).row()) {
        const std::string_view found = query.bytes(0);
        record.found = true;
        record.value = checkedValue(found, query.bytes(1));
        record.key = found;
    }
    return record;
}

DBStore::Record DBStore::Impl::seekAhead(std::string_view key, bool alone) {
    if (!mayRemember(alone)) {
        return seek(key, false);
    }
    std::vector<Record> records = readAhead(key, false, WALK_AHEAD_RECORDS);
    RecordCache& cache = RecordCache::instance();
    std::string_view before = key;
    for (const Record& record : records) {
        cache.insert(m_walkOwner, before, record.key, record.value);
        before = record.key;
    }
    return records.empty() ? Record{} : std::move(records.front());
}

std::vector<DBStore::Record> DBStore::Impl::readAhead(std::string_view key, bool inclusive,
                                                      std::size_t most) {
    requireOpen();
    std::vector<Record> records;
    std::size_t bytes = 0;
    Query query(*this, inclusive ? SEEK_FROM : SEEK_AFTER, "read");
    query.bind(1, key);
    while (records.size() < most && bytes < READ_AHEAD_BYTES && query.row()) {
        const std::string_view found = query.bytes(0);
        const std::string_view value = checkedValue(found, query.bytes(1));
        records.push_back({true, std::string(found), std::string(value)});
        bytes += found.size() + value.size();
    }
    return records;
}

void DBStore::Impl::put(std::string_view key, std::string_view value, bool replace) {
    requireOpen();
    // The library's own bound, less what a row needs besides; beyond it the error would come late.
    if (key.size() + value.size() > 900'000'000) {
        failText("store: the record is too large");
    }
    forget(key);
    change([&] { applyPut(key, value, replace); });
}

void DBStore::Impl::remove(std::string_view key) {
    requireOpen();
    forget(key);
    change([&] { applyRemove(key); });
}

void DBStore::Impl::applyPut(std::string_view key, std::string_view value, bool replace) {
    const std::uint64_t checksum = recordChecksum(key, value);
    m_scratch.resize(CHECKSUM_SIZE);
    std::memcpy(m_scratch.data(), &checksum, CHECKSUM_SIZE);
    m_scratch += value;
    // A pass either fills a map or goes over what is there; the other way costs a second search.
    if (m_expectNew && insertNew(key)) {
        m_digest.checksum += checksum;
        m_digest.records += 1;
    } else {
        applyReplace(key, checksum, replace);
    }
    if (m_scratch.capacity() > READ_AHEAD_BYTES) {
        std::string().swap(m_scratch);
    }
}

/// Inserts the record in m_scratch. @return false when the key is there already
bool DBStore::Impl::insertNew(std::string_view key) {
    Query query(*this, INSERT, "store");
    query.bind(1, key).bind(2, m_scratch).row();
    return sqlite3_changes(m_db) > 0;
}

/// Puts the record in m_scratch in the place of the one that is there, if there is one.
void DBStore::Impl::applyReplace(std::string_view key, std::uint64_t checksum, bool replace) {
    std::uint64_t oldChecksum = 0;
    {
        Query query(*this, FETCH, "store");
        m_expectNew = !query.bind(1, key).row();
        if (!m_expectNew) {
            const std::string_view stored = query.bytes(0);
            checkedValue(key, stored);
            oldChecksum = storedChecksum(stored);
        }
    }
    if (m_expectNew) {
        insertNew(key);
    } else if (replace) {
        Query query(*this, REPLACE, "store");
        query.bind(1, key).bind(2, m_scratch).row();
    } else {
        failText("store: the key exists");
    }
    m_digest.checksum += checksum - oldChecksum;
    m_digest.records += m_expectNew ? 1 : 0;
}

void DBStore::Impl::applyRemove(std::string_view key) {
    std::uint64_t oldChecksum = 0;
    {
        Query query(*this, FETCH, "remove");
        if (!query.bind(1, key).row()) {
            return;
        }
        const std::string_view stored = query.bytes(0);
        checkedValue(key, stored);
        oldChecksum = storedChecksum(stored);
    }
    Query(*this, REMOVE, "remove").bind(1, key).row();
    m_digest.checksum -= oldChecksum;
    m_digest.records -= 1;
}

/// Carries out a change within the open batch, or as a transaction of its own.
template <typename Change> void DBStore::Impl::change(const Change& apply) {
    if (m_depth > 0) {
        if (m_lost) {
            failText("the batch was rolled back");
        }
        try {
            apply();
        } catch (const DBException&) {
            if (sqlite3_get_autocommit(m_db) != 0) {
                noteRollback();
                m_lost = true;
            }
            throw;
        }
        return;
    }
    begin(DBSync::TO_KERNEL);
    try {
        apply();
        commit();
    } catch (...) {
        rollBack();
        throw;
    }
}

void DBStore::Impl::begin(DBSync sync) {
    if (sqlite3_get_autocommit(m_db) == 0) {
        rollBack(); // what an earlier failure could not roll back
    }
    setSynchronous(sync);
    if (!m_digestKnown) {
        loadDigest();
    }
    Query(*this, BEGIN, "begin").row();
}

/// On failure the transaction may still be open.
void DBStore::Impl::commit() {
    if (m_digest != m_storedDigest) {
        Query(*this, SET_DIGEST, "commit")
            .bind(1, m_digest.records)
            .bind(2, m_digest.checksum)
            .row();
    }
    Query(*this, COMMIT, "commit").row();
    m_storedDigest = m_digest;
    m_unflushed = m_unflushed || !m_toDisk;
}

void DBStore::Impl::rollBack() {
    m_digestKnown = false;
    if (sqlite3_get_autocommit(m_db) == 0) {
        // A failure to roll back leaves the library refusing all work on the file, which every
        // further operation reports; the journal is played back at the next opening.
        sqlite3_step(m_statements[ROLLBACK]);
        sqlite3_reset(m_statements[ROLLBACK]);
    }
}

void DBStore::Impl::noteRollback() {
    m_digestKnown = false;
    forgetAll(true);
    ++m_rollbacks;
}

void DBStore::Impl::loadDigest() {
    Query query(*this, GET_DIGEST, "read");
    if (!query.row()) {
        failText("damaged file (no digest)");
    }
    m_digest = {query.number(0), query.number(1)};
    m_storedDigest = m_digest;
    m_digestKnown = true;
}

unsigned long DBStore::Impl::beginBatch(DBSync sync) {
    requireOpen();
    if (m_depth == 0) {
        begin(sync);
        m_lost = false;
        setPageCache(BATCH_CACHE);
    }
    ++m_depth;
    return m_opening;
}

void DBStore::Impl::endBatch(unsigned long opening) {
    requireOpen();
    if (opening != m_opening) {
        failText("the store was closed during the batch");
    }
    if (m_depth > 1) {
        --m_depth;
        if (m_lost) {
            failText("the batch was rolled back");
        }
        return;
    }
    commitBatch();
}

void DBStore::Impl::commitBatch() {
    try {
        if (m_lost) {
            failText("commit: the batch was rolled back");
        }
        if (m_beforeCommit) {
            m_beforeCommit();
        }
        commit();
        m_depth = 0;
    } catch (...) {
        m_depth = 0;
        rollBack();
        if (!m_lost) {
            noteRollback();
        }
        releasePages();
        throw;
    }
    releasePages();
}

/// Every store has a page cache of its own: what a batch or a check brought in is let go.
void DBStore::Impl::releasePages() {
    setPageCache(PAGE_CACHE);
    sqlite3_db_release_memory(m_db);
}

void DBStore::Impl::verify() {
    requireOpen();
    const std::string structure = single("PRAGMA quick_check(1)", "check");
    if (structure != "ok") {
        failText("damaged file: " + structure);
    }
    Digest digest;
    std::string previous;
    Query query(*this, SCAN, "check");
    while (query.row()) {
        const std::string_view key = query.bytes(0);
        const std::string_view stored = query.bytes(1);
        checkedValue(key, stored);
        if (digest.records > 0 && key <= previous) {
            failText("damaged file: records out of order");
        }
        previous = key;
        digest.records += 1;
        digest.checksum += storedChecksum(stored);
    }
    const Digest& expected = m_depth > 0 && !m_lost ? m_digest : m_storedDigest;
    if (digest != expected) {
        failText("damaged file: " + std::to_string(digest.records) + " records instead of " +
                 std::to_string(expected.records) + ", or not those last written");
    }
    if (m_depth == 0) {
        releasePages();
    }
}

} // namespace tessa
