#pragma once

#include "common/MapEntry.h"

#include <karst/ReaderWriterLock.h>

#include <cstdint>
#include <string>

namespace nis {

/// What a snapshot needs of the map that it copies. It lets the store know nothing of maps.
class SnapshotSource {
public:
    virtual ~SnapshotSource() = default;
    virtual std::string getName() const = 0;
    virtual tessa::ReaderWriterLock& getReaderWriterLock() const = 0;
    virtual MapEntry getFirst() const = 0;
    virtual MapEntry getNext(const std::string& key) const = 0;
    virtual std::uint32_t getOrder() const = 0;
};

} // namespace nis
