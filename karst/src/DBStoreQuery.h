#pragma once

#include "DBStoreImpl.h"

namespace tessa {

/// The prepared statements of a store, in the order of their texts in DBStoreRecords.cpp.
enum DBStore::Impl::StatementId : std::size_t {
    FETCH,
    FIRST_KEY,
    KEY_AFTER,
    SEEK_AFTER,
    SEEK_FROM,
    INSERT,
    REPLACE,
    REMOVE,
    BEGIN,
    COMMIT,
    ROLLBACK,
    GET_DIGEST,
    SET_DIGEST,
    SCAN,
    COUNT,
};

/// One run of a prepared statement, which is reset at the end of the scope: a statement left
/// open would keep the transaction open. Bound bytes must outlive the run.
class DBStore::Impl::Query {
public:
    Query(Impl& store, StatementId id, const char* doing)
        : m_store(store), m_doing(doing), m_statement(store.m_statements[id]) {}
    ~Query() { sqlite3_reset(m_statement); }
    Query(const Query&) = delete;
    Query& operator=(const Query&) = delete;

    Query& bind(int index, std::string_view bytes) {
        // A null pointer would bind NULL instead of an empty byte string.
        const char* const data = bytes.data() != nullptr ? bytes.data() : "";
        require(sqlite3_bind_blob64(m_statement, index, data, bytes.size(), SQLITE_STATIC));
        return *this;
    }
    Query& bind(int index, std::uint64_t number) {
        require(sqlite3_bind_int64(m_statement, index, static_cast<sqlite3_int64>(number)));
        return *this;
    }
    /// Runs to the next row. @return false when there is none
    bool row() {
        const int status = sqlite3_step(m_statement);
        if (status != SQLITE_ROW && status != SQLITE_DONE) {
            m_store.fail(m_doing);
        }
        return status == SQLITE_ROW;
    }
    /// Valid until the next row() or the end of the scope.
    std::string_view bytes(int column) const {
        if (sqlite3_column_type(m_statement, column) != SQLITE_BLOB) {
            m_store.failText(std::string(m_doing) + ": damaged record (not a byte string)");
        }
        const void* const data = sqlite3_column_blob(m_statement, column);
        const int length = sqlite3_column_bytes(m_statement, column);
        if (data == nullptr && length > 0) {
            m_store.fail(m_doing); // out of memory
        }
        return {static_cast<const char*>(data), static_cast<std::size_t>(length)};
    }
    std::uint64_t number(int column) const {
        return static_cast<std::uint64_t>(sqlite3_column_int64(m_statement, column));
    }

private:
    void require(int status) {
        if (status != SQLITE_OK) {
            m_store.fail(m_doing);
        }
    }
    Impl& m_store;
    const char* m_doing;
    sqlite3_stmt* m_statement;
};

} // namespace tessa
