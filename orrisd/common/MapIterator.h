#pragma once

#include "common/MapEntry.h"

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
};

} // namespace nis
