#pragma once

#include "karst/DBStore.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

namespace tessa {

class RecordShard;

/// Records that were read lately, from all stores of the process together, within a fixed amount of
/// memory. It saves a look-up in a store its statement, its pages and the wait for the store's
/// mutex.
///
/// A record belongs to an owner, a number that is never given out twice. A store that changes in
/// more than single records takes a new owner, and what the old one had is found no more and makes
/// room in time. Thread-safe; each operation locks one of many shards for a moment.
class RecordCache {
public:
    using Owner = std::uint64_t;
    static constexpr Owner NOBODY = 0;
    static constexpr std::size_t MEMORY = std::size_t{32} * 1024 * 1024; ///< bytes of all records
    static constexpr std::size_t LARGEST = 4096; ///< bytes of a record that is kept

    /// What is known of a key.
    struct Finding {
        bool known = false;
        bool present = false; ///< otherwise it is known that there is no such record
        DBItem value;
        DBItem key; ///< of the record itself, where that is another one than the one asked for
    };

    static RecordCache& instance();
    static Owner newOwner();

    /// @param memory bytes that records may take together; an index comes to it, a twelfth of that
    ///        when there are many records
    explicit RecordCache(std::size_t memory);
    ~RecordCache();
    RecordCache(const RecordCache&) = delete;
    RecordCache& operator=(const RecordCache&) = delete;

    Finding find(Owner owner, std::string_view key) const;
    /// Replaces what was known of the key.
    void insert(Owner owner, std::string_view key, std::string_view recordKey,
                std::string_view value);
    void insertAbsent(Owner owner, std::string_view key);
    void forget(Owner owner, std::string_view key);

    /// Bytes that records take at this moment.
    std::size_t memory() const;

private:
    struct Parts;

    RecordShard& shardOf(std::uint64_t hash) const;
    void put(Owner owner, std::string_view key, std::string_view recordKey, std::string_view value,
             bool present);

    std::unique_ptr<Parts> m_parts;
};

} // namespace tessa
