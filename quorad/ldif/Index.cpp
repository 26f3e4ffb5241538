#include "Index.h"

#include <karst/Exceptions.h>
#include <karst/Text.h>

#include <cerrno>
#include <chrono>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace quorad::ldif {

namespace {

constexpr std::int64_t APPLICATION_ID = 0x514c4449; // "QLDI"
constexpr std::int64_t FORMAT = 1;
constexpr std::size_t MAX_IDLE = 4;

constexpr const char* SCHEMA = R"(
CREATE TABLE meta(name BLOB PRIMARY KEY, value) WITHOUT ROWID;
CREATE TABLE node(id INTEGER PRIMARY KEY, parent INTEGER NOT NULL, rdn BLOB NOT NULL, guid BLOB,
    usn INTEGER, body BLOB);
CREATE UNIQUE INDEX node_name ON node(parent, rdn);
CREATE UNIQUE INDEX node_guid ON node(guid) WHERE guid IS NOT NULL;
CREATE INDEX node_usn ON node(parent, usn) WHERE guid IS NOT NULL;
CREATE INDEX node_bare ON node(id) WHERE guid IS NULL;
CREATE TABLE account(id INTEGER PRIMARY KEY, kind INTEGER NOT NULL, name BLOB NOT NULL,
    number INTEGER NOT NULL, rid INTEGER);
CREATE INDEX account_name ON account(kind, name);
CREATE INDEX account_number ON account(kind, number);
CREATE INDEX account_rid ON account(kind, rid) WHERE rid IS NOT NULL;
CREATE TABLE tombstone(guid BLOB NOT NULL, parent INTEGER NOT NULL, usn INTEGER NOT NULL,
    time INTEGER NOT NULL, dn BLOB NOT NULL, PRIMARY KEY(guid, parent)) WITHOUT ROWID;
CREATE UNIQUE INDEX tombstone_usn ON tombstone(usn);
CREATE INDEX tombstone_parent ON tombstone(parent, usn);
)";

constexpr const char* PARTS =
    "SELECT count(*) FROM sqlite_schema WHERE name IN ('meta', 'node', 'node_name', 'node_guid', "
    "'node_usn', 'node_bare', 'account', 'account_name', 'account_number', 'account_rid', "
    "'tombstone', 'tombstone_usn', 'tombstone_parent')";
constexpr std::int64_t PART_COUNT = 13;

std::int64_t single(sqlite::Database& database, const char* sql) {
    sqlite::Statement statement(database, sql);
    const sqlite::ScopedReset reset(statement);
    return statement.step() ? statement.number(0) : 0;
}

// More than any number that was given out before: no load gives out one a microsecond for long.
std::int64_t firstCounter() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

} // namespace

void Index::Return::operator()(IndexReader* reader) const {
    std::unique_ptr<IndexReader> owner(reader);
    try {
        owner->end();
    } catch (const tessa::DBException&) {
        return; // a connection that cannot end what it does is of no more use
    }
    const tessa::Lock lock(index->m_mutex);
    if (index->m_idle.size() < MAX_IDLE) {
        index->m_idle.push_back(std::move(owner));
    }
}

Index::Index(std::string path) : m_path(std::move(path)) {
    struct stat status {};
    const bool exists = ::lstat(m_path.c_str(), &status) == 0;
    if (exists && !S_ISREG(status.st_mode)) {
        TESSA_THROW(tessa::SystemException, "'" + m_path + "' is not a regular file");
    }
    if (exists && status.st_size > 0) {
        verify();
    } else {
        create();
    }
}

void Index::create() {
    remove(m_path);
    // The log inherits these permissions: passwords are in both.
    const int file = ::open(m_path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                            S_IRUSR | S_IWUSR);
    if (file < 0) {
        TESSA_THROW(tessa::SystemException,
                    "cannot create '" + m_path + "': " + tessa::errorText(errno));
    }
    ::close(file);
    sqlite::Database database(m_path, sqlite::Database::Access::WRITE);
    database.execute("PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL");
    sqlite::Transaction transaction(database, "BEGIN IMMEDIATE");
    database.execute(SCHEMA);
    const std::string marks = "PRAGMA application_id=" + std::to_string(APPLICATION_ID) +
                              "; PRAGMA user_version=" + std::to_string(FORMAT);
    database.execute(marks.c_str());
    sqlite::Statement insert(database, "INSERT INTO meta(name, value) VALUES(?, ?)");
    insert.bind(1, meta::COUNTER).bind(2, firstCounter()).run();
    insert.bind(1, meta::NEXT_ID).bind(2, std::int64_t{1}).run();
    transaction.commit();
    settle(database);
}

void Index::verify() {
    sqlite::Database database(m_path, sqlite::Database::Access::WRITE);
    if (single(database, "PRAGMA application_id") != APPLICATION_ID ||
        single(database, "PRAGMA user_version") != FORMAT) {
        TESSA_THROW(sqlite::Damaged, "'" + m_path + "' is not an index of this version");
    }
    sqlite::Statement check(database, "PRAGMA quick_check(1)");
    const sqlite::ScopedReset reset(check);
    if (!check.step() || check.bytes(0) != "ok") {
        TESSA_THROW(sqlite::Damaged, "'" + m_path + "': " + std::string(check.bytes(0)));
    }
    if (single(database, PARTS) != PART_COUNT) {
        TESSA_THROW(sqlite::Damaged, "'" + m_path + "': parts are missing");
    }
}

void Index::remove(const std::string& path) {
    for (const char* suffix : {"-wal", "-shm", "-journal", ""}) {
        const std::string name = path + suffix;
        if (::unlink(name.c_str()) != 0 && errno != ENOENT) {
            TESSA_THROW(tessa::SystemException,
                        "cannot remove '" + name + "': " + tessa::errorText(errno));
        }
    }
}

Index::Lease Index::reader() {
    std::unique_ptr<IndexReader> reader;
    {
        const tessa::Lock lock(m_mutex);
        if (!m_idle.empty()) {
            reader = std::move(m_idle.back());
            m_idle.pop_back();
        }
    }
    if (reader == nullptr) {
        reader = std::make_unique<IndexReader>(m_path);
    }
    reader->begin();
    return {reader.release(), Return{shared_from_this()}};
}

std::unique_ptr<sqlite::Database> Index::writer() {
    auto database = std::make_unique<sqlite::Database>(m_path, sqlite::Database::Access::WRITE);
    // The file system is given all of a load at once at its end, unless it is larger than this.
    database->execute("PRAGMA synchronous=FULL; PRAGMA wal_autocheckpoint=0; "
                      "PRAGMA cache_size=-65536");
    return database;
}

void Index::settle(sqlite::Database& writer) {
    // Not waiting for readers: what they still need stays in the log until the next time.
    writer.execute("PRAGMA busy_timeout=0; PRAGMA wal_checkpoint(TRUNCATE)");
}

} // namespace quorad::ldif
