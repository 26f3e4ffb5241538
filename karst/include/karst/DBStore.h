#pragma once

#include "karst/Mutex.h"

#include <boost/shared_ptr.hpp>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace tessa {

/// A byte string that is not owned: a length and a pointer.
struct DBThing {
    const void* data = nullptr;
    std::size_t length = 0;

    DBThing() = default;
    DBThing(const void* bytes, std::size_t size) : data(bytes), length(size) {}
    DBThing(std::string_view text) : data(text.data()), length(text.size()) {} // NOLINT: implicit
    DBThing(const std::string& text) : DBThing(std::string_view(text)) {}      // NOLINT
    std::string_view view() const { return {static_cast<const char*>(data), length}; }
};

/// A byte string on the heap that owns its buffer (released with free). Length 0 and a null pointer
/// when there is no such record. Movable, not copyable.
class DBItem {
public:
    DBItem() = default;
    DBItem(const void* bytes, std::size_t size);
    DBItem(DBItem&& other) noexcept;
    DBItem& operator=(DBItem&& other) noexcept;
    ~DBItem();

    const void* data() const { return m_data; }
    std::size_t length() const { return m_length; }
    /// Whether there is a record at all. A record with an empty value is present.
    bool present() const { return m_data != nullptr; }
    std::string_view view() const { return {static_cast<const char*>(m_data), m_length}; }
    std::string toString() const { return std::string(view()); }

private:
    void* m_data = nullptr;
    std::size_t m_length = 0;
};

/// How DBStore::open treats the file.
enum DBMode : int {
    DB_OPEN = 1,   ///< an existing store, readable and writable
    DB_CREATE = 2, ///< a new, empty store; an existing file is refused
};

/// How far the end of a batch takes its writes.
enum class DBSync {
    TO_DISK,   ///< forced to the disk: a loss of power finds the state before or after the batch
    TO_KERNEL, ///< as a write outside a batch: the process may be killed at any moment
};

class DBIterator;

/// What all stores share: the mutex and the process-wide list of open stores.
class DBStoreInterface {
public:
    virtual ~DBStoreInterface() = default;
    /// The store's own lock. Every operation takes it by itself; take it (it is recursive) to make
    /// several operations one step for other threads.
    Mutex& mutex() const { return m_mutex; }
    virtual void close() = 0;

    /// Closes every open store of the process: what was written is on disk afterwards. A store that
    /// is closed answers every further operation with DBException.
    static void closeAll();

private:
    mutable Mutex m_mutex;
};

/// Keyed store in one file: records of a key and a value, both byte strings of any size, in byte
/// order of the keys. The file's format is described in docs/formats.md.
///
/// A fetch never returns damaged data: each value carries a checksum over key and value; a mismatch
/// is a DBException. A process that dies at any moment leaves the store as it was before or after a
/// batch; so does a loss of power during a batch, and one soon after a write outside a batch leaves
/// at worst a file that checkStructure() refuses. A store belongs to one process at a time. All
/// operations are thread-safe and throw DBException, which names the file.
class DBStore : public DBStoreInterface {
public:
    DBStore();
    ~DBStore() override; ///< closes
    DBStore(const DBStore&) = delete;
    DBStore& operator=(const DBStore&) = delete;

    /// @param name taken relative to the present working directory, whatever that becomes later.
    /// A symbolic link is refused, and so is a file that is not a store of this format.
    /// @param permissions mode of a new file
    void open(const std::string& name, DBMode mode, unsigned permissions);
    bool isOpen() const;

    /// @param replace overwrite an existing value; otherwise an existing key is an error
    void store(const DBThing& key, const DBThing& value, bool replace);
    DBItem fetch(const DBThing& key) const;
    /// Removing a key that is not there is no error.
    void remove(const DBThing& key);

    /// First key in order, and the first key greater than the given one (which need not exist); an
    /// item that is not present after the last.
    DBItem getFirst() const;
    DBItem getNext(const DBThing& key) const;

    /// A record of a walk. Key and value are empty at the end, with found == false.
    struct Record {
        bool found = false;
        std::string key;
        std::string value;
    };
    /// First record whose key is greater than `key` (or not less, when `inclusive`). One step for a
    /// key and its value, for walks that seek.
    Record seek(const DBThing& key, bool inclusive) const;

    /// Walks every record once, checking each.
    std::unique_ptr<DBIterator> getIterator() const;
    /// Reads the whole file: its structure is sound, every record has its checksum, and the records
    /// are together exactly those of the last committed write, none lost and none twice.
    /// @throws DBException saying what is damaged
    void checkStructure() const;

    void close() override;
    /// Closes and deletes the file and what belongs to it. Works on a closed store, too.
    void destroy();

    /// Writes between construction and commit() (or destruction) become one transaction. Readers of
    /// this process see each write at once. Nested batches join the outer one, which alone decides
    /// how far the writes are taken. When the store had to give the writes up (disk full, read
    /// error), every further write of the batch fails, until its end.
    class Batch {
    public:
        explicit Batch(DBStore& store, DBSync sync = DBSync::TO_DISK);
        /// Commits if commit() was not called; a failure is then logged at warning level.
        ~Batch();
        Batch(const Batch&) = delete;
        Batch& operator=(const Batch&) = delete;
        /// @throws DBException when the writes could not be made durable; the store then is as it
        /// was before the batch (see rollbackCount()).
        void commit();

    private:
        DBStore& m_store;
        unsigned long m_opening = 0; ///< which open() of the store the batch belongs to
        bool m_done = false;
    };
    /// Has `hook` called just before an outermost batch is committed, also when closing the store
    /// commits it. It may add writes; the mutex is held. An exception from it gives the batch up.
    void beforeCommit(std::function<void()> hook);
    /// How often the store went back to an earlier state by itself (a failed batch: disk full, read
    /// error). Whoever mirrors stored values in memory reads them again when the number moves.
    unsigned long rollbackCount() const;

private:
    friend class Batch;
    friend class DBIterator;
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

/// Cursor over all records of a store in key order, which reads some records ahead. One thread at a
/// time; the store must outlive it.
class DBIterator {
public:
    explicit DBIterator(const DBStore& store);
    bool hasNext();
    /// The next record's value, after which key() is its key; not present at the end.
    DBItem next();
    const std::string& key() const { return m_record.key; }

private:
    void readAhead();
    const DBStore& m_store;
    DBStore::Record m_record;
    std::vector<DBStore::Record> m_ahead;
    std::size_t m_next = 0; ///< index into m_ahead
    bool m_started = false;
    bool m_ended = false;
};

} // namespace tessa
