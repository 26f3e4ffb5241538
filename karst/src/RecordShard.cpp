#include "RecordShard.h"

#include <cstring>

#include <sys/mman.h>

namespace tessa {

namespace {

constexpr std::size_t rounded(std::size_t size) {
    return (size + ChunkArena::ALIGNMENT - 1) / ChunkArena::ALIGNMENT * ChunkArena::ALIGNMENT;
}

std::size_t sizeOf(const CachedRecord& record) {
    return rounded(sizeof(CachedRecord) + record.keyLength + record.recordKeyLength +
                   record.valueLength);
}

} // namespace

ChunkArena::ChunkArena(std::size_t chunk, std::size_t count) : m_chunk(chunk) {
    if (chunk == 0 || count == 0) {
        return;
    }
    void* const memory = ::mmap(nullptr, chunk * count, PROT_READ | PROT_WRITE,
                                MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) {
        return;
    }
    m_memory = static_cast<char*>(memory);
    m_size = chunk * count;
    m_count = count;
    // Records are read in no order: with small pages the way to a page costs as much as the record.
    ::madvise(memory, m_size, MADV_HUGEPAGE);
}

ChunkArena::~ChunkArena() {
    if (m_memory != nullptr) {
        ::munmap(m_memory, m_size);
    }
}

bool ChunkArena::take(std::uint32_t& number) {
    const std::lock_guard lock(m_mutex);
    if (m_taken == m_count) {
        return false;
    }
    number = m_taken++;
    return true;
}

void RecordShard::useArena(ChunkArena& arena, std::size_t sets) {
    m_arena = &arena;
    m_sets = sets;
}

CachedRecord* RecordShard::recordAt(const Entry& entry) const {
    return reinterpret_cast<CachedRecord*>(m_arena->memory() +
                                           (entry.place - 1) * ChunkArena::ALIGNMENT);
}

std::uint32_t RecordShard::placeOf(const CachedRecord* record) const {
    const auto offset = reinterpret_cast<const char*>(record) - m_arena->memory();
    return static_cast<std::uint32_t>(static_cast<std::size_t>(offset) / ChunkArena::ALIGNMENT + 1);
}

RecordShard::Set& RecordShard::setOf(std::uint64_t hash) {
    // The shard was chosen by the lowest bits. A fraction of all sets, without a division.
    const std::uint64_t fraction = static_cast<std::uint32_t>(hash >> 8);
    return m_index[fraction * m_index.size() >> 32];
}

RecordShard::Entry* RecordShard::entryOf(std::uint64_t owner, std::uint64_t hash,
                                         std::string_view key) {
    if (m_index.empty()) {
        return nullptr;
    }
    const std::uint32_t tag = tagOf(hash);
    for (Entry& entry : setOf(hash).ways) {
        if (entry.place != 0 && entry.tag == tag && recordAt(entry)->is(owner, hash, key)) {
            return &entry;
        }
    }
    return nullptr;
}

/// The entry that says that the record is there; null when it was replaced or forgotten.
RecordShard::Entry* RecordShard::entryOf(const CachedRecord* record) {
    const std::uint32_t place = placeOf(record);
    for (Entry& entry : setOf(record->hash).ways) {
        if (entry.place == place) {
            return &entry;
        }
    }
    return nullptr;
}

const CachedRecord* RecordShard::find(std::uint64_t owner, std::uint64_t hash,
                                      std::string_view key) {
    Entry* const entry = entryOf(owner, hash, key);
    if (entry == nullptr) {
        return nullptr;
    }
    const CachedRecord* const record = recordAt(*entry);
    // What was read ahead for a walk is asked for once by each walk; it must not outlive what
    // look-ups ask for.
    if (entry->used == 0 && record->recordKeyLength == 0) {
        entry->used = 1;
    }
    return record;
}

void RecordShard::forget(std::uint64_t owner, std::uint64_t hash, std::string_view key) {
    if (Entry* const entry = entryOf(owner, hash, key)) {
        *entry = {};
    }
}

void RecordShard::put(const CachedRecord& header, std::string_view key, std::string_view recordKey,
                      std::string_view value) {
    forget(header.owner, header.hash, key);
    if (m_index.empty()) {
        m_index.resize(m_sets); // first: it may fail, and what is in a chunk must be a record
    }
    CachedRecord* const record = room(sizeOf(header));
    if (record == nullptr) {
        return;
    }
    *record = header;
    char* at = reinterpret_cast<char*>(record + 1);
    for (const std::string_view part : {key, recordKey, value}) {
        if (!part.empty()) {
            std::memcpy(at, part.data(), part.size());
            at += part.size();
        }
    }
    Entry& entry = choose(setOf(header.hash));
    entry.tag = tagOf(header.hash);
    entry.used = 0;
    entry.place = placeOf(record) & 0x7fffffffU;
}

/// An empty place, else one of a record that was not asked for lately.
RecordShard::Entry& RecordShard::choose(Set& set) {
    for (Entry& entry : set.ways) {
        if (entry.place == 0) {
            return entry;
        }
    }
    for (Entry& entry : set.ways) {
        if (entry.used == 0) {
            return entry;
        }
    }
    for (Entry& entry : set.ways) {
        entry.used = 0;
    }
    return set.ways[0];
}

/// A place behind the newest record. Comes to an end: whoever is gone through a second time was not
/// asked for in between.
CachedRecord* RecordShard::room(std::size_t size) {
    if (size > m_arena->chunkSize()) {
        return nullptr;
    }
    while (m_chunks.empty() || m_chunks[m_current].filled + size > m_arena->chunkSize()) {
        Chunk chunk;
        if (m_arena->take(chunk.number)) {
            m_chunks.push_back(chunk);
            m_current = m_chunks.size() - 1;
        } else if (m_chunks.empty()) {
            return nullptr;
        } else {
            m_current = (m_current + 1) % m_chunks.size();
            goThrough(m_chunks[m_current]);
        }
    }
    Chunk& chunk = m_chunks[m_current];
    char* const place = m_arena->at(chunk.number) + chunk.filled;
    chunk.filled += static_cast<std::uint32_t>(size);
    return reinterpret_cast<CachedRecord*>(place);
}

/// Takes out what was not asked for since the last time, and moves the rest together.
void RecordShard::goThrough(Chunk& chunk) {
    char* const start = m_arena->at(chunk.number);
    std::size_t kept = 0;
    for (std::size_t at = 0; at < chunk.filled;) {
        const auto* const record = reinterpret_cast<const CachedRecord*>(start + at);
        const std::size_t size = sizeOf(*record);
        Entry* const entry = entryOf(record);
        if (entry != nullptr && entry->used == 0) {
            *entry = {};
        } else if (entry != nullptr) {
            entry->used = 0;
            std::memmove(start + kept, record, size);
            entry->place = placeOf(reinterpret_cast<CachedRecord*>(start + kept)) & 0x7fffffffU;
            kept += size;
        }
        at += size;
    }
    chunk.filled = static_cast<std::uint32_t>(kept);
}

std::size_t RecordShard::bytes() const {
    std::size_t sum = 0;
    for (const Chunk& chunk : m_chunks) {
        sum += chunk.filled;
    }
    return sum;
}

} // namespace tessa
