#pragma once

#include "common/MapEntry.h"

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace nis {

class ExplicitADNisMap;

/// What an explicit map knows beyond its primary keys, so that a removal takes exactly what the
/// object stored: several objects may claim one key (two aliases of one host name, an entry that
/// was created twice), and the one that goes must neither take the entry of another one along nor
/// leave the key empty for the others.
///
/// Kept in two private layers of the map's cache: object identifier -> the record as it was read,
/// and the keys that more than one object claims. Belongs to its map; used by the one thread that
/// updates, under the map's writer lock.
class RecordLedger {
public:
    static constexpr unsigned char RECORD_LAYER = 254;
    static constexpr unsigned char CONTESTED_LAYER = 253;

    explicit RecordLedger(ExplicitADNisMap& map) : m_map(map) {}

    void remember(const std::string& objectId, const MapEntry& record);
    /// @return false when nothing is known of the object
    bool recall(const std::string& objectId, MapEntry& record) const;
    void forget(const std::string& objectId);

    /// Begins a pass.
    /// @param load nothing is in the cache yet; contested keys are found as records are stored
    void begin(bool load);
    /// A record is about to be stored, key by key.
    void storing() { ++m_recordNumber; }
    void stored(unsigned char layer, const std::string& key);
    /// Several objects claim the key.
    void contested(unsigned char layer, const std::string& key);
    /// The key went away with its object.
    void vacated(unsigned char layer, const std::string& key);
    /// Gives vacated keys to those who claim them as well. Ends a pass.
    void settle();
    /// Forgets the pass that failed.
    void abandon();

private:
    using Slot = std::pair<unsigned char, std::string>; ///< layer and key

    static std::string markOf(unsigned char layer, std::string_view key);

    ExplicitADNisMap& m_map;
    bool m_anyContested = false;
    std::set<Slot> m_vacated;
    bool m_load = false;
    std::uint32_t m_recordNumber = 0;
    /// During a load: hash of a layer and key -> number of the record that stored it. Two keys of
    /// one hash are taken for one, which only costs a look later.
    std::unordered_map<std::size_t, std::uint32_t> m_loaded;
};

} // namespace nis
