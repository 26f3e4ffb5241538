#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string_view>
#include <vector>

namespace tessa {

/// A record as a cache keeps it: this header, then the key asked for, the record's own key where it
/// is another one, and the value.
struct CachedRecord {
    std::uint64_t owner;
    std::uint64_t hash;
    std::uint16_t keyLength;
    std::uint16_t recordKeyLength;
    std::uint16_t valueLength;
    bool present; ///< otherwise it is known that there is no such record

    /// Bytes of the largest text of each kind.
    static constexpr std::size_t LONGEST_TEXT = 0xffff;

    const char* bytes() const { return reinterpret_cast<const char*>(this + 1); }
    std::string_view key() const { return {bytes(), keyLength}; }
    std::string_view recordKey() const { return {bytes() + keyLength, recordKeyLength}; }
    std::string_view value() const { return {bytes() + keyLength + recordKeyLength, valueLength}; }
    bool is(std::uint64_t who, std::uint64_t what, std::string_view asked) const {
        return hash == what && owner == who && key() == asked;
    }
};

/// Memory in pieces of one size that are given out, in order, until none is left. Only what was
/// written to takes memory. Thread-safe.
class ChunkArena {
public:
    static constexpr std::size_t ALIGNMENT = 16;

    /// @param chunk bytes of a piece, a multiple of ALIGNMENT; no memory at all, when the system
    /// has
    ///        none, is an arena without pieces
    ChunkArena(std::size_t chunk, std::size_t count);
    ~ChunkArena();
    ChunkArena(const ChunkArena&) = delete;
    ChunkArena& operator=(const ChunkArena&) = delete;

    std::size_t chunkSize() const { return m_chunk; }
    /// @return false when all are given out
    bool take(std::uint32_t& number);
    char* at(std::uint32_t number) const { return m_memory + m_chunk * number; }
    char* memory() const { return m_memory; }

private:
    const std::size_t m_chunk;
    std::size_t m_count = 0;
    std::size_t m_size = 0;
    char* m_memory = nullptr;
    std::mutex m_mutex;
    std::uint32_t m_taken = 0;
};

/// A part of a cache's records: an index of short entries, so that one look at one line of memory
/// says where a record is, and the records themselves one behind the other in chunks. When all
/// chunks are full, the oldest is gone through: what was asked for since the last time stays and
/// moves together, the rest makes room. Not thread-safe: the caller holds the mutex.
class RecordShard {
public:
    static constexpr std::size_t WAYS = 8; ///< places that a record's entry can be at: one line

    std::mutex mutex;

    /// @param sets how many groups of places the index has
    void useArena(ChunkArena& arena, std::size_t sets);

    /// @return the record, or null; it stays until the next operation
    /// @param asked counts as a reason to keep it
    const CachedRecord* find(std::uint64_t owner, std::uint64_t hash, std::string_view key);
    /// Keeps a record in the place of the one with that owner and key; nothing when there is no
    /// memory for it.
    /// @param header with the lengths of the texts
    void put(const CachedRecord& header, std::string_view key, std::string_view recordKey,
             std::string_view value);
    void forget(std::uint64_t owner, std::uint64_t hash, std::string_view key);
    /// Bytes that records take, those that were replaced included.
    std::size_t bytes() const;

private:
    /// Where a record is. Nothing is at place 0.
    struct Entry {
        std::uint32_t tag = 0;
        std::uint32_t used : 1 = 0; ///< asked for since the chunk was last gone through
        std::uint32_t place : 31 = 0;
    };
    struct alignas(WAYS * sizeof(Entry)) Set {
        Entry ways[WAYS];
    };
    struct Chunk {
        std::uint32_t number = 0;
        std::uint32_t filled = 0;
    };

    static std::uint32_t tagOf(std::uint64_t hash) {
        return static_cast<std::uint32_t>(hash >> 32);
    }
    Set& setOf(std::uint64_t hash);
    CachedRecord* recordAt(const Entry& entry) const;
    std::uint32_t placeOf(const CachedRecord* record) const;
    Entry* entryOf(std::uint64_t owner, std::uint64_t hash, std::string_view key);
    Entry* entryOf(const CachedRecord* record);
    static Entry& choose(Set& set);
    CachedRecord* room(std::size_t size);
    void goThrough(Chunk& chunk);

    ChunkArena* m_arena = nullptr;
    std::size_t m_sets = 0;
    std::vector<Set> m_index; ///< made when first used
    std::vector<Chunk> m_chunks;
    std::size_t m_current = 0; ///< the chunk that is being filled; the oldest is behind it
};

} // namespace tessa
