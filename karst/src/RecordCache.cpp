#include "RecordCache.h"

#include "RecordShard.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <functional>
#include <mutex>

namespace tessa {

namespace {

constexpr std::size_t SHARDS = 64;
constexpr std::size_t LARGEST_CHUNK = std::size_t{32} * 1024;
constexpr std::size_t LEAST_CHUNKS = 2; ///< for each shard
constexpr std::size_t TYPICAL_RECORD = 96;

std::uint64_t hashOf(RecordCache::Owner owner, std::string_view key) {
    constexpr std::uint64_t SPREAD = 0x9e3779b97f4a7c15;
    std::uint64_t hash = std::hash<std::string_view>{}(key) ^ (owner * SPREAD);
    hash ^= hash >> 32;
    return hash * SPREAD;
}

std::size_t chunkFor(std::size_t memory) {
    const std::size_t chunk = std::min(LARGEST_CHUNK, memory / SHARDS / LEAST_CHUNKS);
    return chunk / ChunkArena::ALIGNMENT * ChunkArena::ALIGNMENT;
}

} // namespace

struct RecordCache::Parts {
    explicit Parts(std::size_t memory)
        : arena(chunkFor(memory), chunkFor(memory) == 0 ? 0 : memory / chunkFor(memory)) {
        const std::size_t sets = memory / SHARDS / TYPICAL_RECORD / RecordShard::WAYS;
        for (RecordShard& shard : shards) {
            shard.useArena(arena, std::max<std::size_t>(1, sets));
        }
    }

    ChunkArena arena;
    std::array<RecordShard, SHARDS> shards;
};

RecordCache& RecordCache::instance() {
    // Never destroyed: stores with static storage may outlive any static object.
    static auto* const cache = new RecordCache(MEMORY); // NOLINT
    return *cache;
}

RecordCache::Owner RecordCache::newOwner() {
    static std::atomic<Owner> last{NOBODY};
    return ++last;
}

RecordCache::RecordCache(std::size_t memory) : m_parts(std::make_unique<Parts>(memory)) {}

RecordCache::~RecordCache() = default;

RecordShard& RecordCache::shardOf(std::uint64_t hash) const {
    return m_parts->shards[hash % SHARDS];
}

RecordCache::Finding RecordCache::find(Owner owner, std::string_view key) const {
    Finding finding;
    const std::uint64_t hash = hashOf(owner, key);
    RecordShard& shard = shardOf(hash);
    const std::lock_guard lock(shard.mutex);
    const CachedRecord* const record = shard.find(owner, hash, key);
    if (record == nullptr) {
        return finding;
    }
    finding.known = true;
    finding.present = record->present;
    if (record->present) {
        finding.value = DBItem(record->value().data(), record->valueLength);
        if (record->recordKeyLength > 0) {
            finding.key = DBItem(record->recordKey().data(), record->recordKeyLength);
        }
    }
    return finding;
}

void RecordCache::insert(Owner owner, std::string_view key, std::string_view recordKey,
                         std::string_view value) {
    put(owner, key, recordKey, value, true);
}

void RecordCache::insertAbsent(Owner owner, std::string_view key) {
    put(owner, key, {}, {}, false);
}

void RecordCache::put(Owner owner, std::string_view key, std::string_view recordKey,
                      std::string_view value, bool present) {
    static_assert(LARGEST <= CachedRecord::LONGEST_TEXT);
    const std::uint64_t hash = hashOf(owner, key);
    RecordShard& shard = shardOf(hash);
    const std::lock_guard lock(shard.mutex);
    if (key.size() + recordKey.size() + value.size() > LARGEST) {
        shard.forget(owner, hash, key);
        return;
    }
    const CachedRecord header{owner,
                              hash,
                              static_cast<std::uint16_t>(key.size()),
                              static_cast<std::uint16_t>(recordKey.size()),
                              static_cast<std::uint16_t>(value.size()),
                              present};
    shard.put(header, key, recordKey, value);
}

void RecordCache::forget(Owner owner, std::string_view key) {
    const std::uint64_t hash = hashOf(owner, key);
    RecordShard& shard = shardOf(hash);
    const std::lock_guard lock(shard.mutex);
    shard.forget(owner, hash, key);
}

std::size_t RecordCache::memory() const {
    std::size_t bytes = 0;
    for (RecordShard& shard : m_parts->shards) {
        const std::lock_guard lock(shard.mutex);
        bytes += shard.bytes();
    }
    return bytes;
}

} // namespace tessa
