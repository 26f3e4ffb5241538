#include "DBStoreImpl.h"

#include "DBStoreQuery.h"
#include "karst/Exceptions.h"
#include "karst/Text.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <mutex>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tessa {

namespace {

// Marks of the file's header by which a file of another program or format is known.
constexpr int APPLICATION_ID = 0x4b525354; // "KRST"
constexpr int STORE_FORMAT = 1;

constexpr const char* RECORD_TABLE =
    "CREATE TABLE record(key BLOB PRIMARY KEY, value BLOB NOT NULL) WITHOUT ROWID";
constexpr const char* DIGEST_TABLE =
    "CREATE TABLE digest(records INTEGER NOT NULL, checksum INTEGER NOT NULL)";

constexpr const char* JOURNAL = "-journal";

/// The library counts its memory under a process-wide lock unless told otherwise before first use.
void setUpLibrary() {
    static std::once_flag once;
    // Refused when another user of the library came first, which does no harm.
    std::call_once(once, [] { sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0); });
}

/// Absolute path without symbolic links in its folders. It never looks like a "file:" URI, which
/// the library would take apart, and stays right when the working directory changes.
std::string absolutePath(const std::string& name) {
    const std::size_t slash = name.rfind('/');
    std::string folder = ".";
    if (slash != std::string::npos) {
        folder = name.substr(0, slash + 1);
    }
    const std::string base = name.substr(slash == std::string::npos ? 0 : slash + 1);
    char* const resolved = ::realpath(folder.c_str(), nullptr);
    if (resolved == nullptr) {
        TESSA_THROW(DBException, "'" + name + "': " + errorText(errno));
    }
    std::string path(resolved);
    std::free(resolved); // NOLINT: realpath() allocates with malloc
    if (path.back() != '/') {
        path += '/';
    }
    return path + base;
}

/// @return 0 or the error number
int flushFile(const std::string& path) {
    const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (file < 0) {
        return errno;
    }
    const int error = ::fdatasync(file) == 0 ? 0 : errno;
    ::close(file);
    return error;
}

} // namespace

DBStore::Impl::~Impl() {
    close(false);
}

void DBStore::Impl::open(const std::string& name, DBMode mode, unsigned permissions) {
    if (isOpen()) {
        failText("is open already");
    }
    setUpLibrary();
    m_name = name;
    if (name.empty() || name.find('\0') != std::string::npos) {
        failText("not a file name");
    }
    m_path = absolutePath(name);
    openFile(mode, permissions);
    ++m_opening;
    m_toDisk = true; // the library's default
    m_unflushed = false;
    m_depth = 0;
    m_lost = false;
    m_digestKnown = false;
    try {
        configure();
        if (mode == DB_CREATE) {
            createTables();
        }
        checkIdentity();
        prepareStatements();
        loadDigest();
        forgetAll(true);
    } catch (...) {
        close(false);
        if (mode == DB_CREATE) {
            ::unlink(m_path.c_str());
            ::unlink((m_path + JOURNAL).c_str());
        }
        throw;
    }
}

void DBStore::Impl::openFile(DBMode mode, unsigned permissions) {
    if (mode == DB_CREATE) {
        const int file = ::open(m_path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                                static_cast<mode_t>(permissions));
        if (file < 0) {
            failText("cannot create: " + errorText(errno));
        }
        const bool permitted = ::fchmod(file, static_cast<mode_t>(permissions)) == 0;
        ::close(file);
        if (!permitted) {
            failText("cannot set permissions: " + errorText(errno));
        }
        // A journal without its store would be played back into the new one.
        ::unlink((m_path + JOURNAL).c_str());
    } else {
        struct stat status {};
        if (::lstat(m_path.c_str(), &status) != 0) {
            failText("cannot open: " + errorText(errno));
        }
        if (!S_ISREG(status.st_mode)) {
            failText("cannot open: not a regular file");
        }
        if (status.st_size == 0) {
            failText("cannot open: the file is empty");
        }
    }
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_NOFOLLOW |
                      SQLITE_OPEN_PRIVATECACHE | SQLITE_OPEN_EXRESCODE;
    if (sqlite3_open_v2(m_path.c_str(), &m_db, flags, nullptr) != SQLITE_OK) {
        const std::string why = m_db != nullptr ? sqlite3_errmsg(m_db) : "out of memory";
        sqlite3_close(m_db);
        m_db = nullptr;
        failText("cannot open: " + why);
    }
}

