#include "RecordCache.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <new>

namespace tessa {

namespace {

constexpr std::size_t WAYS = 4; ///< places that a key can be at
constexpr std::size_t TYPICAL_RECORD = 64;

std::uint64_t hashOf(RecordCache::Owner owner, std::string_view key) {
    constexpr std::uint64_t SPREAD = 0x9e3779b97f4a7c15;
    std::uint64_t hash = std::hash<std::string_view>{}(key) ^ (owner * SPREAD);
    hash ^= hash >> 32;
    return hash * SPREAD;
}

} // namespace

/// One record, in one piece of memory: this header, the key asked for, the record's own key where
/// it is another one, the value.
struct RecordCache::Block {
    Owner owner;
    std::uint64_t hash;
    std::uint32_t keyLength;
    std::uint32_t recordKeyLength;
    std::uint32_t valueLength;
    bool present;
    mutable bool used; ///< since the hand last passed

    static BlockPointer make(Owner owner, std::uint64_t hash, std::string_view key,
                             std::string_view recordKey, std::string_view value, bool present);
    std::size_t size() const { return sizeof(Block) + keyLength + recordKeyLength + valueLength; }
    const char* bytes() const { return reinterpret_cast<const char*>(this) + sizeof(Block); }
    std::string_view key() const { return {bytes(), keyLength}; }
    const char* recordKey() const { return bytes() + keyLength; }
    const char* value() const { return recordKey() + recordKeyLength; }
    bool is(Owner who, std::uint64_t what, std::string_view asked) const {
        return hash == what && owner == who && key() == asked;
    }
};

void RecordCache::FreeBlock::operator()(Block* block) const {
    std::free(block); // NOLINT: of malloc
}

RecordCache::BlockPointer RecordCache::Block::make(Owner owner, std::uint64_t hash,
                                                   std::string_view key, std::string_view recordKey,
                                                   std::string_view value, bool present) {
    const std::size_t size = sizeof(Block) + key.size() + recordKey.size() + value.size();
    void* const memory = std::malloc(size); // NOLINT: header and bytes in one piece
    if (memory == nullptr) {
        return nullptr; // a record that is not kept is no harm
    }
    BlockPointer block(new (memory)
                           Block{owner, hash, static_cast<std::uint32_t>(key.size()),
                                 static_cast<std::uint32_t>(recordKey.size()),
                                 static_cast<std::uint32_t>(value.size()), present, false});
    char* at = reinterpret_cast<char*>(block.get()) + sizeof(Block);
    for (const std::string_view part : {key, recordKey, value}) {
        if (!part.empty()) {
            std::memcpy(at, part.data(), part.size());
            at += part.size();
        }
    }
    return block;
}

/// The places of a part of all keys. The mutex guards everything in it.
struct RecordCache::Shard {
    mutable std::mutex mutex;
    std::vector<BlockPointer> places; ///< sets of WAYS; made when first used
    std::size_t sets = 0;
    std::size_t limit = 0;
    std::size_t bytes = 0;
    std::size_t hand = 0;

