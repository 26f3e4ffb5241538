#include "maps/RecordLedger.h"

#include "maps/ExplicitSlots.h"
#include "store/NisCache.h"

#include <karst/Text.h>

#include <functional>
#include <map>
#include <utility>

namespace nis {

namespace {

/// A record as one byte string: the key's length, a blank, the key, the value.
std::string pack(const MapEntry& record) {
    return std::to_string(record.key.size()) + " " + record.key + record.value;
}

bool unpack(const std::string& packed, MapEntry& record) {
    const std::size_t blank = packed.find(' ');
    if (blank == std::string::npos) {
        return false;
    }
    const std::size_t length = tessa::atoui(packed);
    if (length > packed.size() - blank - 1) {
        return false;
    }
    record.key = packed.substr(blank + 1, length);
    record.value = packed.substr(blank + 1 + length);
    return true;
}

} // namespace

std::string RecordLedger::markOf(unsigned char layer, std::string_view key) {
    std::string mark(1, static_cast<char>(layer));
    mark += key;
    return mark;
}

void RecordLedger::remember(const std::string& objectId, const MapEntry& record) {
    m_map.cachePut(objectId, pack(record), RECORD_LAYER);
}

bool RecordLedger::recall(const std::string& objectId, MapEntry& record) const {
    const MapEntry packed = m_map.cache()->get(objectId, RECORD_LAYER);
    return !packed.key.empty() && unpack(packed.value, record);
}

void RecordLedger::forget(const std::string& objectId) {
    m_map.cacheRemove(objectId, RECORD_LAYER);
}

void RecordLedger::begin(bool load) {
    abandon();
    m_load = load;
    m_anyContested = !m_map.cacheGetFirst(CONTESTED_LAYER).key.empty();
}

void RecordLedger::abandon() {
    m_vacated.clear();
    m_loaded = {}; // gives its memory back, which clear() would not
    m_load = false;
    m_recordNumber = 0;
}

void RecordLedger::stored(unsigned char layer, const std::string& key) {
    if (!m_load) {
        return;
    }
    const std::size_t hash =
        std::hash<std::string>{}(key) + layer * std::size_t{0x9e3779b97f4a7c15};
    const auto [found, fresh] = m_loaded.emplace(hash, m_recordNumber);
    if (!fresh && found->second != m_recordNumber) {
        contested(layer, key);
    }
}

void RecordLedger::contested(unsigned char layer, const std::string& key) {
    m_anyContested = true;
    m_map.cachePut(markOf(layer, key), "1", CONTESTED_LAYER);
}

void RecordLedger::vacated(unsigned char layer, const std::string& key) {
    if (m_anyContested && !m_map.cache()->get(markOf(layer, key), CONTESTED_LAYER).key.empty()) {
        m_vacated.emplace(layer, key);
    }
}

void RecordLedger::settle() {
    if (!m_vacated.empty()) {
        std::map<Slot, int> claims;
        for (MapEntry entry = m_map.cacheGetFirst(RECORD_LAYER); !entry.key.empty();
             entry = m_map.cacheGetNext(entry.key, RECORD_LAYER)) {
            MapEntry record;
            if (!unpack(entry.value, record)) {
                continue;
            }
            try {
                m_map.forEachSlot(
                    record.key, record.value,
                    [&](unsigned char layer, const std::string& key, const std::string& value) {
                        const Slot slot(layer, key);
                        if (m_vacated.count(slot) == 0) {
                            return;
                        }
                        ++claims[slot];
                        if (m_map.cache()->get(key, layer).key.empty()) {
                            m_map.cachePut(key, value, layer);
                        }
                    });
            } catch (const BadRecord&) {
                continue; // was reported when the record was read
            }
        }
        for (const Slot& slot : m_vacated) {
            if (claims[slot] < 2) {
                m_map.cacheRemove(markOf(slot.first, slot.second), CONTESTED_LAYER);
            }
        }
    }
    abandon();
}

} // namespace nis
