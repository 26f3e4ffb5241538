#include "Sqlite.h"

#include <mutex>

namespace quorad::sqlite {

namespace {

constexpr int BUSY_MILLISECONDS = 10000;

// The library counts its memory under a process-wide lock unless told otherwise before first use.
// It refuses when another user of it came first, which does no harm.
void setUpLibrary() {
    static std::once_flag once;
    std::call_once(once, [] { sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0); });
}

bool isDamage(int code) {
    const int primary = code & 0xff;
    return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB || primary == SQLITE_FORMAT;
}

} // namespace

Database::Database(const std::string& path, Access access) : m_path(path) {
    setUpLibrary();
    // A reader, too, may have to recover the log that a killed process left behind.
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_NOFOLLOW |
                      SQLITE_OPEN_PRIVATECACHE | SQLITE_OPEN_EXRESCODE;
    const int code = sqlite3_open_v2(path.c_str(), &m_handle, flags, nullptr);
    try {
        if (code != SQLITE_OK) {
            fail(code);
        }
        sqlite3_busy_timeout(m_handle, BUSY_MILLISECONDS);
        // What a damaged file may say of triggers, views and functions is not carried out.
        sqlite3_db_config(m_handle, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
        sqlite3_db_config(m_handle, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
        execute("PRAGMA cell_size_check=ON; PRAGMA mmap_size=0");
        if (access == Access::READ) {
            execute("PRAGMA query_only=ON");
        }
        // Closing must not unlink the log by its name: by then it may belong to a newer file.
        int keep = 1;
        sqlite3_file_control(m_handle, "main", SQLITE_FCNTL_PERSIST_WAL, &keep);
    } catch (...) {
        sqlite3_close(m_handle);
        throw;
    }
}

Database::~Database() {
    sqlite3_close(m_handle);
}

void Database::fail(int code) const {
    const char* const why = m_handle != nullptr ? sqlite3_errmsg(m_handle) : sqlite3_errstr(code);
    const std::string message = "'" + m_path + "': " + why;
    if (isDamage(code)) {
        TESSA_THROW(Damaged, message);
    }
    TESSA_THROW(tessa::DBException, message);
}

void Database::execute(const char* sql) {
    const int code = sqlite3_exec(m_handle, sql, nullptr, nullptr, nullptr);
    if (code != SQLITE_OK) {
        fail(code);
    }
}

Statement::Statement(Database& database, const char* sql) : m_database(database) {
    check(sqlite3_prepare_v3(database.handle(), sql, -1, SQLITE_PREPARE_PERSISTENT, &m_handle,
                             nullptr));
}

Statement::~Statement() {
    sqlite3_finalize(m_handle);
}

void Statement::check(int code) const {
    if (code != SQLITE_OK) {
        m_database.fail(code);
    }
}

Statement& Statement::bind(int parameter, std::int64_t value) {
    check(sqlite3_bind_int64(m_handle, parameter, value));
    return *this;
}

Statement& Statement::bind(int parameter, std::string_view bytes) {
    // A null pointer would bind NULL instead of no bytes.
    const char* const data = bytes.data() != nullptr ? bytes.data() : "";
    check(sqlite3_bind_blob64(m_handle, parameter, data, bytes.size(), SQLITE_STATIC));
    return *this;
}

Statement& Statement::bindNull(int parameter) {
    check(sqlite3_bind_null(m_handle, parameter));
    return *this;
}

bool Statement::step() {
    const int code = sqlite3_step(m_handle);
    if (code == SQLITE_ROW) {
        return true;
    }
    sqlite3_reset(m_handle);
    if (code != SQLITE_DONE) {
        m_database.fail(code);
    }
    return false;
}

void Statement::run() {
    while (step()) {
    }
}

std::string_view Statement::bytes(int column) const {
    const void* const data = sqlite3_column_blob(m_handle, column);
    const int size = sqlite3_column_bytes(m_handle, column);
    return data == nullptr
               ? std::string_view()
               : std::string_view(static_cast<const char*>(data), static_cast<std::size_t>(size));
}

Transaction::Transaction(Database& database, const char* begin) : m_database(database) {
    m_database.execute(begin);
}

Transaction::~Transaction() {
    if (m_open && sqlite3_get_autocommit(m_database.handle()) == 0) {
        sqlite3_exec(m_database.handle(), "ROLLBACK", nullptr, nullptr, nullptr);
    }
}

void Transaction::commit() {
    m_database.execute("COMMIT");
    m_open = false;
}

} // namespace quorad::sqlite