void DBStore::Impl::configure() {
    // What a foreign or damaged file may say of triggers, views and functions is not carried out.
    sqlite3_db_config(m_db, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    sqlite3_db_config(m_db, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
    sqlite3_db_config(m_db, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
    sqlite3_db_config(m_db, SQLITE_DBCONFIG_ENABLE_VIEW, 0, nullptr);
    sqlite3_limit(m_db, SQLITE_LIMIT_ATTACHED, 0);
    constexpr const char* opening = "cannot open";
    execute("PRAGMA locking_mode=EXCLUSIVE", opening);
    execute("PRAGMA mmap_size=0", opening);
    execute("PRAGMA cell_size_check=ON", opening);
    execute("PRAGMA trusted_schema=OFF", opening);
    execute("PRAGMA secure_delete=OFF", opening);
    execute("PRAGMA auto_vacuum=NONE", opening);
    setPageCache(PAGE_CACHE); // larger transactions spill to the file
    if (single("PRAGMA journal_mode=TRUNCATE", opening) != "truncate") {
        failText("cannot open: the journal mode cannot be set");
    }
    // Takes the lock, so that a second process is refused now and not at its first write.
    execute("BEGIN EXCLUSIVE", opening);
    execute("COMMIT", opening);
}

void DBStore::Impl::createTables() {
    // Not forced to disk: a store without content is not worth waiting for.
    constexpr const char* creating = "cannot create";
    setSynchronous(DBSync::TO_KERNEL);
    m_unflushed = true;
    execute("BEGIN IMMEDIATE", creating);
    execute(("PRAGMA application_id=" + std::to_string(APPLICATION_ID)).c_str(), creating);
    execute(("PRAGMA user_version=" + std::to_string(STORE_FORMAT)).c_str(), creating);
    execute(RECORD_TABLE, creating);
    execute(DIGEST_TABLE, creating);
    execute("INSERT INTO digest VALUES(0, 0)", creating);
    execute("COMMIT", creating);
}

void DBStore::Impl::checkIdentity() {
    constexpr const char* opening = "cannot open";
    if (single("PRAGMA application_id", opening) != std::to_string(APPLICATION_ID)) {
        failText("cannot open: the file belongs to another program");
    }
    const std::string format = single("PRAGMA user_version", opening);
    if (format != std::to_string(STORE_FORMAT)) {
        failText("cannot open: store format " + format + " is not known");
    }
    const std::string tables =
        single("SELECT group_concat(sql, ';') FROM (SELECT sql FROM sqlite_schema ORDER BY name)",
               opening);
    if (tables != std::string(DIGEST_TABLE) + ";" + RECORD_TABLE ||
        single("SELECT count(*) FROM digest", opening) != "1") {
        failText("cannot open: the tables are not those of a store");
    }
}

void DBStore::Impl::close(bool flush) {
    if (!isOpen()) {
        return;
    }
    forgetAll(false);
    std::string failure;
    if (m_depth > 0 && !m_lost && flush) {
        try {
            commitBatch();
        } catch (const std::exception& e) {
            failure = e.what();
        }
    }
    m_depth = 0;
    for (sqlite3_stmt*& statement : m_statements) {
        sqlite3_finalize(statement);
        statement = nullptr;
    }
    sqlite3_close(m_db); // rolls back a transaction that is still open
    m_db = nullptr;
    const std::string journal = m_path + JOURNAL;
    if (flush && m_unflushed) {
        const int journalError = flushFile(journal);
        const int error = flushFile(m_path);
        if (error != 0 || (journalError != 0 && journalError != ENOENT)) {
            failure = "'" + m_name + "': close: " + errorText(error != 0 ? error : journalError);
        }
    }
    struct stat status {};
    if (::lstat(journal.c_str(), &status) == 0 && status.st_size == 0) {
        ::unlink(journal.c_str());
    }
    if (!failure.empty()) {
        TESSA_THROW(DBException, failure);
    }
}

void DBStore::Impl::destroy() {
    close(false);
    if (m_path.empty()) {
        failText("cannot delete: never opened");
    }
    const std::string journal = m_path + JOURNAL;
    const bool removed = ::unlink(m_path.c_str()) == 0 || errno == ENOENT;
    const int error = errno;
    if (!removed) {
        failText("cannot delete: " + errorText(error));
    }
    if (::unlink(journal.c_str()) != 0 && errno != ENOENT) {
        failText("cannot delete the journal: " + errorText(errno));
    }
}

void DBStore::Impl::execute(const char* sql, const char* doing) {
    if (sqlite3_exec(m_db, sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
        fail(doing);
    }
}

/// The first column of the first row as text.
std::string DBStore::Impl::single(const char* sql, const char* doing) {
    sqlite3_stmt* statement = nullptr;
    int status = sqlite3_prepare_v2(m_db, sql, -1, &statement, nullptr);
    std::string text;
    if (status == SQLITE_OK) {
        status = sqlite3_step(statement);
        if (status == SQLITE_ROW && sqlite3_column_type(statement, 0) != SQLITE_NULL) {
            const void* const bytes = sqlite3_column_text(statement, 0);
            const int length = sqlite3_column_bytes(statement, 0);
            text.assign(static_cast<const char*>(bytes), static_cast<std::size_t>(length));
        }
    }
    if (status != SQLITE_ROW && status != SQLITE_DONE) {
        try {
            fail(doing);
        } catch (...) {
            sqlite3_finalize(statement);
            throw;
        }
    }
    sqlite3_finalize(statement);
    return text;
}

void DBStore::Impl::setSynchronous(DBSync sync) {
    const bool toDisk = sync == DBSync::TO_DISK;
    if (toDisk != m_toDisk) {
        execute(toDisk ? "PRAGMA synchronous=FULL" : "PRAGMA synchronous=OFF", "begin");
        m_toDisk = toDisk;
    }
}

/// A wish: where it fails, the operations that follow will say what is wrong with the file.
void DBStore::Impl::setPageCache(int kibibytes) {
    const std::string sql = "PRAGMA cache_size=-" + std::to_string(kibibytes);
    sqlite3_exec(m_db, sql.c_str(), nullptr, nullptr, nullptr);
}

void DBStore::Impl::requireOpen() const {
    if (!isOpen()) {
        failText("the store is closed");
    }
}

/// Raises what the library last said.
void DBStore::Impl::fail(const char* doing) const {
    std::string text = std::string(doing) + ": " + sqlite3_errmsg(m_db);
    const int code = sqlite3_errcode(m_db) & 0xff;
    const int system = sqlite3_system_errno(m_db);
    if (system != 0 && (code == SQLITE_IOERR || code == SQLITE_CANTOPEN || code == SQLITE_FULL)) {
        text += " (" + errorText(system) + ")";
    }
    failText(text);
}

void DBStore::Impl::failText(const std::string& text) const {
    TESSA_THROW(DBException, "'" + m_name + "': " + text);
}

} // namespace tessa
