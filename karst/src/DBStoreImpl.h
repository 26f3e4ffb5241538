#pragma once

#include "RecordCache.h"
#include "karst/DBStore.h"

#include <sqlite3.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tessa {

/// 64-bit checksum over a key and its value. Each step is a bijection of the state for a given
/// word, so damage within any eight bytes is always seen, and other damage but once in 2^64.
std::uint64_t recordChecksum(std::string_view key, std::string_view value);

/// The SQLite side of a DBStore: connection, prepared statements, transactions, and the digest of
/// the whole content. Owned by its DBStore and used under that store's mutex only, but for the
/// operations that ask what is remembered.
///
/// The digest (number of records, and the sum of their checksums) is changed in the same
/// transaction as the records, so a file that mixes pages of several moments, as a loss of power
/// may leave after writes that were not forced to disk, does not pass verify().
class DBStore::Impl {
public:
    Impl() = default;
    ~Impl();
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    void open(const std::string& name, DBMode mode, unsigned permissions);
    bool isOpen() const { return m_db != nullptr; }
    /// @param flush force to disk what writes outside batches left in the kernel
    void close(bool flush);
    void destroy();

    void put(std::string_view key, std::string_view value, bool replace);
    void remove(std::string_view key);
    /// As fetch() and seek() behind the key, from the records read lately. Takes no mutex.
    /// @return false when nothing is remembered
    bool recall(std::string_view key, DBItem& value) const;
    bool recallNext(std::string_view key, Record& record) const;

    /// @param alone the mutex is held for this one operation, not for a step of several: what is
    /// seen in the middle of a step must not be remembered for others
    DBItem fetch(std::string_view key, bool alone);
    DBItem firstKey();
    DBItem keyAfter(std::string_view key);
    Record seek(std::string_view key, bool inclusive);
    /// The record behind the key; remembers some that follow it.
    Record seekAhead(std::string_view key, bool alone);
    std::vector<Record> readAhead(std::string_view key, bool inclusive, std::size_t most);
    void verify();

    // Batches; `opening` counts the calls of open(), so that a batch cannot end a later one's.
    unsigned long beginBatch(DBSync sync);
    void endBatch(unsigned long opening);
    bool inBatch() const { return m_depth > 0; }
    void beforeCommit(std::function<void()> hook) { m_beforeCommit = std::move(hook); }
    unsigned long rollbackCount() const { return m_rollbacks; }
    unsigned long opening() const { return m_opening; }

private:
    class Query;
    enum StatementId : std::size_t;
    static constexpr std::size_t STATEMENTS = 14;
    /// KiB of pages that a store keeps: look-ups mostly end at the records read lately; the records
    /// of a batch come in no order, and each would touch pages that others have pushed out.
    static constexpr int PAGE_CACHE = 1024;
    static constexpr int BATCH_CACHE = 8 * 1024;
    struct Digest {
        std::uint64_t records = 0;
        std::uint64_t checksum = 0;
        friend bool operator==(const Digest&, const Digest&) = default;
    };

    void openFile(DBMode mode, unsigned permissions);
    void configure();
    void createTables();
    void checkIdentity();
    void prepareStatements();
    void execute(const char* sql, const char* doing);
    std::string single(const char* sql, const char* doing);
    void setSynchronous(DBSync sync);
    void setPageCache(int kibibytes);
    void releasePages();

    void begin(DBSync sync);
    void commit();
    void commitBatch();
    void rollBack();
    void noteRollback();
    template <typename Change> void change(const Change& apply);
    void loadDigest();
    void applyPut(std::string_view key, std::string_view value, bool replace);
    bool insertNew(std::string_view key);
    void applyReplace(std::string_view key, std::uint64_t checksum, bool replace);
    void applyRemove(std::string_view key);

    bool mayRemember(bool alone) const { return alone && m_depth == 0; }
    void forget(std::string_view key);
    void forgetAll(bool isOpen);

    void requireOpen() const;
    std::string_view checkedValue(std::string_view key, std::string_view stored) const;
    [[noreturn]] void fail(const char* doing) const;
    [[noreturn]] void failText(const std::string& text) const;

    std::string m_name; ///< as given, for messages
    std::string m_path; ///< absolute; kept after close() for destroy()
    sqlite3* m_db = nullptr;
    std::array<sqlite3_stmt*, STATEMENTS> m_statements{};
    std::string m_scratch; ///< checksum and value of the record being written

    bool m_expectNew = true;  ///< whether the last put met no record of its key
    bool m_toDisk = false;    ///< present setting of "synchronous"
    bool m_unflushed = false; ///< written since open() without forcing to disk
    int m_depth = 0;          ///< batches that are open, one in the other
    bool m_lost = false;      ///< the open batch was rolled back
    std::function<void()> m_beforeCommit;
    Digest m_digest;       ///< of the transaction under way
    Digest m_storedDigest; ///< as the file has it
    bool m_digestKnown = false;
    unsigned long m_rollbacks = 0;
    unsigned long m_opening = 0;

    // Under which the records read lately are remembered: single ones until they change, and which
    // follows which until anything changes. What a batch reads is not remembered: it reads much
    // that nobody else asks for. Set under the mutex.
    std::atomic<RecordCache::Owner> m_recordOwner{RecordCache::NOBODY};
    std::atomic<RecordCache::Owner> m_walkOwner{RecordCache::NOBODY};
};

} // namespace tessa
