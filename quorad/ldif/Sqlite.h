#pragma once

#include <karst/Exceptions.h>

#include <sqlite3.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace quorad::sqlite {

/// The file is no database, or what it holds contradicts itself.
class Damaged : public tessa::DBException {
public:
    using DBException::DBException;
};

/// A connection to a database file. One thread at a time. Errors are tessa::DBException and, when
/// the file is damaged, Damaged.
class Database {
public:
    enum class Access { READ, WRITE };

    /// Opens an existing file.
    Database(const std::string& path, Access access);
    ~Database();
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    void execute(const char* sql);
    sqlite3* handle() const { return m_handle; }
    [[noreturn]] void fail(int code) const;

private:
    const std::string m_path;
    sqlite3* m_handle = nullptr;
};

/// A prepared statement. Byte strings are bound by reference: they must live until the statement
/// has been reset.
class Statement {
public:
    Statement(Database& database, const char* sql);
    ~Statement();
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    /// Parameters and columns count from 1 and 0, as in the library below.
    Statement& bind(int parameter, std::int64_t value);
    Statement& bind(int parameter, std::string_view bytes);
    Statement& bindNull(int parameter);

    /// @return whether there is a row; at the end the statement is reset
    bool step();
    /// Carries out a statement that has no rows.
    void run();
    void reset() { sqlite3_reset(m_handle); }

    bool isNull(int column) const { return sqlite3_column_type(m_handle, column) == SQLITE_NULL; }
    std::int64_t number(int column) const { return sqlite3_column_int64(m_handle, column); }
    /// Valid until the next step or reset.
    std::string_view bytes(int column) const;

private:
    void check(int code) const;

    Database& m_database;
    sqlite3_stmt* m_handle = nullptr;
};

/// Resets a statement whose rows were not read to the end.
class ScopedReset {
public:
    explicit ScopedReset(Statement& statement) : m_statement(statement) {}
    ~ScopedReset() { m_statement.reset(); }
    ScopedReset(const ScopedReset&) = delete;
    ScopedReset& operator=(const ScopedReset&) = delete;

private:
    Statement& m_statement;
};

/// A transaction that is rolled back unless it was committed.
class Transaction {
public:
    /// @param begin "BEGIN" for reading, "BEGIN IMMEDIATE" for writing
    Transaction(Database& database, const char* begin);
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    void commit();

private:
    Database& m_database;
    bool m_open = true;
};

} // namespace quorad::sqlite
