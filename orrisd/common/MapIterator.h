#pragma once

#include "common/MapEntry.h"

#include <cstddef>
#include <span>
#include <string>
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
    /// The entries behind the current one that are in memory anyway, in their order. They stay
    /// until the next operation. Never throws.
    /// @param entries set to them; no more than it has room for
    /// @return how many; 0 when the next entry must be read, is the end, or cannot be told: advance
    ///         instead
    virtual std::size_t peek(std::span<View> /*entries*/) noexcept { return 0; }
    /// Makes an entry that the last peek() showed the current one.
    virtual void skipTo(const View& /*entry*/) noexcept {}
};

} // namespace nis
