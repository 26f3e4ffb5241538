#pragma once

#include "common/NisException.h"
#include "maps/ExplicitADNisMap.h"

namespace nis {

template <typename Use>
void ExplicitADNisMap::forEachSlot(const std::string& key, const std::string& value,
                                   const Use& use) const {
    for (unsigned index = 0; index < numMapsServed(); ++index) {
        std::string stored = value;
        const KeyList keys = nth_key(key, stored, index);
        for (const std::string& slotKey : *keys) {
            if (slotKey.empty()) {
                NIS_THROW(BadRecord, "bad record:" + value);
            }
            use(layerOf(index), slotKey, stored);
        }
    }
}

} // namespace nis
