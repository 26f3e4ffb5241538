#pragma once

#include "common/MapEntry.h"

#include <string_view>

namespace nis {

/// Cursor over a whole map, used by one thread at a time.
class MapIterator {
public:
    virtual ~MapIterator() = default;
    /// Moves to the next entry; does nothing at the end.
    virtual MapIterator& operator++() = 0;
    /// The current entry (the first one before any advance); MapEntry::NOT_FOUND at the end.
    virtual MapEntry operator*() = 0;
    virtual std::string getMapName() const = 0;

    /// An entry where it is, without a copy.
    struct View {
        std::string_view key;
        std::string_view value;
    };
    /// The entry behind the current one, if it is in memory anyway. It stays until the next
    /// operation. Never throws.
    /// @return false when the entry must be read, is the end, or cannot be told: advance instead
    virtual bool peek(View& /*entry*/) noexcept { return false; }
    /// Makes the entry that peek() showed the current one.
    virtual void skip() noexcept {}
};

} // namespace nis