    BlockPointer* set(std::uint64_t hash) {
        return places.empty() ? nullptr : &places[(hash >> 8) % sets * WAYS];
    }
    void clear(BlockPointer& place) {
        if (place) {
            bytes -= place->size();
            place.reset();
        }
    }
    /// The place to put a record of that key: where it is already, else an empty one, else one that
    /// was not used lately.
    BlockPointer& choose(BlockPointer* first, Owner owner, std::uint64_t hash,
                         std::string_view key) {
        BlockPointer* chosen = nullptr;
        for (BlockPointer* place = first; place != first + WAYS; ++place) {
            if (*place && (*place)->is(owner, hash, key)) {
                return *place;
            }
            if (chosen == nullptr && !*place) {
                chosen = place;
            }
        }
        for (BlockPointer* place = first; chosen == nullptr && place != first + WAYS; ++place) {
            if (!(*place)->used) {
                chosen = place;
            }
            (*place)->used = false;
        }
        return chosen != nullptr ? *chosen : *first;
    }
    /// Takes records out, those first that nobody has asked for since the last round.
    void makeRoom(std::size_t size) {
        for (std::size_t looked = 0; bytes + size > limit && looked < 2 * places.size(); ++looked) {
            hand = (hand + 1) % places.size();
            BlockPointer& place = places[hand];
            if (place && place->used) {
                place->used = false;
            } else {
                clear(place);
            }
        }
    }
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

RecordCache::RecordCache(std::size_t memory) : m_shards(std::make_unique<Shard[]>(SHARDS)) {
    for (std::size_t i = 0; i < SHARDS; ++i) {
        m_shards[i].limit = memory / SHARDS;
        m_shards[i].sets = std::max<std::size_t>(1, memory / SHARDS / TYPICAL_RECORD / WAYS);
    }
}

RecordCache::~RecordCache() = default;

RecordCache::Shard& RecordCache::shardOf(std::uint64_t hash) const {
    return m_shards[hash % SHARDS];
}

RecordCache::Finding RecordCache::find(Owner owner, std::string_view key) const {
    Finding finding;
    const std::uint64_t hash = hashOf(owner, key);
    Shard& shard = shardOf(hash);
    const std::lock_guard lock(shard.mutex);
    const BlockPointer* const first = shard.set(hash);
    for (std::size_t way = 0; first != nullptr && way < WAYS; ++way) {
        const Block* const block = first[way].get();
        if (block != nullptr && block->is(owner, hash, key)) {
            // What was read ahead for a walk is asked for once by each walk; it must not outlive
            // what look-ups ask for.
            block->used = block->recordKeyLength == 0;
            finding.known = true;
            finding.present = block->present;
            if (block->present) {
                finding.value = DBItem(block->value(), block->valueLength);
                if (block->recordKeyLength > 0) {
                    finding.key = DBItem(block->recordKey(), block->recordKeyLength);
                }
            }
            break;
        }
    }
    return finding;
}

void RecordCache::insert(Owner owner, std::string_view key, std::string_view recordKey,
                         std::string_view value) {
    const std::uint64_t hash = hashOf(owner, key);
    if (key.size() + recordKey.size() + value.size() > LARGEST) {
        forget(owner, key);
        return;
    }
    put(owner, key, Block::make(owner, hash, key, recordKey, value, true), hash);
}

void RecordCache::insertAbsent(Owner owner, std::string_view key) {
    const std::uint64_t hash = hashOf(owner, key);
    if (key.size() <= LARGEST) {
        put(owner, key, Block::make(owner, hash, key, {}, {}, false), hash);
    }
}

void RecordCache::put(Owner owner, std::string_view key, BlockPointer block, std::uint64_t hash) {
    Shard& shard = shardOf(hash);
    const std::lock_guard lock(shard.mutex);
    if (shard.places.empty()) {
        shard.places.resize(shard.sets * WAYS);
    }
    BlockPointer& place = shard.choose(shard.set(hash), owner, hash, key);
    shard.clear(place);
    if (!block || block->size() > shard.limit) {
        return;
    }
    shard.makeRoom(block->size());
    shard.bytes += block->size();
    place = std::move(block);
}

void RecordCache::forget(Owner owner, std::string_view key) {
    const std::uint64_t hash = hashOf(owner, key);
    Shard& shard = shardOf(hash);
    const std::lock_guard lock(shard.mutex);
    BlockPointer* const first = shard.set(hash);
    for (std::size_t way = 0; first != nullptr && way < WAYS; ++way) {
        if (first[way] && first[way]->is(owner, hash, key)) {
            shard.clear(first[way]);
        }
    }
}

std::size_t RecordCache::memory() const {
    std::size_t bytes = 0;
    for (std::size_t i = 0; i < SHARDS; ++i) {
        const std::lock_guard lock(m_shards[i].mutex);
        bytes += m_shards[i].bytes;
    }
    return bytes;
}

} // namespace tessa
